#include "platform/ZMFileManager.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <random>

#include "platform/ZMPath.h"

namespace fs = std::filesystem;

namespace {

int64_t cocoaCode(int err, bool writing) {
  switch (err) {
    case ENOENT:
    case ENOTDIR:
      return writing ? 4 : 260;  // NSFileNoSuchFileError / NSFileReadNoSuchFileError
    case EEXIST:
    case ENOTEMPTY:
      return kZMFileWriteFileExistsError;
    case EACCES:
    case EPERM:
      return writing ? 513 : 257;  // NSFileWriteNoPermissionError / NSFileReadNoPermissionError
    case ENOSPC:
      return 640;  // NSFileWriteOutOfSpaceError
    case EROFS:
      return 642;  // NSFileWriteVolumeReadOnlyError
    default:
      return writing ? kZMFileWriteUnknownError : 256;
  }
}

bool fail(ZMError* error, int err, bool writing, std::string_view what, std::string_view path) {
  if (error) {
    const std::string text =
        std::string(what) + " \u201c" + std::string(path) + "\u201d: " + std::strerror(err);
    *error = ZMError(
        kZMCocoaErrorDomain, cocoaCode(err, writing),
        ZMValue{
            {kZMLocalizedDescriptionKey, text}, {"NSFilePath", path}, {"NSPOSIXErrorDomain", err}});
  }
  return false;
}

// A path the system can take as it is. A NUL inside would make the system see a shorter path
// ("victim\0_x" is "victim") than the one that was checked, so such a path names nothing.
bool usable(std::string_view path) {
  return !path.empty() && path.find('\0') == std::string_view::npos;
}

}  // namespace

ZMFileManager::Kind ZMFileManager::kindOfItem(const std::string& path) {
  struct stat st {};
  if (!usable(path) || ::stat(path.c_str(), &st) != 0) return {};
  return {true, S_ISDIR(st.st_mode)};
}

bool ZMFileManager::isWritable(const std::string& path) {
  return usable(path) && ::access(path.c_str(), W_OK) == 0;
}

bool ZMFileManager::createDirectory(const std::string& path, ZMError* error) {
  std::error_code ec;
  if (!usable(path)) return fail(error, ENOENT, true, "Could not create directory", path);
  fs::create_directories(path, ec);
  if (ec) return fail(error, ec.value(), true, "Could not create directory", path);
  if (!kindOfItem(path).isDirectory) return fail(error, EEXIST, true, "Could not create", path);
  return true;
}

bool ZMFileManager::removeItem(const std::string& path, ZMError* error) {
  if (!usable(path)) return fail(error, ENOENT, true, "Could not remove", path);
  std::error_code ec;
  const auto status = fs::symlink_status(path, ec);
  if (ec || !fs::exists(status)) return fail(error, ENOENT, true, "Could not remove", path);
  fs::remove_all(path, ec);
  if (ec) return fail(error, ec.value(), true, "Could not remove", path);
  return true;
}

bool ZMFileManager::moveItem(const std::string& from, const std::string& to, ZMError* error) {
  if (!usable(from) || !usable(to)) return fail(error, ENOENT, true, "Could not move to", to);
  struct stat st {};
  if (::lstat(to.c_str(), &st) == 0) return fail(error, EEXIST, true, "Could not move to", to);
  if (::rename(from.c_str(), to.c_str()) == 0) return true;
  if (errno != EXDEV) return fail(error, errno, true, "Could not move to", to);
  // Another file system: copy without overwriting, then remove the source.
  std::error_code ec;
  fs::copy(from, to, fs::copy_options::recursive, ec);
  if (ec) {
    fs::remove_all(to);
    return fail(error, ec.value(), true, "Could not move to", to);
  }
  fs::remove_all(from, ec);
  return true;
}

bool ZMFileManager::replaceItem(const std::string& from, const std::string& to, ZMError* error) {
  if (!usable(from) || !usable(to)) return fail(error, ENOENT, true, "Could not move to", to);
  // A file is replaced by rename itself; so is a directory where nothing is yet.
  if (::rename(from.c_str(), to.c_str()) == 0) return true;
  if (errno != EISDIR && errno != ENOTEMPTY && errno != EEXIST) {
    return fail(error, errno, true, "Could not move to", to);
  }
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_EXCHANGE) == 0) {
    std::error_code ec;
    fs::remove_all(from, ec);  // the old item, swapped out
    return true;
  }
  if (errno != EINVAL && errno != ENOSYS) return fail(error, errno, true, "Could not move to", to);
  const auto aside = createSiblingDirectory(to, "old", error);
  if (!aside) return false;
  const std::string old = *aside + "/item";
  if (::rename(to.c_str(), old.c_str()) != 0 || ::rename(from.c_str(), to.c_str()) != 0) {
    const int err = errno;
    if (!kindOfItem(to).exists) (void)::rename(old.c_str(), to.c_str());
    std::error_code ec;
    fs::remove_all(*aside, ec);
    return fail(error, err, true, "Could not move to", to);
  }
  std::error_code ec;
  fs::remove_all(*aside, ec);
  return true;
}

