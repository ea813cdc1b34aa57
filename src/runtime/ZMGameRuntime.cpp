#include "runtime/ZMGameRuntime.h"

#include <atomic>
#include <mutex>
#include <thread>

#include "platform/ZMFormat.h"
#include "platform/ZMPath.h"
#include "platform/ZMValueAccess.h"
#include "protocol/ZMPartialDownload.h"
#include "protocol/ZMURLSession.h"
#include "runtime/ZMGameRuntime2.h"
#include "storage/ZMDatabaseHelper.h"
#include "storage/ZMPermissionUtil.h"
#include "tavo/ZMFileUtils.h"
#include "tavo/ZMMainQueue.h"
#include "tavo/ZMOptionKeys.h"
#include "tavo/ZMSystemDirectories.h"
#include "util/ZMPackageTrust.h"
#include "util/ZMSafePath.h"
#include "util/ZMTaskGroup.h"

namespace {

// The singleton slot: set by init, read by getInstance from any thread, emptied by done.
std::mutex gSlotMutex;
std::shared_ptr<ZMGameRuntime> gInstance;

}  // namespace

ZMGameRuntime::ZMGameRuntime()
    : layout_(std::make_shared<const ZMStorageLayout>()), tasks_(std::make_shared<ZMTaskGroup>()) {}

std::shared_ptr<ZMGameRuntime> ZMGameRuntime::init() {
  std::shared_ptr<ZMGameRuntime> runtime(new ZMGameRuntime());
  std::lock_guard lock(gSlotMutex);
  gInstance = runtime;
  return runtime;
}

std::shared_ptr<ZMGameRuntime> ZMGameRuntime::getInstance() {
  std::lock_guard lock(gSlotMutex);
  if (!gInstance) throw ZMException("ZimoRuntime error", "uninitialized ZimoGameRuntime");
  return gInstance;
}

void ZMGameRuntime::create(const std::string& userId, const ZMValue& options,
                           const std::shared_ptr<ZMRuntimeInitListener>& listener) {
  ZMLogFormat("root->%@", {ZMSystemDirectories::documentsDirectory()});
  userId_ = userId;
  permissionListener_ = std::make_shared<ZMPermissionUtil>(userId_);

  // A user id becomes part of directory names ("<user>_<app>"); one that could leave the
  // storage roots is refused before anything is created.
  if (!ZMSafePath::isNamePart(userId_)) {
    if (listener) listener->onInitializeFailure(ZMException("init fail", "invalid user id"));
    return;
  }
  // A mistyped key must not leave the host believing its packages are checked.
  if (auto key = ZMPackageTrust::invalidKey(options)) {
    if (listener) {
      listener->onInitializeFailure(
          ZMException("init fail", ZMFormat("invalid trusted key: %@", {*key})));
    }
    return;
  }
  if (!ZMDatabaseHelper::getInstance().createDataBase()) {
    if (listener) listener->onInitializeFailure(ZMException("init fail", "create database error"));
    return;
  }

  ZMValue effective = options.is_object() ? options : ZMValue::object();
  auto layout =
      std::make_shared<const ZMStorageLayout>(ZMStorageLayout::fromOptions(userId_, effective));
  layout_ = layout;

  // Results ignored: a root that cannot be created shows up in the operations that use it; a
  // root that is a file throws out of here.
  for (const std::string* root : {&layout->app, &layout->core, &layout->cache, &layout->user}) {
    ZMFileUtils::ensureDirExists(*root);
  }
  // Downloads cut short by a killed process leave their temporary files; nothing else would.
  ZMURLSession::removeStaleDownloads(ZMSystemDirectories::temporaryDirectory());
  ZMPartialDownload::removeStale(layout_->cache);

  gameRuntime2_ = ZMGameRuntime2::initWithUserId(userId_, layout, effective, listener);

  // Also after a failure reported by the bridge: a host can hear both for one creation.
  if (listener) listener->onInitializeSuccess(shared_from_this());
}

std::optional<std::string> ZMGameRuntime::getVersionInfo() { return TAVO_VERSION_TEXT; }

