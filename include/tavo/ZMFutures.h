#pragma once

/// @file
/// std::future helpers for the one-shot operations, for hosts that can block a worker thread.
///
/// Each helper starts its operation and returns a future of its outcome: the value of the
/// success callback, or the ZMError of the failure callback thrown by get():
///
/// @code
/// std::thread worker([runtime] {
///   try {
///     tavo::installGamePackage(runtime, installOptions).get();
///     tavo::checkGameVersion(runtime, checkOptions).get();
///   } catch (const ZMError& error) {
///     std::cerr << error.description() << "\n";
///   }
/// });
/// ZMMainQueue::run();  // the main thread keeps draining the queue meanwhile
/// @endcode
///
/// Threads. A helper may be called from any thread: on the main thread it starts the operation
/// at once, elsewhere it posts the start to ZMMainQueue. The future becomes ready in a block on
/// the main queue after the final callback, so the main thread must keep draining the queue
/// while another thread waits: a main thread that blocks in get() waits forever. A main thread
/// can instead wait with ZMMainQueue::runUntil and the future's wait_for(0s).
///
/// A future whose operation never calls back never becomes ready: a request cancelled by
/// cancelGamePackageRequest() or cancelPluginRequest(), replaced by a newer request of its kind,
/// or ended by done(). Wait on such a future with a timeout.

#include <exception>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "tavo/ZMListenerAdapters.h"

namespace tavo {

/// @cond internal
namespace detail {

// The outcome of one operation, settled once on the main queue after its final callback: the
// last success or failure that arrived before then wins (a failure followed by a success in one
// block ends in the success).
template <typename T>
class Settlement : public std::enable_shared_from_this<Settlement<T>> {
 public:
  using Value = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

  std::future<T> future() { return promise_.get_future(); }
  void succeed(Value value = {}) { end(std::move(value)); }
  void fail(const ZMError& error) { end(error); }

 private:
  void end(std::variant<Value, ZMError> outcome) {
    std::lock_guard lock(mutex_);
    outcome_ = std::move(outcome);
    if (posted_) return;
    posted_ = true;
    ZMMainQueue::post([self = this->shared_from_this()] { self->settle(); });
  }
  void settle() {
    std::lock_guard lock(mutex_);
    if (auto* error = std::get_if<ZMError>(&*outcome_)) {
      promise_.set_exception(std::make_exception_ptr(*error));
    } else if constexpr (std::is_void_v<T>) {
      promise_.set_value();
    } else {
      promise_.set_value(std::move(std::get<Value>(*outcome_)));
    }
  }

