#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

// PackageDirectory is the directory `tavo serve` serves: its regular files by name, and the MD5
// of each, computed when first asked for and again whenever the file changes (its size or
// modification time), so a package replaced while the service runs is announced anew. It keeps
// nothing but that cache: services over the same directory answer alike.
// Thread-safe: the server's workers ask it concurrently; one file is hashed once at a time.
class PackageDirectory {
 public:
  explicit PackageDirectory(std::string path) : path_(std::move(path)) {}

  struct File {
    std::string path;
    int64_t size = 0;
    int64_t modified = 0;  // nanoseconds
  };
  // The regular file `name` directly in the directory; null for anything else, and for a name
  // that could reach outside it or a hidden file ("/", NUL, a leading ".").
  std::optional<File> file(std::string_view name) const;
  // The file's MD5 in lower-case hex; null when there is no such file or it cannot be read.
  // Given `unhashed`, a file that would have to be read first is not: it is set instead.
  std::optional<std::string> md5(const std::string& name, bool* unhashed = nullptr);

 private:
  struct Digest {
    std::mutex mutex;  // held while the file is hashed
    int64_t size = -1;
    int64_t modified = -1;
    std::optional<std::string> md5;
  };

  const std::string path_;
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<Digest>, std::less<>> digests_;  // guarded by mutex_
};
