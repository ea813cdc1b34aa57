#include "runtime/ZMGameRuntime2.h"

#include "platform/ZMFormat.h"
#include "plugin/ZMPluginManager.h"
#include "runtime/ZMGameRuntime.h"
#include "tavo/ZMOptionKeys.h"

std::shared_ptr<ZMGameRuntime2> ZMGameRuntime2::initWithUserId(
    const std::string& /*userId*/, std::shared_ptr<const ZMStorageLayout> layout, ZMValue& options,
    const std::shared_ptr<ZMRuntimeInitListener>& listener) {
  std::shared_ptr<ZMGameRuntime2> bridge(new ZMGameRuntime2());
  // The manager reads a running game's configuration through the runtime of the moment.
  auto gameConfig = [](const ZMValue& gameOptions) -> std::shared_ptr<ZMZimoGameConfig> {
    try {
      return ZMGameRuntime::getInstance()->getGameConfig(gameOptions);
    } catch (const ZMException&) {
      return nullptr;  // the runtime has ended
    }
  };
  bridge->pluginManager_ = std::make_shared<ZMPluginManager>(std::move(layout), gameConfig);
  bridge->listeners_.push_back(bridge->pluginManager_);
  if (auto error = bridge->_onGameEvent(ZMGameEventInit, options); error && listener) {
    listener->onInitializeFailure(ZMException(error->domain, std::nullopt, error->userInfo));
  }
  return bridge;
}

std::optional<ZMError> ZMGameRuntime2::_onGameEvent(ZMGameEvent event, ZMValue& options) {
  for (const auto& listener : listeners_) {
    if (auto error = listener->onGameEvent(event, options)) return error;
  }
  return std::nullopt;
}

std::shared_ptr<ZMGameHandle> ZMGameRuntime2::createGame(
    const std::weak_ptr<void>& /*viewController*/, ZMValue& options,
    const std::weak_ptr<ZMGameRunListener>& listener) {
  if (auto error = _onGameEvent(ZMGameEventCreate, options)) {
    if (auto host = listener.lock()) host->onRunFailure(*error);
    return nullptr;
  }
  if (options.is_object() && options.contains(ZM_KEY_RUN_OPT_VERSION)) {
    return ZMGameHandle::getInstance();
  }
  if (auto host = listener.lock()) {
    host->onRunFailure(ZMError("missing option: ZM_KEY_RUN_OPT_VERSION", 0));
  }
  return nullptr;
}

std::shared_ptr<ZMCoreRunListener> ZMGameRuntime2::getCoreRunListener(
    const std::shared_ptr<ZMGameHandle>& handle, const std::weak_ptr<ZMCoreRunListener>& listener) {
  std::lock_guard lock(mutex_);
  gameHandle_ = handle;
  coreRunListener_ = listener;
  return shared_from_this();
}

void ZMGameRuntime2::destroyGame(const std::shared_ptr<ZMGameHandle>& /*handle*/) {
  ZMValue none;
  if (auto error = _onGameEvent(ZMGameEventDestroy, none)) {
    ZMLogFormat("destroy game error: %@", {*error});
  }
}

void ZMGameRuntime2::done() {
  if (pluginManager_) pluginManager_->done();
}

std::shared_ptr<ZMZimoGamePluginManager> ZMGameRuntime2::getManager(const std::string& name,
                                                                    const ZMValue& /*options*/) {
  return name == "plugin_manager" ? pluginManager_ : nullptr;
}

std::shared_ptr<ZMCoreRunListener> ZMGameRuntime2::coreRunListener() {
  std::lock_guard lock(mutex_);
  return coreRunListener_.lock();
}

void ZMGameRuntime2::onGameViewCreated(std::shared_ptr<void> view) {
  if (auto listener = coreRunListener()) listener->onGameViewCreated(std::move(view));
}

void ZMGameRuntime2::onRunSuccess() {
  if (auto listener = coreRunListener()) listener->onRunSuccess();
  std::shared_ptr<ZMGameHandle> handle;
  {
    std::lock_guard lock(mutex_);
    handle = gameHandle_.lock();
  }
  ZMValue options = ZMValue::object();
  if (handle) {
    if (auto appId = handle->getAppId()) options[ZM_KEY_GAME_PACKAGE_APP_ID] = *appId;
  }
  _onGameEvent(ZMGameEventRunSuccess, options);
}

void ZMGameRuntime2::onRunFailure(const ZMError& error) {
  if (auto listener = coreRunListener()) listener->onRunFailure(error);
}
