#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "runtime/ZMGameEventListener.h"
#include "tavo/ZMCoreListeners.h"
#include "tavo/ZMGameHandle.h"
#include "tavo/ZMGameListeners.h"
#include "tavo/ZMZimoGame.h"

// ZMGameRuntime2 is the bridge between the runtime and the engine: it owns the game-event
// listeners (the plug-in manager), creates the game handle for a launch and relays the engine's
// run callbacks to the runtime. Owned by ZMGameRuntime; holds the runtime and the handle weakly.
// Engine callbacks arrive on the engine's thread and are relayed on it.
class ZMGameRuntime2 : public ZMCoreRunListener,
                       public std::enable_shared_from_this<ZMGameRuntime2> {
 public:
  // Builds the bridge and sends event 0 with `options`; an error from it reaches
  // `listener->onInitializeFailure` as an exception named after the error's domain.
  static std::shared_ptr<ZMGameRuntime2> initWithUserId(
      const std::string& userId, ZMValue& options,
      const std::shared_ptr<ZMRuntimeInitListener>& listener);
  // Receivers that every bridge built from now on appends after its own (empty: none). For
  // tests, which drive game events through the runtime; thread-safe.
  static void setExtraListenersForTesting(
      std::vector<std::shared_ptr<ZMGameEventListener>> listeners);

  // Sends event 1 and returns the engine's handle, or null after reporting a failure to
  // `listener`.
  std::shared_ptr<ZMGameHandle> createGame(const std::weak_ptr<void>& viewController,
                                           ZMValue& options,
                                           const std::weak_ptr<ZMGameRunListener>& listener);
  // Stores both weakly and returns the bridge, which relays to `listener`.
  std::shared_ptr<ZMCoreRunListener> getCoreRunListener(
      const std::shared_ptr<ZMGameHandle>& handle, const std::weak_ptr<ZMCoreRunListener>& listener);
  // Sends event 5; logs "destroy game error: %@" when a receiver objects.
  void destroyGame(const std::shared_ptr<ZMGameHandle>& handle);
  std::shared_ptr<ZMZimoGamePluginManager> getManager(const std::string& name,
                                                      const ZMValue& options);
  // Broadcasts in registration order; returns the first error.
  std::optional<ZMError> _onGameEvent(int32_t event, ZMValue& options);

  void onGameViewCreated(std::shared_ptr<void> view) override;
  void onRunSuccess() override;
  void onRunFailure(const ZMError& error) override;

  const std::vector<std::shared_ptr<ZMGameEventListener>>& listeners() const { return listeners_; }

 private:
  ZMGameRuntime2() = default;
  std::shared_ptr<ZMCoreRunListener> coreRunListener();

  std::vector<std::shared_ptr<ZMGameEventListener>> listeners_;
  std::shared_ptr<ZMZimoGamePluginManager> pluginManager_;
  // Written on the main thread at launch, read on the engine's thread.
  mutable std::mutex mutex_;
  std::weak_ptr<ZMCoreRunListener> coreRunListener_;
  std::weak_ptr<ZMGameHandle> gameHandle_;
};
