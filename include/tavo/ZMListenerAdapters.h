#pragma once

/// @file
/// Lambda adapters for the host listener interfaces.
///
/// libtavo holds every listener weakly, so a listener object that nobody else owns is gone before
/// its first callback. The adapters here own themselves instead: each factory returns an object
/// that keeps itself alive until its operation's final callback, so a host can pass it as a
/// temporary:
///
/// @code
/// runtime->checkGameVersion(options, tavo::checkVersionListener({
///     .onSuccess = [] { std::cout << "installed\n"; },
///     .onFailure = [](const ZMError& e) { std::cout << e.description() << "\n"; },
/// }));
/// @endcode
///
/// Every callback is relayed as it arrives, on the thread it arrives on (the host guide's
/// callback table says which); a callback left empty is ignored. After the final callback (a
/// success or a failure) the adapter lets itself go in a block posted to ZMMainQueue, so a
/// success that follows a failure in the same block (runtime creation, some plug-in flows) is
/// still relayed.
///
/// An operation that ends without a final callback leaves its adapter waiting: a request
/// cancelled by cancelGamePackageRequest() or cancelPluginRequest(), replaced by a newer request
/// of its kind or ended by done(), and a removeGameList() with an empty list. A host that does
/// any of these keeps the returned pointer and calls release() on it.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tavo/ZMException.h"
#include "tavo/ZMGameListeners.h"
#include "tavo/ZMMainQueue.h"
#include "tavo/ZMPluginListeners.h"
#include "tavo/ZMZimoGame.h"

/// libtavo's convenience layer for C++ hosts: listener adapters and future helpers.
namespace tavo {

template <typename Listener, typename Callbacks>
std::shared_ptr<Listener> makeSelfOwned(Callbacks callbacks);

/// The part every adapter shares: the hold it keeps on itself until its final callback.
class SelfOwned {
 public:
  virtual ~SelfOwned() = default;

  /// Drops the adapter's hold on itself at once; it then lives as long as the host keeps it. For
  /// an operation that will not call back (see the file's description). Safe on any thread.
  void release() {
    std::shared_ptr<void> held;
    std::lock_guard lock(mutex_);
    held.swap(self_);
  }

 protected:
  template <typename Listener, typename Callbacks>
  friend std::shared_ptr<Listener> makeSelfOwned(Callbacks callbacks);
  /// Called by makeSelfOwned(): the adapter keeps `self` until its final callback.
  void keep(std::shared_ptr<void> self) {
    std::lock_guard lock(mutex_);
    self_ = std::move(self);
  }
  /// Called after a final callback: the hold is dropped by a block posted to the main queue.
  void finish() {
    std::shared_ptr<void> held;
    {
      std::lock_guard lock(mutex_);
      held.swap(self_);
    }
    if (held) ZMMainQueue::post([held = std::move(held)] {});
  }
  /// Calls `callback` with `args` when the host set it.
  template <typename Callback, typename... Args>
  static void relay(const Callback& callback, Args&&... args) {
    if (callback) callback(std::forward<Args>(args)...);
  }

 private:
  std::mutex mutex_;
  std::shared_ptr<void> self_;
};

/// The base of each adapter: its callbacks, and its hold on itself.
template <typename Callbacks>
class Adapter : public SelfOwned {
 public:
  /// Relays to `callbacks`.
  explicit Adapter(Callbacks callbacks) : callbacks_(std::move(callbacks)) {}

 protected:
  /// Relays a final callback, then lets the adapter go (see SelfOwned::finish).
  template <typename Callback, typename... Args>
  void relayFinal(const Callback& callback, Args&&... args) {
    relay(callback, std::forward<Args>(args)...);
    finish();
  }
  Callbacks callbacks_;  ///< what the host set
};

/// Makes an adapter of type `Listener` from its callbacks, holding itself until its final
/// callback.
template <typename Listener, typename Callbacks>
std::shared_ptr<Listener> makeSelfOwned(Callbacks callbacks) {
  auto adapter = std::make_shared<Listener>(std::move(callbacks));
  adapter->keep(adapter);
  return adapter;
}

/// Callbacks of initListener(), for ZMZimoGame::initRuntime.
struct InitCallbacks {
  std::function<void(std::shared_ptr<ZMZimoGameRuntime> runtime)> onSuccess{};  ///< the runtime
  std::function<void(const ZMException& exception)> onFailure{};  ///< why creation failed
};
/// ZMRuntimeInitListener over InitCallbacks. initRuntime holds its listener itself and reports
/// before it returns, so this adapter needs no hold on itself.
class InitListener : public ZMRuntimeInitListener {
 public:
  /// Relays to `callbacks`.
  explicit InitListener(InitCallbacks callbacks) : callbacks_(std::move(callbacks)) {}
  void onInitializeSuccess(std::shared_ptr<ZMZimoGameRuntime> runtime) override {
    if (callbacks_.onSuccess) callbacks_.onSuccess(std::move(runtime));
  }
  void onInitializeFailure(const ZMException& exception) override {
    if (callbacks_.onFailure) callbacks_.onFailure(exception);
  }

