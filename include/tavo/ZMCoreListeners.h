#pragma once

/// @file
/// Listener interfaces shared by libtavo and the game engine. The engine calls them on whatever
/// thread it uses; each implementation says what it does with the call.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tavo/ZMError.h"
#include "tavo/ZMExport.h"
#include "tavo/ZMValue.h"

/// Launch results from the engine. `view` is the engine's opaque view object.
class TAVO_EXPORT ZMCoreRunListener {
 public:
  virtual ~ZMCoreRunListener() = default;
  /// The engine has created the game's view.
  virtual void onGameViewCreated(std::shared_ptr<void> view) = 0;
  /// The game runs.
  virtual void onRunSuccess() = 0;
  /// The launch failed.
  virtual void onRunFailure(const ZMError& error) = 0;
};

/// The running game asks to quit; `result` is the engine's opaque answer object.
class TAVO_EXPORT ZMOnGameQueryExitListener {
 public:
  virtual ~ZMOnGameQueryExitListener() = default;
  /// The game asks to quit.
  virtual void onCoreQueryExit(const ZMValue& result) = 0;
};

/// Exit results from the engine.
class TAVO_EXPORT ZMCoreExitListener {
 public:
  virtual ~ZMCoreExitListener() = default;
  /// The game has ended.
  virtual void onCoreExitSuccess() = 0;
  /// The exit failed.
  virtual void onCoreExitFailure(const ZMError& error) = 0;
};

/// Where a running game stores and reads the user's permission answers. Names are "userInfo",
/// "location", "record", "writePhotosAlbum" and "camera"; values are 0 (never answered),
/// 1 (granted) and 2 (denied).
class TAVO_EXPORT ZMCorePermissionListener {
 public:
  virtual ~ZMCorePermissionListener() = default;
  /// Records the answers: `granted` and `denied` permission names of `appId`.
  virtual void updatePermission(const std::string& appId, const std::vector<std::string>& granted,
                                const std::vector<std::string>& denied) = 0;
  /// Throws ZMException "Permission" for an unknown name when the app has a record.
  virtual int64_t getSinglePermission(const std::string& appId, const std::string& permission) = 0;
  /// An object from permission name to its number, holding only the answered permissions.
  virtual ZMValue getAllPermission(const std::string& appId) = 0;
};

/// Progress and the one terminal result of ZMGameHandle::unzipFile.
class TAVO_EXPORT ZMUnzipGamePackageListener {
 public:
  virtual ~ZMUnzipGamePackageListener() = default;
  /// Every entry is written. Terminal.
  virtual void onUnzipSucceed() = 0;
  /// The share written so far, 0 to 1.
  virtual void onUnzipProgress(float progress) = 0;
  /// The unzip failed, and why. Terminal.
  virtual void onUnzipFailed(const std::string& message) = 0;
};
