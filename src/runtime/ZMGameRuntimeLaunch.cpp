// The runtime's launch and exit: builds the engine's run options, drives the game handle through
// the bridge, and relays the engine's callbacks (which arrive on the engine's thread) to the host.

#include <cstdlib>

#include "platform/ZMFormat.h"
#include "platform/ZMPath.h"
#include "platform/ZMValueAccess.h"
#include "runtime/ZMGameRuntime.h"
#include "runtime/ZMGameRuntime2.h"
#include "storage/ZMDatabaseHelper.h"
#include "storage/ZMPermissionUtil.h"
#include "tavo/ZMFileUtils.h"
#include "tavo/ZMOptionKeys.h"
#include "util/ZMSafePath.h"

namespace {

ZMError launchError(const std::string& domain) { return ZMError(domain, -1, ZMValue::object()); }

}  // namespace

void ZMGameRuntime::runGame(std::shared_ptr<void> viewController, const std::string& appId,
                            const ZMValue& options, std::weak_ptr<ZMGameRunListener> listener) {
  loadingStartTime_ = ZMNow();
  ZMLogFormat("[runGame] begin ...");
  {
    std::lock_guard lock(launchMutex_);
    viewController_ = viewController;
    gameRunListener_ = listener;
    appId_ = appId;
    info_ = options;
  }
  auto fail = [&](const ZMError& error) {
    if (auto host = listener.lock()) host->onRunFailure(error);
  };

  std::string version;
  if (options.is_object()) {
    auto it = options.find(ZM_KEY_RUN_OPT_VERSION);
    if (it != options.end() && it->is_string()) version = it->get<std::string>();
  }
  if (version.empty()) {
    fail(launchError("missing run option: ZM_KEY_RUN_OPT_VERSION"));
    return;
  }
  if (!ZMSafePath::isComponent(appId)) {
    fail(launchError(ZMFormat("invalid app id: %@", {appId})));
    return;
  }
  if (!ZMSafePath::isComponent(version)) {
    fail(launchError(ZMFormat("invalid version: %@", {version})));
    return;
  }

  const std::string detailFile = getAppDetailFile(appId);
  const std::string packageDir = getAppPackageDir(appId, version);
  const std::string tempDir = getUserTempDirPath(appId);
  const std::string dataDir = getUserDataDirPath(appId);

  try {
    if (ZMFileUtils::isDirectoryEmpty(packageDir)) {
      fail(launchError("game not installed"));
      return;
    }
  } catch (const ZMException& exception) {
    fail(launchError(exception.reason().value_or(exception.name())));
    return;
  } catch (const ZMError& error) {
    fail(launchError(error.localizedDescription()));
    return;
  }

  // Unguarded on purpose: a temp or data path that is a file throws out of runGame.
  if (!ZMFileUtils::ensureDirExists(tempDir)) {
    fail(launchError("temp dir not found"));
    return;
  }
  if (!ZMFileUtils::ensureDirExists(dataDir)) {
    fail(launchError("user data dir not found"));
    return;
  }

  ZMValue runOptions = options.is_object() ? options : ZMValue::object();
  runOptions[ZM_SYSTEM_KEY_FILE_USER_DATA_PATH] = dataDir;
  runOptions[ZM_SYSTEM_KEY_FILE_APP_PACKAGE_PATH] = packageDir;
  runOptions[ZM_SYSTEM_KEY_FILE_USER_TEMP_PATH] = tempDir;
  runOptions[ZM_SYSTEM_KEY_FILE_APP_DETAIL_PATH] = detailFile;
  const bool showTimes =
      options.is_object() &&
      ZMTruthOf(options.value(ZM_KEY_RUN_DEBUG_SHOW_GAME_LOADING_TIME_LOG, ZMValue(false)));
  gameLoadingTimeLog_ = showTimes;
  runOptions[ZM_KEY_RUN_DEBUG_SHOW_GAME_LOADING_TIME_LOG] = showTimes;

  _loadingTimeLog("[runGame] initRuntimeCore ");

  runOptions[ZM_SYSTEM_KEY_GAME_LOADING_START_TIME] = loadingStartTime_.load();
  for (const char* key : {ZM_KEY_RUN_OPT_APP_LAUNCH_OPTIONS, ZM_KEY_RUN_DEBUG_SHOW_DEBUG_VIEW,
                          ZM_KEY_RUN_DEBUG_SKIPPED_FRAME_WARNING_LIMIT}) {
    if (options.is_object() && options.contains(key)) runOptions[key] = options[key];
  }
  runOptions[ZM_SYSTEM_KEY_LOCAL_STORAGE_PATH] = getUserLocalStoragePath(appId);
  runOptions[ZM_KEY_RUNTIME_LOCAL_STORAGE_PATH] = getRuntimeLocalStoragePath(appId);
  runOptions[ZM_KEY_USER_ID] = userId_;

  auto handle =
      gameRuntime2_ ? gameRuntime2_->createGame(viewController, runOptions, listener) : nullptr;
  if (!handle) return;  // the bridge has reported the failure, or the engine gave no handle
  handle->setOnGameQueryExitListener(weak_from_this());
  handle->setOnGamePermissionListener(permissionListener_);
  {
    std::lock_guard lock(launchMutex_);
    gameHandle_ = handle;
  }
  auto coreListener = gameRuntime2_->getCoreRunListener(handle, weak_from_this());
  handle->runGame(viewController, appId, runOptions, coreListener);
}

