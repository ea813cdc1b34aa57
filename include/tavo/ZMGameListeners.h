#pragma once

// Listener interfaces that a host implements for the game operations of ZMZimoGameRuntime.
// The host owns its listeners (std::shared_ptr); libtavo holds them weakly, so a listener the
// host has dropped hears nothing more. "Start" callbacks are called synchronously on the
// caller's thread, and so are the refusals the runtime makes before it starts any work: those
// of runGame and exitGame, downloadGamePackage's for an app id that would leave the package
// cache, and every outcome of setGameData. Every other callback, the option and id checks of
// checkGameVersion, installGamePackage and checkFileAvailability included, arrives on
// ZMMainQueue unless the operation says otherwise.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tavo/ZMError.h"
#include "tavo/ZMExport.h"
#include "tavo/ZMValue.h"

class ZMGameHandle;

// runGame. The engine's callbacks are relayed on the engine's thread.
class TAVO_EXPORT ZMGameRunListener {
 public:
  virtual ~ZMGameRunListener() = default;
  virtual void onGameHandleCreate(std::shared_ptr<ZMGameHandle> handle) = 0;
  virtual void onRunSuccess() = 0;
  virtual void onRunFailure(const ZMError& error) = 0;
};

// The running game asks to quit; the host decides and calls exitGame itself.
class TAVO_EXPORT ZMGameQueryExitListener {
 public:
  virtual ~ZMGameQueryExitListener() = default;
  virtual void onQueryExit(const std::string& appId, const ZMValue& result) = 0;
};

// exitGame.
class TAVO_EXPORT ZMGameExitListener {
 public:
  virtual ~ZMGameExitListener() = default;
  virtual void onGameExitSuccess() = 0;
  virtual void onGameExitFailure(const ZMError& error) = 0;
};

// checkGameVersion.
class TAVO_EXPORT ZMPackageCheckVersionListener {
 public:
  virtual ~ZMPackageCheckVersionListener() = default;
  virtual void onCheckVersionStart(const ZMValue& options) = 0;
  virtual void onCheckVersionSuccess() = 0;
  virtual void onCheckVersionFailure(const ZMError& error) = 0;
};

// downloadGamePackage (and the plug-in package downloads).
class TAVO_EXPORT ZMPackageDownloadListener {
 public:
  virtual ~ZMPackageDownloadListener() = default;
  virtual void onDownloadStart() = 0;
  virtual void onDownloadProgress(int64_t done, int64_t total) = 0;
  virtual void onDownloadRetry(int64_t retry) = 0;
  virtual void onDownloadSuccess(const std::string& path) = 0;
  virtual void onDownloadFailure(const ZMError& error) = 0;
};

// installGamePackage.
class TAVO_EXPORT ZMPackageInstallListener {
 public:
  virtual ~ZMPackageInstallListener() = default;
  virtual void onInstallStart() = 0;
  virtual void onInstallSuccess() = 0;
  virtual void onInstallFailure(const ZMError& error) = 0;
};

// removeGameList / removeGameAll. onRemoveSuccess always ends a run; its list is absent after a
// failure.
class TAVO_EXPORT ZMGameRemoveListener {
 public:
  virtual ~ZMGameRemoveListener() = default;
  virtual void onRemoveStart(const std::optional<std::string>& appId,
                             const std::optional<std::string>& extra) = 0;
  virtual void onRemoveFinish(const std::optional<std::string>& appId,
                              const std::optional<std::string>& extra) = 0;
  virtual void onRemoveSuccess(const std::optional<std::vector<std::string>>& removed) = 0;
  virtual void onRemoveFailure(const ZMError& error) = 0;
};

// checkFileAvailability (the package-cache sweep).
class TAVO_EXPORT ZMCheckFileAvailabilityListener {
 public:
  virtual ~ZMCheckFileAvailabilityListener() = default;
  virtual void onCheckStart() = 0;
  virtual void onCheckProgress(const std::string& deletedPath) = 0;
  virtual void onCheckSuccess() = 0;
  virtual void onCheckFailure(const ZMError& error) = 0;
};

// listGame (an array of objects: "rt_game_item_app_id", and "rt_game_item_extend" only when the
// record has extend data) and the plug-in manager's listPlugin (an array of {"provider",
// "version", "path"} objects).
class TAVO_EXPORT ZMGameListListener {
 public:
  virtual ~ZMGameListListener() = default;
  virtual void onListGameSuccess(const ZMValue& items) = 0;
  virtual void onListGameFailure(const ZMError& error) = 0;
};

// setGameData.
class TAVO_EXPORT ZMGameDataListener {
 public:
  virtual ~ZMGameDataListener() = default;
  virtual void onGameDataSetSuccess() = 0;
  virtual void onGameDataSetFailure(const ZMError& error) = 0;
};
