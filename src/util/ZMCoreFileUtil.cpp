#include "util/ZMCoreFileUtil.h"

#include "platform/ZMFileManager.h"

std::optional<std::vector<std::string>> ZMCoreFileUtil::getCacheTempFileList(
    const std::string& path) {
  if (path.empty()) return std::nullopt;
  return _getAllSubPathWithCurrentPath(path);
}

std::optional<std::vector<std::string>> ZMCoreFileUtil::_getAllSubPathWithCurrentPath(
    const std::string& path) {
  const ZMFileManager::Kind kind = ZMFileManager::kindOfItem(path);
  if (!kind.exists || !kind.isDirectory) return std::nullopt;
  // Shallow on purpose: the cache sweep looks at the entries of one directory only. A listing
  // error gives null, like a missing directory.
  return ZMFileManager::contentsOfDirectory(path, nullptr);
}
