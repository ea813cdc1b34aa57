#include "plugin/ZMPluginManager.h"

#include "platform/ZMFormat.h"
#include "platform/ZMPath.h"
#include "platform/ZMValueAccess.h"
#include "plugin/ZMPluginCheckPackageManager.h"
#include "plugin/ZMPluginCheckUpdateManager.h"
#include "plugin/ZMPluginInstallPackageManager.h"
#include "plugin/ZMPluginListTask.h"
#include "plugin/ZMPluginRemoveListTask.h"
#include "tavo/ZMFileUtils.h"
#include "tavo/ZMMainQueue.h"
#include "tavo/ZMOptionKeys.h"
#include "tavo/ZMSystemDirectories.h"
#include "util/ZMSafePath.h"
#include "util/ZMTaskGroup.h"

namespace {

ZMError invalidNameError() { return ZMError("plugin provider or version is invalid", 0); }
// A request made after done(): it fails at once rather than start work nobody would finish.
ZMError doneError() { return ZMError("plugin manager is done", 0); }

}  // namespace

ZMPluginManager::ZMPluginManager(std::shared_ptr<const ZMStorageLayout> layout,
                                 GameConfigLookup gameConfig)
    : pluginServiceHosts_(defaultServiceHosts()),
      layout_(std::move(layout)),
      gameConfig_(std::move(gameConfig)),
      tasks_(std::make_shared<ZMTaskGroup>()) {}

ZMPluginManager::~ZMPluginManager() = default;

std::vector<std::string> ZMPluginManager::defaultServiceHosts() {
  // Reserved names that never resolve: nothing reaches a real service until the host sets one.
  return {"https://plugin.tavo.invalid/ced", "https://plugin-fallback.tavo.invalid/ced"};
}

std::string ZMPluginManager::getPluginDirFile(const std::string& root, const std::string& pluginId,
                                              const std::string& version) {
  return ZMSafePath::join(root, ZMFormat("%@_%@", {pluginId, version}));
}

std::string ZMPluginManager::getPluginPackageDownloadPath(const std::string& dir,
                                                          const std::string& pluginId,
                                                          const std::string& version,
                                                          const std::string& hash) {
  return ZMSafePath::join(dir, ZMFormat("%@_%@_%@.zip", {hash, pluginId, version}));
}

std::string ZMPluginManager::getPluginConfigFile(const std::string& root,
                                                 const std::string& pluginId,
                                                 const std::string& version) {
  return getPluginConfigFile(getPluginDirFile(root, pluginId, version));
}

std::string ZMPluginManager::getPluginConfigFile(const std::string& pluginDir) {
  return pluginDir.empty() ? std::string() : pluginDir + ".detail.json";
}

std::optional<std::string> ZMPluginManager::_getUniqueId() {
  std::optional<std::string> id;
  if (ZMDevice::isAdvertisingTrackingEnabled()) id = ZMDevice::advertisingIdentifier();
  if (id && id->empty()) id = ZMDevice::identifierForVendor();
  return id;
}

std::string ZMPluginManager::getCpuAbi() { return ZMDevice::processorName(); }

void ZMPluginManager::setPluginServiceHosts(std::vector<std::string> hosts) {
  pluginServiceHosts_ = std::move(hosts);
}

std::optional<ZMError> ZMPluginManager::onGameEvent(ZMGameEvent event, ZMValue& options) {
  switch (event) {
    case ZMGameEventInit:
      // `options` are the creation options, and the layout was made from these very options:
      // its plug-in root is their "rt_storage_path_plugin", or Caches + "plugin". The layout is
      // the one reader of the root keys, so they are not read a second time here.
      storagePluginPath_ = layout_->plugin;
      ZMFileUtils::validateDirectory(storagePluginPath_);
      appPackageCache_ = layout_->cache;
      return std::nullopt;
    case ZMGameEventCreate: {
      bool ensured = false;
      try {
        ensured = ZMFileUtils::ensureDirExists(storagePluginPath_);
      } catch (const ZMException&) {
        // A file where the root belongs fails the launch like a root that cannot be made.
      }
      if (!ensured) return ZMError(ZMFormat("%@ not found", {storagePluginPath_}), 0);
      if (options.is_object()) options[ZM_SYSTEM_KEY_FILE_PLUGIN_PACKAGE_PATH] = storagePluginPath_;
      return std::nullopt;
    }
    case ZMGameEventRunSuccess:
      // The engine's thread: the workers and their slots live on the main queue.
      ZMMainQueue::post([weak = weak_from_this(), options] {
        if (auto self = weak.lock()) self->onRunSuccess(options);
      });
      return std::nullopt;
    case ZMGameEventDestroy:
      cancelPluginRequest();
      return std::nullopt;
  }
  return std::nullopt;
}

