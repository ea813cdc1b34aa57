#include "plugin/ZMPluginCheckPackageManager.h"

#include <utility>

#include "platform/ZMFileManager.h"
#include "platform/ZMFormat.h"
#include "platform/ZMJSON.h"
#include "platform/ZMPath.h"
#include "platform/ZMValueAccess.h"
#include "plugin/ZMPluginCheckVersionTask.h"
#include "plugin/ZMPluginConfig.h"
#include "plugin/ZMPluginManager.h"
#include "plugin/ZMPluginUnzipPackageTask.h"
#include "tavo/ZMFileUtils.h"
#include "util/ZMSafePath.h"
#include "util/ZMTaskGroup.h"

ZMPluginCheckPackageManager::ZMPluginCheckPackageManager(
    std::string cacheDir, std::string pluginDir,
    std::weak_ptr<ZMPluginCheckVersionListener> listener, ZMPackageLimits limits,
    ZMPackageTrust trust)
    : listener_(std::move(listener)),
      cacheDir_(std::move(cacheDir)),
      limits_(limits),
      trust_(std::move(trust)),
      pluginDir_(std::move(pluginDir)) {}

ZMPluginCheckPackageManager::~ZMPluginCheckPackageManager() {
  // The check may outlive this manager in the task group; a manager let go answers nothing.
  if (checkVersionTask_) checkVersionTask_->cancel();
  if (unzipPackageTask_) unzipPackageTask_->cancel();
}

void ZMPluginCheckPackageManager::execute(const std::string& pluginId, const std::string& version,
                                          const ZMValue& pluginInfo) {
  pluginInfo_ = pluginInfo;
  const auto updateHash = ZMPluginConfig::text(ZMPluginManager::getPluginConfigFile(pluginDir_),
                                               ZMPluginConfig::kUpdateHash);
  // The hash and the directory's name each become one name in the cache; a hash that would reach
  // outside it is no cached update. Without a hash there is nothing to look for.
  const std::string packagePath = updateHash ? ZMPluginManager::getPluginPackageDownloadPath(
                                                   cacheDir_, pluginId, version, *updateHash)
                                             : std::string();
  const std::string stagingPath = ZMSafePath::join(cacheDir_, ZMLastPathComponent(pluginDir_));
  if (packagePath.empty() || stagingPath.empty() || !ZMFileUtils::isExist(packagePath)) {
    _checkVersion();
    return;
  }
  // Unpacked beside the package rather than over the installed directory, so that a bad package
  // never damages a working plug-in; an earlier leftover must not mix in.
  pluginInstallDirTmpPath_ = stagingPath;
  ZMFileUtils::deleteFile(pluginInstallDirTmpPath_);
  ZMCancelAndClear(unzipPackageTask_);
  pluginHash_ = *updateHash;
  unzipPackageTask_ = std::make_shared<ZMPluginUnzipPackageTask>(
      pluginInstallDirTmpPath_, pluginHash_, weak_from_this(), limits_, trust_);
  unzipPackageTask_->execute(packagePath);
}

void ZMPluginCheckPackageManager::cancel() {
  ZMTaskBase::cancel();
  ZMCancelAndClear(checkVersionTask_);
  ZMCancelAndClear(unzipPackageTask_);
}

void ZMPluginCheckPackageManager::onInstallStart() {}

void ZMPluginCheckPackageManager::onInstallSuccess() {
  if (isCancel()) return;
  _moveStagedPlugin();
  _checkVersion();
}

void ZMPluginCheckPackageManager::onInstallFailure(const ZMError& error) {
  if (isCancel()) return;
  if (ZMPackageTrust::isRefusal(error)) ZMLogFormat("plugin update refused: %@", {error.domain});
  _checkVersion();
}

void ZMPluginCheckPackageManager::_moveStagedPlugin() {
  // A directory that cannot be deleted keeps serving; the staged copy waits in the cache.
  if (!ZMFileUtils::deleteFile(pluginDir_)) return;
  ZMError error;
  if (!ZMFileManager::moveItem(pluginInstallDirTmpPath_, pluginDir_, &error)) {
    ZMFileUtils::deleteFile(pluginInstallDirTmpPath_);
    ZMLogFormat("move file fail: %@", {error});
    return;
  }
  const auto installed = [&](ZMValue& config) {
    config[ZMPluginConfig::kHash] = pluginHash_;
    config.erase(ZMPluginConfig::kUpdateHash);
  };
  if (!ZMPluginConfig::update(ZMPluginManager::getPluginConfigFile(pluginDir_), installed,
                              &error)) {
    // The directory holds a package that its config does not name: it must not pass.
    ZMFileUtils::deleteFile(pluginDir_);
    ZMLogFormat("install update plugin error: %@", {error});
  }
}

void ZMPluginCheckPackageManager::_checkVersion() {
  ZMCancelAndClear(checkVersionTask_);
  checkVersionTask_ = std::make_shared<ZMPluginCheckVersionTask>(pluginInfo_, listener_);
  // The group keeps the check until it has answered (and cancels it when it ends), so this
  // manager's own part is over here.
  if (group()) group()->add(checkVersionTask_);
  checkVersionTask_->execute(pluginDir_);
  finished();
}
