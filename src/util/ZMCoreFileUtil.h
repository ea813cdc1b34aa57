#pragma once

#include <optional>
#include <string>
#include <vector>

// ZMCoreFileUtil lists the package cache for the sweep. Stateless; safe from any thread.
class ZMCoreFileUtil {
 public:
  // Null for an empty path; otherwise _getAllSubPathWithCurrentPath.
  static std::optional<std::vector<std::string>> getCacheTempFileList(const std::string& path);
  // The names of the immediate entries of an existing directory (not recursive), else null.
  static std::optional<std::vector<std::string>> _getAllSubPathWithCurrentPath(
      const std::string& path);
};
