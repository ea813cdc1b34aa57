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
#include <tuple>
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
  // The one failure without an error: an install with no service host to ask.
  void fail(const std::optional<ZMError>& error) {
    fail(error.value_or(ZMError("no plugin service host", 0)));
  }

  // Listener callbacks that end the operation: with no value (whatever the callback passes),
  // with the callback's one argument as the value, or with its last argument as the error.
  auto succeeded() {
    return [self = this->shared_from_this()](const auto&...) { self->succeed(); };
  }
  auto succeededWith() {
    return [self = this->shared_from_this()](const Value& value) { self->succeed(value); };
  }
  auto failed() {
    return [self = this->shared_from_this()](const auto&... args) {
      self->fail(std::get<sizeof...(args) - 1>(std::forward_as_tuple(args...)));
    };
  }

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

// Starts an operation on the main thread (now when called there, else in a block posted to the
// queue) by calling `start` with the settlement its listener ends; returns its future.
template <typename T, typename Start>
std::future<T> settle(Start start) {
  auto settlement = std::make_shared<Settlement<T>>();
  auto future = settlement->future();
  auto run = [settlement, start = std::move(start)] { start(*settlement); };
  if (ZMMainQueue::isMainThread()) {
    run();
  } else {
    ZMMainQueue::post(std::move(run));
  }
  return future;
}

}  // namespace detail
/// @endcond

/// checkGameVersion: ready when that version is installed; throws its ZMError otherwise.
inline std::future<void> checkGameVersion(std::shared_ptr<ZMZimoGameRuntime> runtime,
                                          ZMValue options) {
  return detail::settle<void>([runtime, options](auto& s) {
    runtime->checkGameVersion(
        options, checkVersionListener({.onSuccess = s.succeeded(), .onFailure = s.failed()}));
  });
}

/// downloadGamePackage: the path of the verified package file.
inline std::future<std::string> downloadGamePackage(std::shared_ptr<ZMZimoGameRuntime> runtime,
                                                    ZMValue options) {
  return detail::settle<std::string>([runtime, options](auto& s) {
    runtime->downloadGamePackage(
        options, downloadListener({.onSuccess = s.succeededWith(), .onFailure = s.failed()}));
  });
}

/// installGamePackage: ready when the package is installed.
inline std::future<void> installGamePackage(std::shared_ptr<ZMZimoGameRuntime> runtime,
                                            ZMValue options) {
  return detail::settle<void>([runtime, options](auto& s) {
    runtime->installGamePackage(
        options, installListener({.onSuccess = s.succeeded(), .onFailure = s.failed()}));
  });
}

/// runGame: ready when the game runs. `viewController` is held weakly, as runGame holds it.
inline std::future<void> runGame(std::shared_ptr<ZMZimoGameRuntime> runtime,
                                 std::shared_ptr<void> viewController, std::string appId,
                                 ZMValue options) {
  return detail::settle<void>(
      [runtime, view = std::weak_ptr<void>(viewController), appId, options](auto& s) {
        runtime->runGame(view.lock(), appId, options,
                         runListener({.onSuccess = s.succeeded(), .onFailure = s.failed()}));
      });
}

/// exitGame: ready when the game has ended.
inline std::future<void> exitGame(std::shared_ptr<ZMZimoGameRuntime> runtime, std::string appId) {
  return detail::settle<void>([runtime, appId](auto& s) {
    runtime->exitGame(appId, exitListener({.onSuccess = s.succeeded(), .onFailure = s.failed()}));
  });
}

/// listGame: the array of installed-game items.
inline std::future<ZMValue> listGame(std::shared_ptr<ZMZimoGameRuntime> runtime) {
  return detail::settle<ZMValue>([runtime](auto& s) {
    runtime->listGame(listListener({.onSuccess = s.succeededWith(), .onFailure = s.failed()}));
  });
}

/// setGameData: ready when the record is stored.
inline std::future<void> setGameData(std::shared_ptr<ZMZimoGameRuntime> runtime, std::string appId,
                                     ZMValue info) {
  return detail::settle<void>([runtime, appId, info](auto& s) {
    runtime->setGameData(appId, info,
                         gameDataListener({.onSuccess = s.succeeded(), .onFailure = s.failed()}));
  });
}

/// removeGameList: the removed app ids; ready at once, empty, for an empty list. A failure
/// throws its ZMError even though onRemoveSuccess follows it.
inline std::future<std::vector<std::string>> removeGameList(
    std::shared_ptr<ZMZimoGameRuntime> runtime, std::vector<std::string> appIds) {
  return detail::settle<std::vector<std::string>>([runtime, appIds](auto& s) {
    if (appIds.empty()) return s.succeed({});
    auto failure = std::make_shared<std::optional<ZMError>>();
    auto fail = s.failed();
    auto succeed = s.succeededWith();
    runtime->removeGameList(
        appIds, removeListener({
                    .onSuccess =
                        [=](const std::optional<std::vector<std::string>>& removed) {
                          *failure ? fail(**failure)
                                   : succeed(removed.value_or(std::vector<std::string>{}));
                        },
                    .onFailure = [failure](const ZMError& e) { *failure = e; },
                }));
  });
}

/// checkFileAvailability (the package-cache sweep): ready when the sweep has ended.
inline std::future<void> checkFileAvailability(std::shared_ptr<ZMZimoGameRuntime> runtime,
                                               ZMValue options) {
  return detail::settle<void>([runtime, options](auto& s) {
    runtime->checkFileAvailability(
        options, sweepListener({.onSuccess = s.succeeded(), .onFailure = s.failed()}));
  });
}

/// checkPluginVersion: ready when that plug-in version is installed.
inline std::future<void> checkPluginVersion(std::shared_ptr<ZMZimoGamePluginManager> manager,
                                            ZMValue info) {
  return detail::settle<void>([manager, info](auto& s) {
    manager->checkPluginVersion(
        info, pluginCheckListener({.onSuccess = s.succeeded(), .onFailure = s.failed()}));
  });
}

/// installPlugin: ready when the plug-in is installed. With no service host to ask (the one
/// failure without an error) it throws ZMError "no plugin service host", code 0.
inline std::future<void> installPlugin(std::shared_ptr<ZMZimoGamePluginManager> manager,
                                       ZMValue info) {
  return detail::settle<void>([manager, info](auto& s) {
    manager->installPlugin(
        info, pluginInstallListener({.onSuccess = s.succeeded(), .onFailure = s.failed()}));
  });
}

/// listPlugin: the array of installed plug-ins ({"provider", "version", "path"} objects).
inline std::future<ZMValue> listPlugin(std::shared_ptr<ZMZimoGamePluginManager> manager) {
  return detail::settle<ZMValue>([manager](auto& s) {
    manager->listPlugin(listListener({.onSuccess = s.succeededWith(), .onFailure = s.failed()}));
  });
}

/// removePluginList: the array of removed plug-in infos.
inline std::future<ZMValue> removePluginList(std::shared_ptr<ZMZimoGamePluginManager> manager,
                                             ZMValue list) {
  return detail::settle<ZMValue>([manager, list](auto& s) {
    manager->removePluginList(
        list, pluginRemoveListener({.onSuccess = s.succeededWith(), .onFailure = s.failed()}));
  });
}

}  // namespace tavo
