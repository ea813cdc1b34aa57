#include "util/ZMCachedPackage.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <random>

#include "platform/ZMFileManager.h"
#include "util/ZMDeleteFileFreeingLater.h"
#include "util/ZMPackageTrust.h"

namespace {

// Holds an exclusive lock on the directory of `path` while alive. Without one (a directory that
// cannot be opened) the steps still run, only without protection from other processes.
class CacheLock {
 public:
  explicit CacheLock(const std::string& path) {
    const auto slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash);
    fd_ = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd_ >= 0) {
      while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
      }
    }
  }
  ~CacheLock() {
    if (fd_ >= 0) ::close(fd_);
  }
  CacheLock(const CacheLock&) = delete;
  CacheLock& operator=(const CacheLock&) = delete;

 private:
  int fd_ = -1;
};

bool sameFile(const std::string& a, const std::string& b) {
  struct stat x {
  }, y{};
  return ::lstat(a.c_str(), &x) == 0 && ::lstat(b.c_str(), &y) == 0 && x.st_dev == y.st_dev &&
         x.st_ino == y.st_ino;
}

}  // namespace

bool ZMCachedPackage::publish(const std::string& file, const std::string& path, ZMError* error,
                              const std::optional<std::string>& signature,
                              const std::optional<std::string>& prehash) {
  CacheLock lock(path);
  if (signature &&
      !ZMFileManager::writeFileAtomically(ZMPackageTrust::signatureOf(path), *signature, error)) {
    return false;
  }
  if (!ZMFileManager::replaceItem(file, path, error)) return false;
  // Noted once the package has its name: the move may have changed its change time.
  if (signature && prehash) ZMPackageTrust::rememberPrehash(path, *prehash);
  return true;
}

std::string ZMCachedPackage::claim(const std::string& path) {
  if (path.find('\0') != std::string::npos) return path;
  static thread_local std::mt19937_64 random{std::random_device{}()};
  for (int attempt = 0; attempt < 8; ++attempt) {
    const std::string name = path + ".unzip-" + std::to_string(random() % 1000000000);
    if (::link(path.c_str(), name.c_str()) == 0) return name;
    if (errno != EEXIST) break;
  }
  return path;
}

bool ZMCachedPackage::release(const std::string& path, const std::string& claimed) {
  const std::string signature = ZMPackageTrust::signatureOf(path);
  if (claimed == path) {
    ::unlink(signature.c_str());
    return ZMDeleteFileFreeingLater(path);
  }
  {
    CacheLock lock(path);
    if (sameFile(path, claimed)) {
      if (::unlink(path.c_str()) != 0) return false;
      ::unlink(signature.c_str());
    }
  }
  ZMDeleteFileFreeingLater(claimed);
  return true;
}