void ZMGameRuntime::_loadingTimeLog(const std::string& message) {
  if (!gameLoadingTimeLog_) return;
  ZMLogFormat("%@ %fs", {message, ZMNow() - loadingStartTime_.load()});
}

void ZMGameRuntime::onGameViewCreated(std::shared_ptr<void> /*view*/) {
  _loadingTimeLog("[runGame] onGameViewCreated");
  std::shared_ptr<ZMGameRunListener> host;
  std::shared_ptr<ZMGameHandle> handle;
  {
    std::lock_guard lock(launchMutex_);
    host = gameRunListener_.lock();
    handle = gameHandle_.lock();
  }
  // The host gets the handle, not the engine's view.
  if (host) host->onGameHandleCreate(handle);
}

void ZMGameRuntime::onRunFailure(const ZMError& error) {
  std::shared_ptr<ZMGameRunListener> host;
  {
    std::lock_guard lock(launchMutex_);
    host = gameRunListener_.lock();
  }
  if (host) host->onRunFailure(error);
}

void ZMGameRuntime::onRunSuccess() {
  _loadingTimeLog("[runGame] onSuccess");
  std::shared_ptr<ZMGameRunListener> host;
  std::optional<std::string> appId;
  std::optional<std::string> extend;
  {
    std::lock_guard lock(launchMutex_);
    host = gameRunListener_.lock();
    appId = appId_;
    if (info_.is_object()) {
      auto it = info_.find(ZM_KEY_RUN_OPT_EXTEND);
      if (it != info_.end() && it->is_string()) extend = it->get<std::string>();
    }
  }
  // A play counts only while the host still listens.
  if (!host) return;
  ZMDatabaseHelper::getInstance().insertOrUpdateExtraAndPlay(userId_, appId.value_or(""), extend);
  host->onRunSuccess();
}

void ZMGameRuntime::exitGame(const std::string& appId, std::weak_ptr<ZMGameExitListener> listener) {
  auto handle = ZMGameHandle::getInstance();
  if (!handle) {
    if (auto host = listener.lock()) host->onGameExitFailure(launchError("no game running"));
  }
  {
    std::lock_guard lock(launchMutex_);
    gameExitListener_ = listener;
  }
  if (handle) handle->exitGame(appId, weak_from_this());
}

void ZMGameRuntime::onCoreExitSuccess() {
  std::shared_ptr<ZMGameExitListener> host;
  {
    std::lock_guard lock(launchMutex_);
    viewController_.reset();
    host = gameExitListener_.lock();
  }
  if (host) host->onGameExitSuccess();
}

void ZMGameRuntime::onCoreExitFailure(const ZMError& error) {
  std::shared_ptr<ZMGameExitListener> host;
  {
    std::lock_guard lock(launchMutex_);
    viewController_.reset();
    host = gameExitListener_.lock();
  }
  if (host) host->onGameExitFailure(error);
}

void ZMGameRuntime::onCoreQueryExit(const ZMValue& result) {
  auto handle = ZMGameHandle::getInstance();
  if (!handle) return;
  const std::string appId = handle->getAppId().value_or("");
  std::shared_ptr<ZMGameQueryExitListener> host;
  {
    std::lock_guard lock(launchMutex_);
    host = gameQueryExitListener_.lock();
  }
  if (host) {
    // Whatever the host throws is logged here: nothing may escape onto the engine's thread.
    try {
      host->onQueryExit(appId, result);
    } catch (const ZMError& error) {
      ZMLogFormat("%@", {error});
    } catch (const std::exception& exception) {
      ZMLogFormat("%@", {exception.what()});
    } catch (...) {
      ZMLogFormat("%@", {"unknown exception"});
    }
    return;
  }
  // Nobody to ask: end the game at once; the runtime is its own (silent) exit listener.
  exitGame(appId, weak_from_this());
}