void ZMGameRuntime::validateQuietly(const std::string& path) const {
  if (path.empty()) return;
  try {
    ZMFileUtils::validateDirectory(path);
  } catch (const ZMException& exception) {
    ZMLogFormat("%@", {exception});
  }
}

std::string ZMGameRuntime::getAppPackageCache() {
  validateQuietly(layout_->cache);
  return layout_->cache;
}

std::string ZMGameRuntime::getAppDirPath(const std::string& appId) {
  return layout_->appDir(appId);
}

std::string ZMGameRuntime::getAppDir(const std::string& appId) {
  std::string path = layout_->appDir(appId);
  validateQuietly(path);
  return path;
}

std::string ZMGameRuntime::getAppDetailFile(const std::string& appId) {
  validateQuietly(layout_->appDir(appId));
  return layout_->appDetailFile(appId);
}

std::string ZMGameRuntime::getAppPackageDownloadPath(const std::string& appId,
                                                     const std::string& version) {
  validateQuietly(layout_->cache);
  return layout_->packageDownloadPath(appId, version);
}

std::string ZMGameRuntime::getAppPackageDir(const std::string& appId, const std::string& version) {
  std::string path = layout_->appPackageDir(appId, version);
  validateQuietly(path);
  return path;
}

std::string ZMGameRuntime::getUserDirPath(const std::string& appId) {
  return layout_->userDir(appId);
}

std::string ZMGameRuntime::getUserCachePath(const std::string& appId) {
  return layout_->userCacheDir(appId);
}

std::string ZMGameRuntime::getUserTempDirPath(const std::string& appId) {
  return layout_->userTempDir(appId);
}

std::string ZMGameRuntime::getUserDataDirPath(const std::string& appId) {
  return layout_->userDataDir(appId);
}

std::string ZMGameRuntime::getUserLocalStoragePath(const std::string& appId) {
  return layout_->userLocalStorage(appId);
}

std::string ZMGameRuntime::getRuntimeLocalStoragePath(const std::string& appId) {
  return layout_->runtimeLocalStorage(appId);
}

void ZMGameRuntime::setGameQueryExitListener(std::weak_ptr<ZMGameQueryExitListener> listener) {
  std::lock_guard lock(launchMutex_);
  gameQueryExitListener_ = std::move(listener);
}

std::shared_ptr<ZMZimoGamePluginManager> ZMGameRuntime::getManager(const std::string& name,
                                                                   const ZMValue& options) {
  return gameRuntime2_ ? gameRuntime2_->getManager(name, options) : nullptr;
}

std::shared_ptr<ZMGameHandle> ZMGameRuntime::gameHandle() const {
  std::lock_guard lock(launchMutex_);
  return gameHandle_.lock();
}

std::shared_ptr<void> ZMGameRuntime::viewController() const {
  std::lock_guard lock(launchMutex_);
  return viewController_.lock();
}

std::optional<std::string> ZMGameRuntime::appId() const {
  std::lock_guard lock(launchMutex_);
  return appId_;
}

ZMValue ZMGameRuntime::info() const {
  std::lock_guard lock(launchMutex_);
  return info_;
}

void ZMGameRuntime::endHandle(ZMGameHandle& handle) {
  if (!ZMMainQueue::isMainThread()) {
    handle.done();
    return;
  }
  // The engine's done() waits for its callbacks; the main thread keeps delivering the replies
  // they post meanwhile, so a launch's end is heard before done() returns.
  std::atomic<bool> ended{false};
  std::thread ender([&] {
    handle.done();
    ended = true;
  });
  while (!ZMMainQueue::runUntil([&] { return ended.load(); }, std::chrono::hours(1))) {
  }
  ender.join();
}

void ZMGameRuntime::done() {
  cancelGamePackageRequest();
  auto handle = gameHandle();
  if (gameRuntime2_) gameRuntime2_->destroyGame(handle);
  if (handle) endHandle(*handle);
  if (gameRuntime2_) gameRuntime2_->done();
  // Last, after the engine has ended its unzips: waits for the tasks' work still running.
  tasks_->end();
  std::lock_guard lock(gSlotMutex);
  if (gInstance.get() == this) gInstance.reset();
}
