#pragma once

#include <string>

#include "tavo/ZMValue.h"
#include "util/ZMPackageLimits.h"
#include "util/ZMPackageTrust.h"

// ZMStorageLayout says where a runtime keeps everything on disk: the roots fixed once when the
// runtime is created, and every path derived from them. It is an immutable value that touches
// no file; whoever needs a directory to exist makes it. Shared read-only by the runtime, its
// tasks and the plug-in manager, from any thread.
//
// Roots, with the defaults for a host whose bundle id is com.example.host (uid 1000):
//   app    installed games, shared by every user   ~/.cache/com.example.host/app
//   user   per-user game data                      ~/.cache/com.example.host/user
//   cache  downloaded packages, per-user caches    /tmp/com.example.host-1000 (the temporary
//                                                  directory itself, so packages sit in it)
//   core   reserved for the engine core            ~/.cache/com.example.host/core
//   plugin installed plug-ins                      ~/.cache/com.example.host/plugin
// Each can be replaced by its "rt_storage_path_*" creation option. A layout built from no roots
// (a runtime whose creation failed) answers every path with "", so nothing is ever made
// relative to the working directory.
struct ZMStorageLayout {
  std::string userId;
  std::string app, user, cache, core, plugin;
  // How much one package may unpack into these roots; from the same creation options.
  ZMPackageLimits packageLimits;
  // Whose signature a package needs before it is published or unpacked; from the same options.
  ZMPackageTrust packageTrust;

  // The roots for `options` (a null or non-object value counts as no options): an option that
  // is absent, not text or empty falls back to its default.
  static ZMStorageLayout fromOptions(const std::string& userId, const ZMValue& options);

  // Paths for app id "g7", version "1.0.2" and user "u1" ("u1_g7" joins them with "_"):
  // app/g7, shared by every user
  std::string appDir(const std::string& appId) const;
  // app/g7/detail.json, what is installed
  std::string appDetailFile(const std::string& appId) const;
  // app/g7/1.0.2, the unpacked package
  std::string appPackageDir(const std::string& appId, const std::string& version) const;
  // cache/g7.1.0.2.zgp, the downloaded package
  std::string packageDownloadPath(const std::string& appId, const std::string& version) const;
  // user/u1_g7, the user's data for the game
  std::string userDir(const std::string& appId) const;
  // cache/u1_g7, the user's cache for the game
  std::string userCacheDir(const std::string& appId) const;
  // cache/u1_g7/tmp, the engine's temporary directory
  std::string userTempDir(const std::string& appId) const;
  // user/u1_g7/data, the engine's data directory
  std::string userDataDir(const std::string& appId) const;
  // user/u1_g7/local_storage.db, the game's own storage
  std::string userLocalStorage(const std::string& appId) const;
  // user/u1_g7/rt_local_storage.db, the runtime's storage for the game
  std::string runtimeLocalStorage(const std::string& appId) const;
};
