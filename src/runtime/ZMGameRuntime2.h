#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "plugin/ZMGameEventListener.h"
#include "tavo/ZMCoreListeners.h"
#include "tavo/ZMGameHandle.h"
#include "tavo/ZMGameListeners.h"
#include "tavo/ZMZimoGame.h"
#include "util/ZMStorageLayout.h"

class ZMPluginManager;

// ZMGameRuntime2 is the bridge between the runtime and the engine: it builds and owns the
// game-event receivers (the plug-in manager, first and only), creates the game handle for a
// launch and relays the engine's run callbacks to the runtime. Owned by ZMGameRuntime; holds the
// runtime and the handle weakly. Engine callbacks arrive on the engine's thread and are relayed
// on it; ZMGameEvent says on which thread each event reaches the receivers.
class ZMGameRuntime2 : public ZMCoreRunListener,
                       public std::enable_shared_from_this<ZMGameRuntime2> {
 public:
  // Builds the bridge with its receivers and sends event 0 with `options`; an error from it
  // reaches `listener->onInitializeFailure` as an exception named after the error's domain. An
  // exception thrown by a receiver (a plug-in root that is a file) propagates.
  static std::shared_ptr<ZMGameRuntime2> initWithUserId(
      const std::string& userId, std::shared_ptr<const ZMStorageLayout> layout, ZMValue& options,
      const std::shared_ptr<ZMRuntimeInitListener>& listener);

  // Sends event 1 and returns the engine's handle, or null after reporting a failure to
  // `listener`.
  std::shared_ptr<ZMGameHandle> createGame(const std::weak_ptr<void>& viewController,
                                           ZMValue& options,
                                           const std::weak_ptr<ZMGameRunListener>& listener);
  // Stores both weakly and returns the bridge, which relays to `listener`.
  std::shared_ptr<ZMCoreRunListener> getCoreRunListener(
      const std::shared_ptr<ZMGameHandle>& handle,
      const std::weak_ptr<ZMCoreRunListener>& listener);
  // Sends event 5; logs "destroy game error: %@" when a receiver objects.
  void destroyGame(const std::shared_ptr<ZMGameHandle>& handle);
  // Ends the plug-in manager's work: returns when none of it runs any more.
  void done();
  std::shared_ptr<ZMZimoGamePluginManager> getManager(const std::string& name,
                                                      const ZMValue& options);
  // Broadcasts in registration order; returns the first error.
  std::optional<ZMError> _onGameEvent(ZMGameEvent event, ZMValue& options);

  void onGameViewCreated(std::shared_ptr<void> view) override;
  void onRunSuccess() override;
  void onRunFailure(const ZMError& error) override;

  const std::vector<std::shared_ptr<ZMGameEventListener>>& listeners() const { return listeners_; }

 private:
  ZMGameRuntime2() = default;
  std::shared_ptr<ZMCoreRunListener> coreRunListener();

  std::vector<std::shared_ptr<ZMGameEventListener>> listeners_;
  std::shared_ptr<ZMPluginManager> pluginManager_;
  // Written on the main thread at launch, read on the engine's thread.
  mutable std::mutex mutex_;
  std::weak_ptr<ZMCoreRunListener> coreRunListener_;
  std::weak_ptr<ZMGameHandle> gameHandle_;
};
