#include "runtime/ZMGameRuntime2.h"

#include "platform/ZMFormat.h"
#include "tavo/ZMOptionKeys.h"

namespace {
std::mutex gExtraMutex;
std::vector<std::shared_ptr<ZMGameEventListener>> gExtraListeners;
}  // namespace

void ZMGameRuntime2::setExtraListenersForTesting(
    std::vector<std::shared_ptr<ZMGameEventListener>> listeners) {
  std::lock_guard lock(gExtraMutex);
  gExtraListeners = std::move(listeners);
}

std::shared_ptr<ZMGameRuntime2> ZMGameRuntime2::initWithUserId(
    const std::string& /*userId*/, ZMValue& options,
    const std::shared_ptr<ZMRuntimeInitListener>& listener) {
  std::shared_ptr<ZMGameRuntime2> bridge(new ZMGameRuntime2());
  {
    std::lock_guard lock(gExtraMutex);
    bridge->listeners_.insert(bridge->listeners_.end(), gExtraListeners.begin(),
                              gExtraListeners.end());
  }
  if (auto error = bridge->_onGameEvent(ZMGameEventInit, options); error && listener) {
    listener->onInitializeFailure(ZMException(error->domain, std::nullopt, error->userInfo));
  }
  return bridge;
}

std::optional<ZMError> ZMGameRuntime2::_onGameEvent(int32_t event, ZMValue& options) {
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