std::optional<std::string> ZMFileManager::createSiblingDirectory(const std::string& path,
                                                                 std::string_view tag,
                                                                 ZMError* error) {
  if (!usable(path)) {
    fail(error, ENOENT, true, "Could not create directory", path);
    return std::nullopt;
  }
  const auto slash = path.rfind('/');
  const std::string parent = slash == std::string::npos ? "." : path.substr(0, slash);
  const std::string prefix =
      parent + "/." + ZMLastPathComponent(path) + "." + std::string(tag) + "-";
  if (!kindOfItem(parent).isDirectory && !createDirectory(parent, error)) return std::nullopt;
  // mkdtemp's names, but the mode of any directory made here (0777 less the umask): the
  // directory may take the place of an installed one.
  static thread_local std::mt19937_64 random{std::random_device{}()};
  static constexpr char kLetters[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  for (int attempt = 0;; ++attempt) {
    std::string name = prefix;
    for (int i = 0; i < 6; ++i) name += kLetters[random() % (sizeof kLetters - 1)];
    if (::mkdir(name.c_str(), 0777) == 0) return name;
    if (errno != EEXIST || attempt == 100) {
      fail(error, errno, true, "Could not create directory", name);
      return std::nullopt;
    }
  }
}

std::optional<std::vector<std::string>> ZMFileManager::contentsOfDirectory(const std::string& path,
                                                                           ZMError* error) {
  DIR* dir = usable(path) ? ::opendir(path.c_str()) : nullptr;
  if (!dir) {
    fail(error, usable(path) ? errno : ENOENT, false, "Could not list", path);
    return std::nullopt;
  }
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    names.emplace_back(name);
  }
  ::closedir(dir);
  return names;
}

std::optional<double> ZMFileManager::modificationDate(const std::string& path) {
  struct stat st {};
  if (!usable(path) || ::lstat(path.c_str(), &st) != 0) return std::nullopt;
  return static_cast<double>(st.st_mtim.tv_sec) + static_cast<double>(st.st_mtim.tv_nsec) / 1e9;
}

int ZMFileManager::openRegularFile(const std::string& path, bool followLinks, struct stat* info) {
  // O_NONBLOCK: opening a FIFO where a file belongs must not wait for a writer.
  if (!usable(path)) {
    errno = ENOENT;
    return -1;
  }
  const int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | (followLinks ? 0 : O_NOFOLLOW);
  int fd;
  do {
    fd = ::open(path.c_str(), flags);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return -1;
  // Only a regular file: a FIFO, socket or device could block or never end.
  struct stat st {};
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
    if (info) *info = st;
    return fd;
  }
  const int err = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
  ::close(fd);
  errno = err;
  return -1;
}

std::optional<std::string> ZMFileManager::readFile(const std::string& path, ZMError* error) {
  const int fd = openRegularFile(path, true);
  if (fd < 0) {
    const bool opened = errno == EISDIR || errno == EINVAL;
    fail(error, errno, false, opened ? "Could not read" : "Could not open", path);
    return std::nullopt;
  }
  std::string data;
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      const int err = errno;
      ::close(fd);
      fail(error, err, false, "Could not read", path);
      return std::nullopt;
    }
    data.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return data;
}

bool ZMFileManager::writeFileAtomically(const std::string& path, std::string_view data,
                                        ZMError* error) {
  if (!usable(path)) return fail(error, ENOENT, true, "Could not write", path);
  static thread_local std::mt19937_64 random{std::random_device{}()};
  const std::string temporary = path + ".tmp-" + std::to_string(random());
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return fail(error, errno, true, "Could not write", path);
  std::size_t written = 0;
  while (written < data.size()) {
    const ssize_t n = ::write(fd, data.data() + written, data.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      const int err = errno;
      ::close(fd);
      ::unlink(temporary.c_str());
      return fail(error, err, true, "Could not write", path);
    }
    written += static_cast<std::size_t>(n);
  }
  if (::fsync(fd) != 0 || ::close(fd) != 0) {
    const int err = errno;
    ::unlink(temporary.c_str());
    return fail(error, err, true, "Could not write", path);
  }
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    const int err = errno;
    ::unlink(temporary.c_str());
    return fail(error, err, true, "Could not write", path);
  }
  return true;
}
