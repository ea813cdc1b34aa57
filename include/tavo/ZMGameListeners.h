#pragma once

/// @file
/// Listener interfaces that a host implements for the game operations of ZMZimoGameRuntime.
/// The host owns its listeners (std::shared_ptr), or uses the self-owning adapters of
/// ZMListenerAdapters.h; libtavo holds them weakly, so a listener the host has dropped hears
/// nothing more. Callbacks arrive on one of three threads (the host guide's table lists each):
/// - the caller's, before the operation returns: the start callbacks, every callback of
/// listGame and setGameData, and the refusals made before any work starts (those of runGame
/// and exitGame, downloadGamePackage's for an app id that would leave the package cache);
/// - the engine's thread: onGameHandleCreate, onRunSuccess, the engine's onRunFailure,
/// onQueryExit and the exit callbacks. A host that reads state set there needs an atomic or a
/// lock; ZMMainQueue::runUntil re-tests its predicate while idle, so it sees such state soon;
/// - ZMMainQueue, for every other callback (the option and id checks of checkGameVersion,
/// installGamePackage and checkFileAvailability included).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tavo/ZMError.h"
#include "tavo/ZMExport.h"
#include "tavo/ZMValue.h"

class ZMGameHandle;

/// runGame. The engine's callbacks are relayed on the engine's thread; refusals come on the
/// caller's.
class TAVO_EXPORT ZMGameRunListener {
 public:
  virtual ~ZMGameRunListener() = default;
  /// The engine has created the game's view; `handle` is the engine handle running it.
  virtual void onGameHandleCreate(std::shared_ptr<ZMGameHandle> handle) = 0;
  /// The game runs; the play is counted on the user's record. Final.
  virtual void onRunSuccess() = 0;
  /// The launch failed. Final.
  virtual void onRunFailure(const ZMError& error) = 0;
};

/// The running game asks to quit (on the engine's thread); the host decides and calls exitGame
/// itself.
class TAVO_EXPORT ZMGameQueryExitListener {
 public:
  virtual ~ZMGameQueryExitListener() = default;
  /// The game `appId` asks to quit; `result` is the engine's answer object.
  virtual void onQueryExit(const std::string& appId, const ZMValue& result) = 0;
};

/// exitGame. Both callbacks come on the engine's thread, or on the caller's when no engine is in
/// the slot.
class TAVO_EXPORT ZMGameExitListener {
 public:
  virtual ~ZMGameExitListener() = default;
  /// The game has ended. Final.
  virtual void onGameExitSuccess() = 0;
  /// The exit failed ("no game running", or the engine's error). Final.
  virtual void onGameExitFailure(const ZMError& error) = 0;
};

/// checkGameVersion.
class TAVO_EXPORT ZMPackageCheckVersionListener {
 public:
  virtual ~ZMPackageCheckVersionListener() = default;
  /// The check begins; `options` are the call's options.
  virtual void onCheckVersionStart(const ZMValue& options) = 0;
  /// That version is the installed one. Final.
  virtual void onCheckVersionSuccess() = 0;
  /// It is not (or the options were wrong). Final.
  virtual void onCheckVersionFailure(const ZMError& error) = 0;
};

/// downloadGamePackage (and the plug-in package downloads).
class TAVO_EXPORT ZMPackageDownloadListener {
 public:
  virtual ~ZMPackageDownloadListener() = default;
  /// The download begins.
  virtual void onDownloadStart() = 0;
  /// Bytes received so far, of `total` (0 when the server does not say).
  virtual void onDownloadProgress(int64_t done, int64_t total) = 0;
  /// The download starts again; `retry` counts the attempts.
  virtual void onDownloadRetry(int64_t retry) = 0;
  /// The package is at `path`, its MD5 checked. Final.
  virtual void onDownloadSuccess(const std::string& path) = 0;
  /// The download failed. Final.
  virtual void onDownloadFailure(const ZMError& error) = 0;
};

/// installGamePackage.
class TAVO_EXPORT ZMPackageInstallListener {
 public:
  virtual ~ZMPackageInstallListener() = default;
  /// The install begins.
  virtual void onInstallStart() = 0;
  /// The package is unpacked and recorded. Final.
  virtual void onInstallSuccess() = 0;
  /// The install failed. Final.
  virtual void onInstallFailure(const ZMError& error) = 0;
};

/// removeGameList / removeGameAll. onRemoveSuccess always ends a run; its list is absent after a
/// failure.
class TAVO_EXPORT ZMGameRemoveListener {
 public:
  virtual ~ZMGameRemoveListener() = default;
  /// The removal of one game begins: its app id and its record's extend data.
  virtual void onRemoveStart(const std::optional<std::string>& appId,
                             const std::optional<std::string>& extra) = 0;
  /// The removal of one game has ended (same arguments).
  virtual void onRemoveFinish(const std::optional<std::string>& appId,
                              const std::optional<std::string>& extra) = 0;
  /// The run has ended: the removed app ids, absent after a failure. Final.
  virtual void onRemoveSuccess(const std::optional<std::vector<std::string>>& removed) = 0;
  /// A game's files could not be removed; the run stops and onRemoveSuccess follows.
  virtual void onRemoveFailure(const ZMError& error) = 0;
};

/// checkFileAvailability (the package-cache sweep).
class TAVO_EXPORT ZMCheckFileAvailabilityListener {
 public:
  virtual ~ZMCheckFileAvailabilityListener() = default;
  /// The sweep begins.
  virtual void onCheckStart() = 0;
  /// The sweep deleted `deletedPath`.
  virtual void onCheckProgress(const std::string& deletedPath) = 0;
  /// The sweep has ended. Final.
  virtual void onCheckSuccess() = 0;
  /// The sweep's options were wrong. Final.
  virtual void onCheckFailure(const ZMError& error) = 0;
};

/// listGame (an array of objects: "rt_game_item_app_id", and "rt_game_item_extend" only when the
/// record has extend data) and the plug-in manager's listPlugin (an array of {"provider",
/// "version", "path"} objects).
class TAVO_EXPORT ZMGameListListener {
 public:
  virtual ~ZMGameListListener() = default;
  /// The listed items, an array of objects. Final.
  virtual void onListGameSuccess(const ZMValue& items) = 0;
  /// The list failed (listPlugin only). Final.
  virtual void onListGameFailure(const ZMError& error) = 0;
};

/// setGameData.
class TAVO_EXPORT ZMGameDataListener {
 public:
  virtual ~ZMGameDataListener() = default;
  /// The record is stored. Final.
  virtual void onGameDataSetSuccess() = 0;
  /// It could not be stored. Final.
  virtual void onGameDataSetFailure(const ZMError& error) = 0;
};
