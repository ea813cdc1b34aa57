#pragma once

#include <optional>
#include <string>

#include "tavo/ZMError.h"

// ZMCachedPackage is how processes share one package file in the package cache. A download puts
// its verified package at the package's name, replacing whatever is there (publish); an unpack
// first gives the package a private second name (claim), so that no other process can replace
// or delete what it unpacks midway, and afterwards deletes its private name and the shared one,
// the latter only while it still names the same file (release). The shared name is replaced and
// deleted only under a lock on the cache directory, held for those two steps alone, so a process
// never deletes a package that another one has just put there.
//
// A package's signature (path + ".minisig") goes with it: written just before the package is
// put at its name, and deleted with that name.
//
// Stateless; any thread.
class ZMCachedPackage {
 public:
  // Puts the file `file` at `path` (one file system), replacing what is there; with a
  // `signature`, writes that first beside it, and notes the package's BLAKE2b-512 `prehash`,
  // when given, beside it (ZMPackageTrust::rememberPrehash).
  static bool publish(const std::string& file, const std::string& path, ZMError* error,
                      const std::optional<std::string>& signature = std::nullopt,
                      const std::optional<std::string>& prehash = std::nullopt);
  // A private name for the package at `path` ("<path>.unzip-XXXXXX"), or `path` itself when it
  // can have no second name (a file on another file system, or not ours to link).
  static std::string claim(const std::string& path);
  // Deletes the claimed package; false when its shared name could not be deleted.
  static bool release(const std::string& path, const std::string& claimed);
};