void ZMPluginManager::onRunSuccess(const ZMValue& options) {
  if (tasks_->hasEnded()) return;
  auto config = gameConfig_ ? gameConfig_(options) : nullptr;
  if (!config) return;
  const ZMValue plugins = config->plugins();
  if (!plugins.is_array() || plugins.empty()) return;
  ZMCancelAndClear(pluginCheckUpdateManager_);
  pluginCheckUpdateManager_ = adopt(std::make_shared<ZMPluginCheckUpdateManager>(
      storagePluginPath_, appPackageCache_, pluginServiceHosts_, _getUniqueId(),
      ZMTextOption(options, ZM_KEY_GAME_PACKAGE_APP_ID).value_or(""), ZMDevice::bundleIdentifier(),
      TAVO_VERSION_TEXT, layout_->packageLimits, layout_->packageTrust));
  pluginCheckUpdateManager_->execute(std::move(config));
}

void ZMPluginManager::checkPluginVersion(const ZMValue& info,
                                         std::weak_ptr<ZMPluginCheckVersionListener> listener) {
  const auto provider = ZMTextOption(info, "provider");
  const auto version = ZMTextOption(info, "version");
  auto host = listener.lock();
  if (!provider || provider->empty()) {
    if (host) host->onCheckPluginFailure(info, ZMError("missing info: provider", 0));
    return;
  }
  if (!version || version->empty()) {
    if (host) host->onCheckPluginFailure(info, ZMError("missing info: version", 0));
    return;
  }
  // A name that could reach outside the root touches nothing (a check deletes a directory it
  // finds without config). An empty provider is the service's to judge: "_1.0" is a name.
  if (getPluginDirFile(storagePluginPath_, *provider, *version).empty()) {
    if (host) host->onCheckPluginFailure(info, invalidNameError());
    return;
  }
  if (tasks_->hasEnded()) {
    if (host) host->onCheckPluginFailure(info, doneError());
    return;
  }
  ZMCancelAndClear(pluginCheckPackageManager_);
  if (host) host->onCheckPluginVersionStart(info);
  pluginCheckPackageManager_ = adopt(std::make_shared<ZMPluginCheckPackageManager>(
      appPackageCache_, getPluginDirFile(storagePluginPath_, *provider, *version),
      std::move(listener), layout_->packageLimits, layout_->packageTrust));
  pluginCheckPackageManager_->execute(*provider, *version, info);
}

void ZMPluginManager::installPlugin(const ZMValue& info,
                                    std::weak_ptr<ZMPluginInstallListener> listener) {
  ZMCancelAndClear(pluginInstallPackageManager_);
  auto host = listener.lock();
  if (host) host->onPluginInstallStart(info);
  // Only missing keys are refused here: an empty provider goes on to the service.
  const auto provider = ZMTextOption(info, "provider");
  const auto version = ZMTextOption(info, "version");
  for (const auto& [value, name] :
       {std::pair{provider, "provider"}, std::pair{version, "version"}}) {
    if (!value) {
      if (host) host->onPluginInstallFailure(info, ZMError(ZMFormat("missing info %@", {name}), 0));
      return;
    }
  }
  if (getPluginDirFile(storagePluginPath_, *provider, *version).empty()) {
    if (host) host->onPluginInstallFailure(info, invalidNameError());
    return;
  }
  if (tasks_->hasEnded()) {
    if (host) host->onPluginInstallFailure(info, doneError());
    return;
  }
  pluginInstallPackageManager_ = adopt(std::make_shared<ZMPluginInstallPackageManager>(
      pluginServiceHosts_, appPackageCache_,
      getPluginDirFile(storagePluginPath_, *provider, *version), _getUniqueId(),
      ZMDevice::bundleIdentifier(), TAVO_VERSION_TEXT, std::move(listener), layout_->packageLimits,
      layout_->packageTrust));
  pluginInstallPackageManager_->execute(info, *provider, *version);
}

void ZMPluginManager::listPlugin(std::weak_ptr<ZMGameListListener> listener) {
  ZMCancelAndClear(listTask_);
  if (tasks_->hasEnded()) {
    if (auto host = listener.lock()) host->onListGameFailure(doneError());
    return;
  }
  listTask_ = adopt(std::make_shared<ZMPluginListTask>(std::move(listener)));
  listTask_->execute(storagePluginPath_);
}

void ZMPluginManager::removePluginList(const ZMValue& list,
                                       std::weak_ptr<ZMPluginRemoveListener> listener) {
  ZMCancelAndClear(removeListTask_);
  if (tasks_->hasEnded()) {
    if (auto host = listener.lock()) host->onPluginRemoveFailure(doneError());
    return;
  }
  removeListTask_ =
      adopt(std::make_shared<ZMPluginRemoveListTask>(storagePluginPath_, std::move(listener)));
  removeListTask_->execute(list);
}

void ZMPluginManager::cancelPluginRequest() {
  ZMCancelAndClear(pluginCheckPackageManager_);
  ZMCancelAndClear(pluginInstallPackageManager_);
  ZMCancelAndClear(pluginCheckUpdateManager_);
  ZMCancelAndClear(listTask_);
  ZMCancelAndClear(removeListTask_);
}

void ZMPluginManager::done() {
  cancelPluginRequest();
  tasks_->end();
}

template <typename Worker>
std::shared_ptr<Worker> ZMPluginManager::adopt(std::shared_ptr<Worker> worker) {
  tasks_->add(worker);
  return worker;
}
