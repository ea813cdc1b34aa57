#pragma once

/// @file
/// The entry point ZMZimoGame and the runtime interface ZMZimoGameRuntime.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tavo/ZMException.h"
#include "tavo/ZMExport.h"
#include "tavo/ZMGameListeners.h"
#include "tavo/ZMValue.h"
#include "tavo/ZMZimoGameConfig.h"
#include "tavo/ZMZimoGamePluginManager.h"

class ZMZimoGameRuntime;

/// Result of ZMZimoGame::initRuntime, called synchronously before initRuntime returns. A failing
/// plug-in root can produce onInitializeFailure followed by onInitializeSuccess for one creation.
class TAVO_EXPORT ZMRuntimeInitListener {
 public:
  virtual ~ZMRuntimeInitListener() = default;
  /// The runtime is ready.
  virtual void onInitializeSuccess(std::shared_ptr<ZMZimoGameRuntime> runtime) = 0;
  /// Creation failed (a success may follow; see the class).
  virtual void onInitializeFailure(const ZMException& exception) = 0;
};

/// ZMZimoGameRuntime is the host's view of the runtime: one per process, created by
/// ZMZimoGame::initRuntime. Every operation is asynchronous towards its listener (see
/// ZMGameListeners.h for which queue each callback uses) and is meant to be called from the
/// main thread. An app id that could leave the storage roots (empty, ".", "..", or holding "/" or
/// a NUL byte) never reaches the file system: setGameData, installGamePackage and runGame refuse
/// it with their failure callback, downloadGamePackage does when it holds a separator (other such
/// ids name a file inside the package cache), checkGameVersion reports it as not installed,
/// getGameConfig returns null, and removeGameList passes over it like an id without a record.
class TAVO_EXPORT ZMZimoGameRuntime {
 public:
  virtual ~ZMZimoGameRuntime() = default;

  /// Launches an installed game into `viewController` (any host object, held weakly). Options:
  /// "rt_run_opt_version" (required), "rt_run_opt_extend", "rt_run_opt_app_launch_options",
  /// "rt_run_debug_*".
  virtual void runGame(std::shared_ptr<void> viewController, const std::string& appId,
                       const ZMValue& options, std::weak_ptr<ZMGameRunListener> listener) = 0;
  /// Ends the running game `appId`.
  virtual void exitGame(const std::string& appId, std::weak_ptr<ZMGameExitListener> listener) = 0;
  /// Options: "rt_game_package_app_id", "rt_game_package_version".
  virtual void checkGameVersion(const ZMValue& options,
                                std::weak_ptr<ZMPackageCheckVersionListener> listener) = 0;
  /// Options: app id, version, "rt_game_package_url", "rt_game_package_hash" (MD5, lower case).
  virtual void downloadGamePackage(const ZMValue& options,
                                   std::weak_ptr<ZMPackageDownloadListener> listener) = 0;
  /// Options: app id, version, "rt_game_package_path", "rt_game_package_subpackage_root",
  /// "rt_game_package_extend_data".
  virtual void installGamePackage(const ZMValue& options,
                                  std::weak_ptr<ZMPackageInstallListener> listener) = 0;
  /// Cancels the current check, download and install, whose listeners hear nothing more, and the
  /// current sweep, which still deletes every stale entry and reports each deletion, but not its
  /// result.
  virtual void cancelGamePackageRequest() = 0;
  /// libtavo's version text ("1.0.0").
  virtual std::optional<std::string> getVersionInfo() = 0;
  /// Who hears the running game's quit requests (held weakly); with none, the runtime exits the
  /// game itself.
  virtual void setGameQueryExitListener(std::weak_ptr<ZMGameQueryExitListener> listener) = 0;
  /// Lists the user's games, before it returns.
  virtual void listGame(std::weak_ptr<ZMGameListListener> listener) = 0;
  /// Info keys: "extend", "reserve", "auth_*" ("played" is ignored).
  virtual void setGameData(const std::string& appId, const ZMValue& info,
                           std::weak_ptr<ZMGameDataListener> listener) = 0;
  /// Removes the user's records and files of the listed games. An empty list, like removeGameAll
  /// for a user without records, sends no callback at all.
  virtual void removeGameList(const std::vector<std::string>& appIds,
                              std::weak_ptr<ZMGameRemoveListener> listener) = 0;
  /// removeGameList with every game the user has a record of.
  virtual void removeGameAll(std::weak_ptr<ZMGameRemoveListener> listener) = 0;
  /// Options: "rt_check_file_extension_name_array", "rt_check_file_keep_time" (minutes).
  virtual void checkFileAvailability(const ZMValue& options,
                                     std::weak_ptr<ZMCheckFileAvailabilityListener> listener) = 0;
  /// Options: app id and, optionally, version (else the installed one). Null when not found.
  virtual std::shared_ptr<ZMZimoGameConfig> getGameConfig(const ZMValue& options) = 0;
  /// "plugin_manager" yields the plug-in manager; any other name null.
  virtual std::shared_ptr<ZMZimoGamePluginManager> getManager(const std::string& name,
                                                              const ZMValue& options) = 0;
  /// Ends the runtime: cancels its work, destroys the game, ends the engine handle.
  virtual void done() = 0;
};

/// ZMZimoGame is the entry point: it creates the process's runtime. Call from the main thread.
class TAVO_EXPORT ZMZimoGame {
 public:
  /// Ends any runtime made before, creates a new one for `userId` and reports to `listener`
  /// before returning. Options (may be null): the "rt_storage_path_*" roots.
  static void initRuntime(const std::string& userId, const ZMValue& options,
                          const std::shared_ptr<ZMRuntimeInitListener>& listener);
  /// The runtime made by the last initRuntime, or null.
  static std::shared_ptr<ZMZimoGameRuntime> getRuntime();
};
