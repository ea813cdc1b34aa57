#pragma once

/// @file
/// libmerin, the reference engine: MerinGameHandle and its view.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tavo/ZMGameHandle.h"

#if defined(MERIN_BUILDING)
#define MERIN_EXPORT __attribute__((visibility("default")))
#else
#define MERIN_EXPORT
#endif

/// The view a headless run creates; passed to ZMCoreRunListener::onGameViewCreated as the opaque
/// view object (std::static_pointer_cast<MerinGameView> it back).
struct MERIN_EXPORT MerinGameView {
  /// The running game.
  std::string appId;
  std::string
      orientation;  ///< "landscape" or "portrait", from game.config.json "deviceOrientation"
  int width = 0;    ///< 1280x720 in landscape, 720x1280 in portrait
  /// The view's height in pixels.
  int height = 0;
};

/// MerinGameHandle is the reference engine: a headless game runner and a zip extractor.
///
/// Threads. The handle owns two threads, started on first use:
/// - the engine thread runs runGame, exitGame, requestQuit and the permission calls, one at a
///   time in call order, and makes every run, exit, query-exit and permission callback;
/// - the unzip thread runs unzipFile requests one at a time in call order and makes all the
///   callbacks of a request; the entries themselves are written by helper threads (one per core)
///   that the unzip thread starts and joins for each archive.
/// No callback is ever made inside the call that asked for it. The other members (the listener
/// setters, getAppId, isRunning, getView) are synchronous and safe on any thread.
///
/// done() and the destructor let the queued work finish (every unzip listener gets its terminal
/// callback), join both threads and forget the game; the handle stays usable and starts its
/// threads again on the next request. Neither may be called from a thread that the engine thread
/// is waiting on: a libtavo listener that waits for the main queue inside a callback (the record
/// store does) deadlocks a done() called on the main thread while that callback is running.
///
/// Listeners: run, exit and query-exit listeners are held weakly and locked before each call; the
/// permission listener is held strongly; an unzip listener is held strongly until its terminal
/// callback. An exception thrown by a listener is caught on the engine thread and printed.
class MERIN_EXPORT MerinGameHandle : public ZMGameHandle {
 public:
  /// Creates a handle and puts it in ZMGameHandle's slot; returns it. libmerin.so does this when
  /// it is loaded.
  static std::shared_ptr<MerinGameHandle> install();

  MerinGameHandle();
  ~MerinGameHandle() override;
  MerinGameHandle(const MerinGameHandle&) = delete;
  MerinGameHandle& operator=(const MerinGameHandle&) = delete;

  void setOnGameQueryExitListener(std::weak_ptr<ZMOnGameQueryExitListener> listener) override;
  void setOnGamePermissionListener(std::shared_ptr<ZMCorePermissionListener> listener) override;
  /// Checks that options["_rt_file_app_package_path"] holds an installed package (a parsable
  /// game.config.json object), then creates the headless view and reports onGameViewCreated and
  /// onRunSuccess; otherwise onRunFailure (code -1). A new run replaces the running game.
  void runGame(std::weak_ptr<void> viewController, const std::string& appId, const ZMValue& options,
               std::weak_ptr<ZMCoreRunListener> listener) override;
  /// onCoreExitSuccess when the game `appId` runs (it then stops running), else
  /// onCoreExitFailure with domain "no game running", code -1.
  void exitGame(const std::string& appId, std::weak_ptr<ZMCoreExitListener> listener) override;
  std::optional<std::string> getAppId() override;
  void done() override;
  /// Extracts every entry under `destDir`, refusing archives with absolute names, ".."
  /// components, symbolic links or special files before anything is written, and never
  /// following a symbolic link found inside `destDir`. Progress (0 to 1, non-decreasing, at most
  /// about a hundred calls) and the terminal callback come on the unzip thread.
  void unzipFile(const std::string& zipPath, const std::string& destDir,
                 std::shared_ptr<ZMUnzipGamePackageListener> listener) override;

  /// What the running game can do. requestQuit is asynchronous: on the engine thread, when a game
  /// runs, the query-exit listener (if alive) gets onCoreQueryExit(result); otherwise nothing.
  void requestQuit(const ZMValue& result);
  /// The permission calls run on the engine thread with the running app id and block the caller
  /// until the answer is there (they run inline when called on the engine thread). Exceptions of
  /// the listener (an unknown permission name) reach the caller. With no running game or no
  /// permission listener they do nothing and return false / nullopt / null. libtavo's permission
  /// store waits for the main queue, so do not call them on the thread that drains it.
  bool grantPermissions(const std::vector<std::string>& granted,
                        const std::vector<std::string>& denied);
  /// The stored answer for `name` of the running game; null when none runs.
  std::optional<int64_t> queryPermission(const std::string& name);
  /// Every stored answer of the running game, by name; null when none runs.
  ZMValue queryAllPermissions();

  /// Whether a game runs, and its view (null when none runs).
  bool isRunning();
  /// The running game's view, or null.
  std::shared_ptr<MerinGameView> getView();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};
