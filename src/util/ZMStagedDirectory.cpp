#include "util/ZMStagedDirectory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "platform/ZMFileManager.h"
#include "platform/ZMPath.h"

namespace {

constexpr const char* kTag = "staging";
// A leftover younger than this may belong to a process that has made it but not locked it yet.
constexpr double kLeftoverAge = 60;

// A descriptor holding an exclusive lock on the directory, or -1 when another holds it.
int lockDirectory(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

std::unique_ptr<ZMStagedDirectory> ZMStagedDirectory::create(const std::string& destination,
                                                             ZMError* error) {
  removeLeftovers(destination);
  auto path = ZMFileManager::createSiblingDirectory(destination, kTag, error);
  if (!path) return nullptr;
  const int lock = lockDirectory(*path);
  return std::unique_ptr<ZMStagedDirectory>(new ZMStagedDirectory(destination, *path, lock));
}

ZMStagedDirectory::ZMStagedDirectory(std::string destination, std::string path, int lock)
    : destination_(std::move(destination)), path_(std::move(path)), lock_(lock) {}

ZMStagedDirectory::~ZMStagedDirectory() {
  if (!committed_) ZMFileManager::removeItem(path_, nullptr);
  if (lock_ >= 0) ::close(lock_);
}

bool ZMStagedDirectory::commit(ZMError* error) {
  if (!ZMFileManager::replaceItem(path_, destination_, error)) return false;
  committed_ = true;
  return true;
}

void ZMStagedDirectory::removeLeftovers(const std::string& destination) {
  const auto slash = destination.rfind('/');
  if (slash == std::string::npos) return;
  const std::string parent = destination.substr(0, slash);
  // Appended piece by piece: GCC 12 at -O3 warns falsely (-Wrestrict) on "." + std::string.
  std::string prefix = ".";
  prefix += ZMLastPathComponent(destination) + "." + kTag + "-";
  const auto names = ZMFileManager::contentsOfDirectory(parent, nullptr);
  if (!names) return;
  const double now = ZMNow();
  for (const auto& name : *names) {
    if (!name.starts_with(prefix)) continue;
    const std::string path = parent + "/" + name;
    const auto modified = ZMFileManager::modificationDate(path);
    if (!modified || now - *modified < kLeftoverAge) continue;
    const int lock = lockDirectory(path);
    if (lock < 0) continue;  // its unpack is still running
    ZMFileManager::removeItem(path, nullptr);
    ::close(lock);
  }
}
