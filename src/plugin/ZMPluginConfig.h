#pragma once

#include <functional>
#include <optional>
#include <string>

#include "tavo/ZMError.h"
#include "tavo/ZMValue.h"

// ZMPluginConfig owns the plug-in config file: "<plug-in directory>.detail.json", a sibling of
// the directory rather than a file inside it, so that listing finds installed plug-ins by it and
// removal deletes both. Its presence marks a plug-in as installed. It holds one JSON object,
// written pretty-printed and atomically, and always by read-modify-write, so that keys a host or
// another flow put there survive:
//   "hash"        the MD5 of the package the directory was unpacked from (an install from the
//                 service, or the local install of a prefetched update)
//   "updateHash"  the MD5 of a newer package prefetched into the package cache, written before
//                 the prefetch starts and removed once that package is installed; it may be the
//                 file's only key while the plug-in is not installed yet
// Stateless; any thread.
class ZMPluginConfig {
 public:
  static constexpr const char* kHash = "hash";
  static constexpr const char* kUpdateHash = "updateHash";

  // The text under `key` in the file at `path`; null when the file cannot be read as an object or
  // the value is not text.
  static std::optional<std::string> text(const std::string& path, const char* key);
  // The "hash" recorded for a plug-in under `root`; null as above.
  static std::optional<std::string> installedHash(const std::string& root,
                                                  const std::string& pluginId,
                                                  const std::string& version);
  // Reads the object (an empty one when the file is missing or holds none), lets `change` edit
  // it and writes it back; false with `error` filled when the write failed.
  static bool update(const std::string& path, const std::function<void(ZMValue&)>& change,
                     ZMError* error);
};