 private:
  InitCallbacks callbacks_;
};
/// A runtime-creation listener for ZMZimoGame::initRuntime.
inline std::shared_ptr<InitListener> initListener(InitCallbacks callbacks) {
  return std::make_shared<InitListener>(std::move(callbacks));
}

/// Callbacks of runListener(), for ZMZimoGameRuntime::runGame.
struct RunCallbacks {
  std::function<void(std::shared_ptr<ZMGameHandle> handle)> onHandleCreate{};  ///< view is up
  std::function<void()> onSuccess{};                                           ///< final
  std::function<void(const ZMError& error)> onFailure{};                       ///< final
};
/// ZMGameRunListener over RunCallbacks; made by runListener().
class RunListener : public ZMGameRunListener, public Adapter<RunCallbacks> {
 public:
  using Adapter::Adapter;
  void onGameHandleCreate(std::shared_ptr<ZMGameHandle> handle) override {
    relay(callbacks_.onHandleCreate, std::move(handle));
  }
  void onRunSuccess() override { relayFinal(callbacks_.onSuccess); }
  void onRunFailure(const ZMError& error) override { relayFinal(callbacks_.onFailure, error); }
};
/// A launch listener that keeps itself until onRunSuccess or onRunFailure.
inline std::shared_ptr<RunListener> runListener(RunCallbacks callbacks) {
  return makeSelfOwned<RunListener>(std::move(callbacks));
}

/// Callbacks of exitListener(), for ZMZimoGameRuntime::exitGame.
struct ExitCallbacks {
  std::function<void()> onSuccess{};                      ///< final
  std::function<void(const ZMError& error)> onFailure{};  ///< final
};
/// ZMGameExitListener over ExitCallbacks; made by exitListener().
class ExitListener : public ZMGameExitListener, public Adapter<ExitCallbacks> {
 public:
  using Adapter::Adapter;
  void onGameExitSuccess() override { relayFinal(callbacks_.onSuccess); }
  void onGameExitFailure(const ZMError& error) override { relayFinal(callbacks_.onFailure, error); }
};
/// An exit listener that keeps itself until onGameExitSuccess or onGameExitFailure.
inline std::shared_ptr<ExitListener> exitListener(ExitCallbacks callbacks) {
  return makeSelfOwned<ExitListener>(std::move(callbacks));
}

/// The callback of queryExitListener(): the running game `appId` asks to quit.
using QueryExitCallback = std::function<void(const std::string& appId, const ZMValue& result)>;
/// ZMGameQueryExitListener over a QueryExitCallback; made by queryExitListener().
class QueryExitListener : public ZMGameQueryExitListener, public Adapter<QueryExitCallback> {
 public:
  using Adapter::Adapter;
  void onQueryExit(const std::string& appId, const ZMValue& result) override {
    relay(callbacks_, appId, result);
  }
};
/// A query-exit listener for setGameQueryExitListener. It has no final callback: it keeps itself
/// until release(), which a host calls on the one it replaces.
inline std::shared_ptr<QueryExitListener> queryExitListener(QueryExitCallback callback) {
  return makeSelfOwned<QueryExitListener>(std::move(callback));
}

/// Callbacks of checkVersionListener(), for ZMZimoGameRuntime::checkGameVersion.
struct CheckVersionCallbacks {
  std::function<void(const ZMValue& options)> onStart{};  ///< before checkGameVersion returns
  std::function<void()> onSuccess{};                      ///< final: that version is installed
  std::function<void(const ZMError& error)> onFailure{};  ///< final
};
/// ZMPackageCheckVersionListener over CheckVersionCallbacks; made by checkVersionListener().
class CheckVersionListener : public ZMPackageCheckVersionListener,
                             public Adapter<CheckVersionCallbacks> {
 public:
  using Adapter::Adapter;
  void onCheckVersionStart(const ZMValue& options) override { relay(callbacks_.onStart, options); }
  void onCheckVersionSuccess() override { relayFinal(callbacks_.onSuccess); }
  void onCheckVersionFailure(const ZMError& error) override {
    relayFinal(callbacks_.onFailure, error);
  }
};
/// A version-check listener that keeps itself until its success or failure.
inline std::shared_ptr<CheckVersionListener> checkVersionListener(CheckVersionCallbacks callbacks) {
  return makeSelfOwned<CheckVersionListener>(std::move(callbacks));
}

/// Callbacks of downloadListener(), for ZMZimoGameRuntime::downloadGamePackage.
struct DownloadCallbacks {
  std::function<void()> onStart{};                                ///< before the call returns
  std::function<void(int64_t done, int64_t total)> onProgress{};  ///< bytes so far, of total
  std::function<void(int64_t retry)> onRetry{};                   ///< attempt number
  std::function<void(const std::string& path)> onSuccess{};       ///< final: the verified file
  std::function<void(const ZMError& error)> onFailure{};          ///< final
};
/// ZMPackageDownloadListener over DownloadCallbacks; made by downloadListener().
class DownloadListener : public ZMPackageDownloadListener, public Adapter<DownloadCallbacks> {
 public:
  using Adapter::Adapter;
  void onDownloadStart() override { relay(callbacks_.onStart); }
  void onDownloadProgress(int64_t done, int64_t total) override {
    relay(callbacks_.onProgress, done, total);
  }
  void onDownloadRetry(int64_t retry) override { relay(callbacks_.onRetry, retry); }
  void onDownloadSuccess(const std::string& path) override {
    relayFinal(callbacks_.onSuccess, path);
  }
  void onDownloadFailure(const ZMError& error) override { relayFinal(callbacks_.onFailure, error); }
};
/// A download listener that keeps itself until its success or failure.
inline std::shared_ptr<DownloadListener> downloadListener(DownloadCallbacks callbacks) {
  return makeSelfOwned<DownloadListener>(std::move(callbacks));
}

/// Callbacks of installListener(), for ZMZimoGameRuntime::installGamePackage.
struct InstallCallbacks {
  std::function<void()> onStart{};                        ///< before the call returns
  std::function<void()> onSuccess{};                      ///< final
  std::function<void(const ZMError& error)> onFailure{};  ///< final
};
/// ZMPackageInstallListener over InstallCallbacks; made by installListener().
class InstallListener : public ZMPackageInstallListener, public Adapter<InstallCallbacks> {
 public:
  using Adapter::Adapter;
  void onInstallStart() override { relay(callbacks_.onStart); }
  void onInstallSuccess() override { relayFinal(callbacks_.onSuccess); }
  void onInstallFailure(const ZMError& error) override { relayFinal(callbacks_.onFailure, error); }
};
/// An install listener that keeps itself until its success or failure.
inline std::shared_ptr<InstallListener> installListener(InstallCallbacks callbacks) {
  return makeSelfOwned<InstallListener>(std::move(callbacks));
}

/// Callbacks of removeListener(), for removeGameList and removeGameAll.
struct RemoveCallbacks {
  /// One game's removal begins: its app id and its record's extend data.
  std::function<void(const std::optional<std::string>& appId,
                     const std::optional<std::string>& extra)>
      onStart{};
  /// One game's removal ends (same arguments).
  std::function<void(const std::optional<std::string>& appId,
                     const std::optional<std::string>& extra)>
      onFinish{};
  /// Final: ends every run, after a failure too (the list is then absent).
  std::function<void(const std::optional<std::vector<std::string>>& removed)> onSuccess{};
  /// A removal failed; onSuccess follows.
  std::function<void(const ZMError& error)> onFailure{};
};
/// ZMGameRemoveListener over RemoveCallbacks; made by removeListener().
class RemoveListener : public ZMGameRemoveListener, public Adapter<RemoveCallbacks> {
 public:
  using Adapter::Adapter;
  void onRemoveStart(const std::optional<std::string>& appId,
                     const std::optional<std::string>& extra) override {
    relay(callbacks_.onStart, appId, extra);
  }
  void onRemoveFinish(const std::optional<std::string>& appId,
                      const std::optional<std::string>& extra) override {
    relay(callbacks_.onFinish, appId, extra);
  }
  void onRemoveSuccess(const std::optional<std::vector<std::string>>& removed) override {
    relayFinal(callbacks_.onSuccess, removed);
  }
  void onRemoveFailure(const ZMError& error) override { relay(callbacks_.onFailure, error); }
};
/// A remove listener that keeps itself until onRemoveSuccess, which also follows a failure. An
/// empty list (or
/// removeGameAll for a user without records) sends no callback: release() it then.
inline std::shared_ptr<RemoveListener> removeListener(RemoveCallbacks callbacks) {
  return makeSelfOwned<RemoveListener>(std::move(callbacks));
}

/// Callbacks of sweepListener(), for ZMZimoGameRuntime::checkFileAvailability.
struct SweepCallbacks {
  std::function<void()> onStart{};                                   ///< the sweep begins
  std::function<void(const std::string& deletedPath)> onProgress{};  ///< one entry deleted
  std::function<void()> onSuccess{};                                 ///< final
  std::function<void(const ZMError& error)> onFailure{};             ///< final
};
/// ZMCheckFileAvailabilityListener over SweepCallbacks; made by sweepListener().
class SweepListener : public ZMCheckFileAvailabilityListener, public Adapter<SweepCallbacks> {
 public:
  using Adapter::Adapter;
  void onCheckStart() override { relay(callbacks_.onStart); }
  void onCheckProgress(const std::string& deletedPath) override {
    relay(callbacks_.onProgress, deletedPath);
  }
  void onCheckSuccess() override { relayFinal(callbacks_.onSuccess); }
  void onCheckFailure(const ZMError& error) override { relayFinal(callbacks_.onFailure, error); }
};
/// A cache-sweep listener that keeps itself until its success or failure.
inline std::shared_ptr<SweepListener> sweepListener(SweepCallbacks callbacks) {
  return makeSelfOwned<SweepListener>(std::move(callbacks));
}

/// Callbacks of listListener(), for listGame and the plug-in manager's listPlugin.
struct ListCallbacks {
  std::function<void(const ZMValue& items)> onSuccess{};  ///< final: an array of objects
  std::function<void(const ZMError& error)> onFailure{};  ///< final
};
/// ZMGameListListener over ListCallbacks; made by listListener().
class ListListener : public ZMGameListListener, public Adapter<ListCallbacks> {
 public:
  using Adapter::Adapter;
  void onListGameSuccess(const ZMValue& items) override { relayFinal(callbacks_.onSuccess, items); }
  void onListGameFailure(const ZMError& error) override { relayFinal(callbacks_.onFailure, error); }
};
/// A list listener that keeps itself until its success or failure.
inline std::shared_ptr<ListListener> listListener(ListCallbacks callbacks) {
  return makeSelfOwned<ListListener>(std::move(callbacks));
}

/// Callbacks of gameDataListener(), for ZMZimoGameRuntime::setGameData.
struct GameDataCallbacks {
  std::function<void()> onSuccess{};                      ///< final
  std::function<void(const ZMError& error)> onFailure{};  ///< final
};
/// ZMGameDataListener over GameDataCallbacks; made by gameDataListener().
class GameDataListener : public ZMGameDataListener, public Adapter<GameDataCallbacks> {
 public:
  using Adapter::Adapter;
  void onGameDataSetSuccess() override { relayFinal(callbacks_.onSuccess); }
  void onGameDataSetFailure(const ZMError& error) override {
    relayFinal(callbacks_.onFailure, error);
  }
};
/// A game-data listener that keeps itself until its success or failure.
inline std::shared_ptr<GameDataListener> gameDataListener(GameDataCallbacks callbacks) {
  return makeSelfOwned<GameDataListener>(std::move(callbacks));
}

/// Callbacks of pluginCheckListener(), for ZMZimoGamePluginManager::checkPluginVersion. The
/// `info` of each is the plug-in info the host passed in.
struct PluginCheckCallbacks {
  std::function<void(const ZMValue& info)> onStart{};                          ///< caller's thread
  std::function<void(const ZMValue& info)> onSuccess{};                        ///< final
  std::function<void(const ZMValue& info, const ZMError& error)> onFailure{};  ///< final
};
/// ZMPluginCheckVersionListener over PluginCheckCallbacks; made by pluginCheckListener().
class PluginCheckListener : public ZMPluginCheckVersionListener,
                            public Adapter<PluginCheckCallbacks> {
 public:
  using Adapter::Adapter;
  void onCheckPluginVersionStart(const ZMValue& info) override { relay(callbacks_.onStart, info); }
  void onCheckPluginSuccess(const ZMValue& info) override {
    relayFinal(callbacks_.onSuccess, info);
  }
  void onCheckPluginFailure(const ZMValue& info, const ZMError& error) override {
    relayFinal(callbacks_.onFailure, info, error);
  }
};
/// A plug-in check listener that keeps itself until its final callback.
inline std::shared_ptr<PluginCheckListener> pluginCheckListener(PluginCheckCallbacks callbacks) {
  return makeSelfOwned<PluginCheckListener>(std::move(callbacks));
}

/// Callbacks of pluginInstallListener(), for ZMZimoGamePluginManager::installPlugin.
struct PluginInstallCallbacks {
  std::function<void(const ZMValue& info)> onStart{};  ///< caller's thread
  /// Bytes of the package so far, of the total.
  std::function<void(const ZMValue& info, int64_t downloadSize, int64_t totalSize)> onProgress{};
  std::function<void(const ZMValue& info, int64_t retryNo)> onRetry{};  ///< download attempt
  std::function<void(const ZMValue& info)> onSuccess{};                 ///< final
  /// Final; the error is null only when the manager has no service host.
  std::function<void(const ZMValue& info, const std::optional<ZMError>& error)> onFailure{};
};
/// ZMPluginInstallListener over PluginInstallCallbacks; made by pluginInstallListener().
class PluginInstallListener : public ZMPluginInstallListener,
                              public Adapter<PluginInstallCallbacks> {
 public:
  using Adapter::Adapter;
  void onPluginInstallStart(const ZMValue& info) override { relay(callbacks_.onStart, info); }
  void onPluginDownloadProgress(const ZMValue& info, int64_t downloadSize,
                                int64_t totalSize) override {
    relay(callbacks_.onProgress, info, downloadSize, totalSize);
  }
  void onPluginDownloadRetry(const ZMValue& info, int64_t retryNo) override {
    relay(callbacks_.onRetry, info, retryNo);
  }
  void onPluginInstallSuccess(const ZMValue& info) override {
    relayFinal(callbacks_.onSuccess, info);
  }
  void onPluginInstallFailure(const ZMValue& info, const std::optional<ZMError>& error) override {
    relayFinal(callbacks_.onFailure, info, error);
  }
};
/// A plug-in install listener that keeps itself until its final callback.
inline std::shared_ptr<PluginInstallListener> pluginInstallListener(
    PluginInstallCallbacks callbacks) {
  return makeSelfOwned<PluginInstallListener>(std::move(callbacks));
}

/// Callbacks of pluginRemoveListener(), for ZMZimoGamePluginManager::removePluginList.
struct PluginRemoveCallbacks {
  std::function<void(const ZMValue& info)> onStart{};       ///< one plug-in's removal begins
  std::function<void(const ZMValue& info)> onFinish{};      ///< one plug-in's removal ends
  std::function<void(const ZMValue& removed)> onSuccess{};  ///< final: the removed infos
  std::function<void(const ZMError& error)> onFailure{};    ///< final
};
/// ZMPluginRemoveListener over PluginRemoveCallbacks; made by pluginRemoveListener().
class PluginRemoveListener : public ZMPluginRemoveListener, public Adapter<PluginRemoveCallbacks> {
 public:
  using Adapter::Adapter;
  void onPluginRemoveStart(const ZMValue& info) override { relay(callbacks_.onStart, info); }
  void onPluginRemoveFinish(const ZMValue& info) override { relay(callbacks_.onFinish, info); }
  void onPluginRemoveSuccess(const ZMValue& removed) override {
    relayFinal(callbacks_.onSuccess, removed);
  }
  void onPluginRemoveFailure(const ZMError& error) override {
    relayFinal(callbacks_.onFailure, error);
  }
};
/// A plug-in remove listener that keeps itself until its final callback.
inline std::shared_ptr<PluginRemoveListener> pluginRemoveListener(PluginRemoveCallbacks callbacks) {
  return makeSelfOwned<PluginRemoveListener>(std::move(callbacks));
}

}  // namespace tavo
