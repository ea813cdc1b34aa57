#include "PackageDirectory.h"

#include <sys/stat.h>

#include "tavo/ZMFileUtils.h"

std::optional<PackageDirectory::File> PackageDirectory::file(std::string_view name) const {
  if (name.empty() || name.front() == '.' ||
      name.find_first_of(std::string_view("/\0", 2)) != std::string_view::npos) {
    return std::nullopt;
  }
  File found{path_ + "/" + std::string(name)};
  struct stat info {};
  if (::stat(found.path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  found.size = info.st_size;
  found.modified = static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
  return found;
}

std::optional<std::string> PackageDirectory::md5(const std::string& name, bool* unhashed) {
  const auto found = file(name);
  std::shared_ptr<Digest> digest;
  {
    std::lock_guard lock(mutex_);
    if (!found) {
      digests_.erase(name);
      return std::nullopt;
    }
    auto& slot = digests_[name];
    if (!slot) slot = std::make_shared<Digest>();
    digest = slot;
  }
  std::unique_lock lock(digest->mutex, std::defer_lock);
  if (unhashed ? !lock.try_lock() : (lock.lock(), false)) {
    *unhashed = true;  // being hashed right now
    return std::nullopt;
  }
  if (digest->size != found->size || digest->modified != found->modified) {
    if (unhashed) {
      *unhashed = true;
      return std::nullopt;
    }
    digest->md5 = ZMFileUtils::getFileMD5(found->path);
    if (digest->md5 && digest->md5->empty()) digest->md5.reset();
    digest->size = found->size;
    digest->modified = found->modified;
  }
  return digest->md5;
}
