#pragma once

/// @file
/// ZMGameHandle, the engine boundary, and the engine's client identifier.

#include <memory>
#include <optional>
#include <string>

#include "tavo/ZMCoreListeners.h"
#include "tavo/ZMExport.h"
#include "tavo/ZMValue.h"

/// ZMGameHandle is the boundary between libtavo and the game engine library. The engine
/// implements it and fills the process-wide slot with setInstance() (the reference engine,
/// libmerin, does so when it is loaded); libtavo reads the slot with getInstance() for every
/// launch, exit and unzip. The slot owns the handle; libtavo keeps only weak references to it.
///
/// Listener rules: the query-exit listener and the run/exit listeners are held weakly by the
/// engine; the permission listener is held strongly (it is a small value-less store); the unzip
/// listener is held strongly from unzipFile() until its terminal callback, so an unzip always
/// finishes its work. Callbacks arrive on engine threads, never inside the calling function.
///
/// View objects are opaque to libtavo: a host passes its view controller as any
/// std::shared_ptr (std::shared_ptr<void> converts from every std::shared_ptr<T>), and the
/// engine hands back its view in ZMCoreRunListener::onGameViewCreated the same way.
class TAVO_EXPORT ZMGameHandle {
 public:
  virtual ~ZMGameHandle() = default;

  /// The current handle, or null when no engine has filled the slot. Thread-safe.
  static std::shared_ptr<ZMGameHandle> getInstance();
  /// Replaces the handle in the slot (null empties it). Thread-safe.
  static void setInstance(std::shared_ptr<ZMGameHandle> handle);

  /// Where the engine sends the game's quit requests (held weakly).
  virtual void setOnGameQueryExitListener(std::weak_ptr<ZMOnGameQueryExitListener> listener) = 0;
  /// Where the engine stores and reads the user's permission answers (held strongly).
  virtual void setOnGamePermissionListener(std::shared_ptr<ZMCorePermissionListener> listener) = 0;
  /// Starts the installed game of `options` ("_rt_file_app_package_path" and the other run
  /// options) and reports through `listener`.
  virtual void runGame(std::weak_ptr<void> viewController, const std::string& appId,
                       const ZMValue& options, std::weak_ptr<ZMCoreRunListener> listener) = 0;
  /// Ends the game `appId` and reports through `listener`.
  virtual void exitGame(const std::string& appId, std::weak_ptr<ZMCoreExitListener> listener) = 0;
  /// The app id of the running (or last run) game; null when none ran.
  virtual std::optional<std::string> getAppId() = 0;
  /// Ends the engine's work; the handle may be dropped afterwards.
  virtual void done() = 0;
  /// Extracts the zip archive at `zipPath` under `destDir` (created when missing), reporting
  /// progress any number of times and then exactly one of onUnzipSucceed / onUnzipFailed.
  virtual void unzipFile(const std::string& zipPath, const std::string& destDir,
                         std::shared_ptr<ZMUnzipGamePackageListener> listener) = 0;
};

extern "C" {
/// The client identifier of the engine build, sent to the plug-in service. Defined by the engine
/// library.
extern const char __watermark_sign[];
}