  std::mutex mutex_;
  std::promise<T> promise_;
  std::optional<std::variant<Value, ZMError>> outcome_;
  bool posted_ = false;
};

// Runs `start` on the main thread: now when called there, else in a block posted to the queue.
template <typename Start>
void startOnMainQueue(Start start) {
  if (ZMMainQueue::isMainThread()) {
    start();
  } else {
    ZMMainQueue::post(std::move(start));
  }
}

}  // namespace detail
/// @endcond

/// checkGameVersion: ready when that version is installed; throws its ZMError otherwise.
inline std::future<void> checkGameVersion(std::shared_ptr<ZMZimoGameRuntime> runtime,
                                          ZMValue options) {
  auto s = std::make_shared<detail::Settlement<void>>();
  auto future = s->future();
  detail::startOnMainQueue([s, runtime = std::move(runtime), options = std::move(options)] {
    runtime->checkGameVersion(options, checkVersionListener({
                                           .onSuccess = [s] { s->succeed(); },
                                           .onFailure = [s](const ZMError& e) { s->fail(e); },
                                       }));
  });
  return future;
}

/// downloadGamePackage: the path of the verified package file.
inline std::future<std::string> downloadGamePackage(std::shared_ptr<ZMZimoGameRuntime> runtime,
                                                    ZMValue options) {
  auto s = std::make_shared<detail::Settlement<std::string>>();
  auto future = s->future();
  detail::startOnMainQueue([s, runtime = std::move(runtime), options = std::move(options)] {
    runtime->downloadGamePackage(
        options, downloadListener({
                     .onSuccess = [s](const std::string& path) { s->succeed(path); },
                     .onFailure = [s](const ZMError& e) { s->fail(e); },
                 }));
  });
  return future;
}

/// installGamePackage: ready when the package is installed.
inline std::future<void> installGamePackage(std::shared_ptr<ZMZimoGameRuntime> runtime,
                                            ZMValue options) {
  auto s = std::make_shared<detail::Settlement<void>>();
  auto future = s->future();
  detail::startOnMainQueue([s, runtime = std::move(runtime), options = std::move(options)] {
    runtime->installGamePackage(options, installListener({
                                             .onSuccess = [s] { s->succeed(); },
                                             .onFailure = [s](const ZMError& e) { s->fail(e); },
                                         }));
  });
  return future;
}

/// runGame: ready when the game runs. `viewController` is held weakly, as runGame holds it.
inline std::future<void> runGame(std::shared_ptr<ZMZimoGameRuntime> runtime,
                                 std::shared_ptr<void> viewController, std::string appId,
                                 ZMValue options) {
  auto s = std::make_shared<detail::Settlement<void>>();
  auto future = s->future();
  detail::startOnMainQueue([s, runtime = std::move(runtime),
                            view = std::weak_ptr<void>(viewController), appId = std::move(appId),
                            options = std::move(options)] {
    runtime->runGame(view.lock(), appId, options,
                     runListener({
                         .onSuccess = [s] { s->succeed(); },
                         .onFailure = [s](const ZMError& e) { s->fail(e); },
                     }));
  });
  return future;
}

/// exitGame: ready when the game has ended.
inline std::future<void> exitGame(std::shared_ptr<ZMZimoGameRuntime> runtime, std::string appId) {
  auto s = std::make_shared<detail::Settlement<void>>();
  auto future = s->future();
  detail::startOnMainQueue([s, runtime = std::move(runtime), appId = std::move(appId)] {
    runtime->exitGame(appId, exitListener({
                                 .onSuccess = [s] { s->succeed(); },
                                 .onFailure = [s](const ZMError& e) { s->fail(e); },
                             }));
  });
  return future;
}

/// listGame: the array of installed-game items.
inline std::future<ZMValue> listGame(std::shared_ptr<ZMZimoGameRuntime> runtime) {
  auto s = std::make_shared<detail::Settlement<ZMValue>>();
  auto future = s->future();
  detail::startOnMainQueue([s, runtime = std::move(runtime)] {
    runtime->listGame(listListener({
        .onSuccess = [s](const ZMValue& items) { s->succeed(items); },
        .onFailure = [s](const ZMError& e) { s->fail(e); },
    }));
  });
  return future;
}

/// setGameData: ready when the record is stored.
inline std::future<void> setGameData(std::shared_ptr<ZMZimoGameRuntime> runtime, std::string appId,
                                     ZMValue info) {
  auto s = std::make_shared<detail::Settlement<void>>();
  auto future = s->future();
  detail::startOnMainQueue(
      [s, runtime = std::move(runtime), appId = std::move(appId), info = std::move(info)] {
        runtime->setGameData(appId, info,
                             gameDataListener({
                                 .onSuccess = [s] { s->succeed(); },
                                 .onFailure = [s](const ZMError& e) { s->fail(e); },
                             }));
      });
  return future;
}

/// removeGameList: the removed app ids; ready at once, empty, for an empty list. A failure
/// throws its ZMError even though onRemoveSuccess follows it.
inline std::future<std::vector<std::string>> removeGameList(
    std::shared_ptr<ZMZimoGameRuntime> runtime, std::vector<std::string> appIds) {
  auto s = std::make_shared<detail::Settlement<std::vector<std::string>>>();
  auto future = s->future();
  detail::startOnMainQueue([s, runtime = std::move(runtime), appIds = std::move(appIds)] {
    if (appIds.empty()) return s->succeed({});
    auto failure = std::make_shared<std::optional<ZMError>>();
    runtime->removeGameList(
        appIds, removeListener({
                    .onSuccess =
                        [s, failure](const std::optional<std::vector<std::string>>& removed) {
                          *failure ? s->fail(**failure)
                                   : s->succeed(removed.value_or(std::vector<std::string>{}));
                        },
                    .onFailure = [failure](const ZMError& e) { *failure = e; },
                }));
  });
  return future;
}

/// checkFileAvailability (the package-cache sweep): ready when the sweep has ended.
inline std::future<void> checkFileAvailability(std::shared_ptr<ZMZimoGameRuntime> runtime,
                                               ZMValue options) {
  auto s = std::make_shared<detail::Settlement<void>>();
  auto future = s->future();
  detail::startOnMainQueue([s, runtime = std::move(runtime), options = std::move(options)] {
    runtime->checkFileAvailability(options, sweepListener({
                                                .onSuccess = [s] { s->succeed(); },
                                                .onFailure = [s](const ZMError& e) { s->fail(e); },
                                            }));
  });
  return future;
}

/// checkPluginVersion: ready when that plug-in version is installed.
inline std::future<void> checkPluginVersion(std::shared_ptr<ZMZimoGamePluginManager> manager,
                                            ZMValue info) {
  auto s = std::make_shared<detail::Settlement<void>>();
  auto future = s->future();
  detail::startOnMainQueue([s, manager = std::move(manager), info = std::move(info)] {
    manager->checkPluginVersion(
        info, pluginCheckListener({
                  .onSuccess = [s](const ZMValue&) { s->succeed(); },
                  .onFailure = [s](const ZMValue&, const ZMError& e) { s->fail(e); },
              }));
  });
  return future;
}

/// installPlugin: ready when the plug-in is installed. With no service host to ask (the one
/// failure without an error) it throws ZMError "no plugin service host", code 0.
inline std::future<void> installPlugin(std::shared_ptr<ZMZimoGamePluginManager> manager,
                                       ZMValue info) {
  auto s = std::make_shared<detail::Settlement<void>>();
  auto future = s->future();
  detail::startOnMainQueue([s, manager = std::move(manager), info = std::move(info)] {
    manager->installPlugin(info,
                           pluginInstallListener({
                               .onSuccess = [s](const ZMValue&) { s->succeed(); },
                               .onFailure =
                                   [s](const ZMValue&, const std::optional<ZMError>& e) {
                                     s->fail(e.value_or(ZMError("no plugin service host", 0)));
                                   },
                           }));
  });
  return future;
}

/// listPlugin: the array of installed plug-ins ({"provider", "version", "path"} objects).
inline std::future<ZMValue> listPlugin(std::shared_ptr<ZMZimoGamePluginManager> manager) {
  auto s = std::make_shared<detail::Settlement<ZMValue>>();
  auto future = s->future();
  detail::startOnMainQueue([s, manager = std::move(manager)] {
    manager->listPlugin(listListener({
        .onSuccess = [s](const ZMValue& items) { s->succeed(items); },
        .onFailure = [s](const ZMError& e) { s->fail(e); },
    }));
  });
  return future;
}

/// removePluginList: the array of removed plug-in infos.
inline std::future<ZMValue> removePluginList(std::shared_ptr<ZMZimoGamePluginManager> manager,
                                             ZMValue list) {
  auto s = std::make_shared<detail::Settlement<ZMValue>>();
  auto future = s->future();
  detail::startOnMainQueue([s, manager = std::move(manager), list = std::move(list)] {
    manager->removePluginList(list, pluginRemoveListener({
                                        .onSuccess = [s](const ZMValue& r) { s->succeed(r); },
                                        .onFailure = [s](const ZMError& e) { s->fail(e); },
                                    }));
  });
  return future;
}

}  // namespace tavo
