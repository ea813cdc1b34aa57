#include "MerinZipExtractor.h"

#include <fcntl.h>
#include <libdeflate.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "MerinEntryName.h"
#include "MerinLzmaDecoder.h"
#include "ZMZipArchive.h"

namespace {

constexpr size_t kChunkSize = 256 * 1024;
// Entries up to this size (stored or deflated) are read whole and inflated in one call, which
// takes about half the time of libzip's streaming inflate; larger ones stream in chunks, so a
// worker never holds more than about twice this much.
constexpr uint64_t kWholeEntryLimit = 1024 * 1024;
// Below this many uncompressed bytes one thread extracts everything: a second archive handle
// and thread cost more than they save.
constexpr uint64_t kParallelThreshold = 1024 * 1024;
constexpr unsigned kMaxWorkers = 8;
// Up to this many directories stay open for the workers; past it each worker walks from the
// destination again.
constexpr size_t kMaxOpenDirectories = 256;
// Entries nested deeper than this are refused: no game package comes near it, and every
// directory of a path may be walked again for the files below it.
constexpr size_t kMaxDepth = 256;

struct DecompressorFree {
  void operator()(libdeflate_decompressor* decompressor) const {
    libdeflate_free_decompressor(decompressor);
  }
};

struct ZipDiscard {
  void operator()(zip_t* archive) const { zip_discard(archive); }
};
using ZipPtr = std::unique_ptr<zip_t, ZipDiscard>;

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  Fd& operator=(Fd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = other.release();
    }
    return *this;
  }
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

std::string ErrnoText(int error) { return std::strerror(error); }

ZipPtr OpenArchive(const std::string& path, std::string* error) {
  const std::string prefix = "cannot open zip archive " + Quoted(path) + ": ";
  // O_NONBLOCK: a FIFO where the package belongs must not wait for a writer; it is then refused
  // as not a regular file.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    *error = prefix + ErrnoText(errno);
    return nullptr;
  }
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    *error = prefix + "not a regular file";
    ::close(fd);
    return nullptr;
  }
  zip_t* archive = ZMOpenZipArchive(fd, static_cast<uint64_t>(st.st_size), error);
  if (archive == nullptr) *error = prefix + *error;
  return ZipPtr(archive);
}

std::string ZipCodeText(int code) {
  zip_error_t zerror;
  zip_error_init_with_code(&zerror, code);
  std::string text = zip_error_strerror(&zerror);
  zip_error_fini(&zerror);
  return text;
}

// One file to write: its index in the archive and its checked path relative to the destination.
struct FileEntry {
  zip_uint64_t index = 0;
  std::string name;  // as stored, for messages
  std::string path;
  zip_uint64_t size = 0;
  mode_t mode = 0644;
  // Set when the entry is read whole: how its data is stored and what it must check out to.
  bool whole = false;
  zip_uint16_t method = ZIP_CM_STORE;
  zip_uint64_t compressedSize = 0;
  zip_uint32_t crc = 0;
  // Set when libzip hands over only the stored data and the extractor decodes it (LZMA, XZ).
  bool decodedHere = false;
};

bool ReadsWhole(const zip_stat_t& st) {
  constexpr zip_uint64_t kNeeded =
      ZIP_STAT_SIZE | ZIP_STAT_COMP_SIZE | ZIP_STAT_COMP_METHOD | ZIP_STAT_CRC;
  // Deflate may grow incompressible data a little; more than an eighth is not a real stream.
  return (st.valid & kNeeded) == kNeeded &&
         (st.comp_method == ZIP_CM_STORE || st.comp_method == ZIP_CM_DEFLATE) &&
         st.size <= kWholeEntryLimit && st.comp_size <= kWholeEntryLimit + kWholeEntryLimit / 8;
}

struct Plan {
  zip_int64_t entryCount = 0;
  std::vector<FileEntry> files;
  std::set<std::string> dirs;  // sorted, so parents come before their children
  uint64_t totalBytes = 0;
};

std::optional<std::string> BuildPlan(zip_t* archive, const std::string& zipPath, Plan* plan) {
  const std::string where = " in zip archive " + Quoted(zipPath);
  plan->entryCount = zip_get_num_entries(archive, 0);
  // libzip opens an empty file as an empty archive; no real package is empty, and installing
  // nothing would leave a game that claims to be there.
  if (plan->entryCount <= 0) return "no entries" + where;
  std::map<std::string, size_t> fileByPath;
  for (zip_int64_t i = 0; i < plan->entryCount; ++i) {
    const auto index = static_cast<zip_uint64_t>(i);
    zip_stat_t st;
    zip_stat_init(&st);
    const char* rawName = zip_get_name(archive, index, ZIP_FL_ENC_RAW);
    const char* decodedName = zip_get_name(archive, index, ZIP_FL_ENC_GUESS);
    if (rawName == nullptr || decodedName == nullptr ||
        zip_stat_index(archive, index, 0, &st) != 0) {
      return "cannot read entry " + std::to_string(i) + where + ": " + zip_strerror(archive);
    }
    const std::string name = decodedName;
    zip_uint8_t opsys = 0;
    zip_uint32_t attributes = 0;
    zip_file_get_external_attributes(archive, index, 0, &opsys, &attributes);
    MerinEntryName mapped;
    if (auto refusal = MerinMapEntryName(rawName, name, opsys, &mapped)) return *refusal + where;

    bool isDirectory = mapped.isDirectory;
    mode_t mode = 0644;
    if (opsys == ZIP_OPSYS_UNIX) {
      const auto unixMode = static_cast<mode_t>(attributes >> 16);
      const mode_t type = unixMode & S_IFMT;
      if (type == S_IFLNK) return "refusing symbolic link entry " + Quoted(name) + where;
      // What zip stores for its standard input ("zip - -" in a pipe) carries the mode of the
      // pipe; like every other extractor, its data is written as a regular file.
      if (type != 0 && type != S_IFREG && type != S_IFDIR && type != S_IFIFO) {
        return "refusing special file entry " + Quoted(name) + where;
      }
      if (type == S_IFDIR) isDirectory = true;
      if ((unixMode & 0777) != 0) mode = (unixMode & 0777) | S_IRUSR | S_IWUSR;
    } else if (opsys == ZIP_OPSYS_DOS && (attributes & 0x10) != 0) {
      isDirectory = true;
    }

    std::string& path = mapped.path;
    if (path.empty()) {
      if (isDirectory) continue;  // the destination itself
      return "refusing unsafe entry name " + Quoted(name) + where;
    }
    if (static_cast<size_t>(std::count(path.begin(), path.end(), '/')) >= kMaxDepth) {
      return "refusing entry " + Quoted(name) + " nested deeper than " + std::to_string(kMaxDepth) +
             " directories" + where;
    }
    // Parents from the nearest up, stopping at one already planned (its own parents are then
    // planned too): each name costs its own length, however deep the tree.
    for (size_t end = isDirectory ? path.size() : path.rfind('/'); end != std::string::npos;
         end = end == 0 ? std::string::npos : path.rfind('/', end - 1)) {
      if (!plan->dirs.insert(path.substr(0, end)).second) break;
    }
    if (isDirectory) continue;
    if ((st.valid & ZIP_STAT_ENCRYPTION_METHOD) && st.encryption_method != ZIP_EM_NONE) {
      return "refusing encrypted entry " + Quoted(name) + where;
    }
    const bool decodedHere =
        (st.valid & ZIP_STAT_COMP_METHOD) && MerinLzmaDecoder::decodes(st.comp_method);
    if ((st.valid & ZIP_STAT_COMP_METHOD) && !decodedHere &&
        !zip_compression_method_supported(st.comp_method, 0)) {
      return "unsupported compression method " + std::to_string(st.comp_method) + " of entry " +
             Quoted(name) + where;
    }
    FileEntry entry{index, name, path, (st.valid & ZIP_STAT_SIZE) ? st.size : 0, mode};
    if (decodedHere) {
      entry.decodedHere = true;
      entry.method = st.comp_method;
      entry.crc = st.crc;
    } else if (ReadsWhole(st)) {
      entry.whole = true;
      entry.method = st.comp_method;
      entry.compressedSize = st.comp_size;
      entry.crc = st.crc;
    }
    // A name stored twice is written once, with the later entry, as a sequential extractor
    // would leave it.
    if (auto found = fileByPath.find(path); found != fileByPath.end()) {
      plan->files[found->second] = std::move(entry);
    } else {
      fileByPath.emplace(path, plan->files.size());
      plan->files.push_back(std::move(entry));
    }
  }
  for (const auto& file : plan->files) plan->totalBytes += file.size;
  return std::nullopt;
}

// Opens (and with `create`, makes) the directory `path` below `root`, one component at a time,
// never following a symbolic link.
Fd OpenDirectory(int root, const std::string& path, bool create, const std::string& destDir,
                 std::string* error) {
  Fd current(::dup(root));
  if (!current.valid()) {
    *error = "cannot open " + Quoted(destDir) + ": " + ErrnoText(errno);
    return Fd();
  }
  size_t begin = 0;
  while (begin < path.size()) {
    size_t end = path.find('/', begin);
    if (end == std::string::npos) end = path.size();
    const std::string component = path.substr(begin, end - begin);
    const std::string shown = destDir + "/" + path.substr(0, end);
    if (create && ::mkdirat(current.get(), component.c_str(), 0755) != 0 && errno != EEXIST) {
      *error = "cannot create directory " + Quoted(shown) + ": " + ErrnoText(errno);
      return Fd();
    }
    Fd next(::openat(current.get(), component.c_str(),
                     O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!next.valid()) {
      const int openError = errno;
      struct stat st;
      if (::fstatat(current.get(), component.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
          S_ISLNK(st.st_mode)) {
        *error = "refusing to follow symbolic link " + Quoted(shown);
      } else {
        *error = "cannot open directory " + Quoted(shown) + ": " + ErrnoText(openError);
      }
      return Fd();
    }
    current = std::move(next);
    begin = end + 1;
  }
  return current;
}

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(fd, data, size);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

// State shared by the workers of one archive and the thread that reports progress.
struct Extraction {
  Extraction(const std::string& zip, const std::string& dest, const Plan& files, int rootFd)
      : zipPath(zip), destDir(dest), plan(files), root(rootFd) {}

  const std::string& zipPath;
  const std::string& destDir;
  const Plan& plan;
  const int root;

  // Descriptors of the archive's directories, filled before the workers start; read-only then.
  std::map<std::string, Fd> directories;

  std::atomic<size_t> next{0};
  std::atomic<uint64_t> bytesDone{0};
  std::atomic<bool> failed{false};

  std::mutex mutex;
  std::condition_variable changed;
  unsigned running = 0;  // guarded by mutex
  std::string error;     // guarded by mutex; the first failure

  int percent(uint64_t bytes) const {
    return plan.totalBytes == 0 ? 0 : static_cast<int>(bytes * 100 / plan.totalBytes);
  }
  void fail(std::string message) {
    std::lock_guard lock(mutex);
    if (!failed.exchange(true)) error = std::move(message);
  }
  void addBytes(uint64_t count) {
    const uint64_t before = bytesDone.fetch_add(count, std::memory_order_relaxed);
    if (percent(before) != percent(before + count)) {
      { std::lock_guard lock(mutex); }
      changed.notify_one();
    }
  }
};

// Makes the planned directories in their sorted order, where a parent comes right before its
// first child: each is made below the nearest open ancestor on a stack of the current path, so a
// deep chain costs one mkdir and one open per directory instead of a walk from the top for each.
std::optional<std::string> CreateDirectories(Extraction& job) {
  const bool keepOpen = job.plan.dirs.size() <= kMaxOpenDirectories;
  struct Open {
    const std::string* path;
    int fd;
    Fd owned;  // when the workers do not keep it
  };
  std::vector<Open> stack;
  std::string error;
  for (const auto& dir : job.plan.dirs) {
    while (!stack.empty()) {
      const std::string& top = *stack.back().path;
      if (dir.size() > top.size() && dir[top.size()] == '/' && dir.starts_with(top)) break;
      stack.pop_back();
    }
    const std::string* parentPath = stack.empty() ? nullptr : stack.back().path;
    Fd fd = OpenDirectory(stack.empty() ? job.root : stack.back().fd,
                          parentPath ? dir.substr(parentPath->size() + 1) : dir, true,
                          parentPath ? job.destDir + "/" + *parentPath : job.destDir, &error);
    if (!fd.valid()) return error;
    if (keepOpen) {
      const int raw = fd.get();
      job.directories.emplace(dir, std::move(fd));
      stack.push_back({&dir, raw, Fd()});
    } else {
      const int raw = fd.get();
      stack.push_back({&dir, raw, std::move(fd)});
    }
  }
  return std::nullopt;
}

class Worker {
 public:
  Worker(Extraction& job, ZipPtr archive) : job_(job), archive_(std::move(archive)) {}

  void run() {
    try {
      if (!archive_) {
        std::string error;
        archive_ = OpenArchive(job_.zipPath, &error);
        if (!archive_) return job_.fail(error);
        if (zip_get_num_entries(archive_.get(), 0) != job_.plan.entryCount) {
          return job_.fail("zip archive " + Quoted(job_.zipPath) + " changed while extracting");
        }
      }
      for (;;) {
        if (job_.failed.load()) return;
        const size_t k = job_.next.fetch_add(1);
        if (k >= job_.plan.files.size()) return;
        if (auto error = extract(job_.plan.files[k])) return job_.fail(std::move(*error));
      }
    } catch (const std::exception& e) {
      job_.fail(std::string("extraction failed: ") + e.what());
    }
  }

 private:
  int parentDirectory(const std::string& parent, std::string* error) {
    if (parent.empty()) return job_.root;
    if (auto found = job_.directories.find(parent); found != job_.directories.end()) {
      return found->second.get();
    }
    if (parent != cachedParent_ || !cachedFd_.valid()) {
      cachedFd_ = OpenDirectory(job_.root, parent, false, job_.destDir, error);
      cachedParent_ = cachedFd_.valid() ? parent : std::string();
    }
    return cachedFd_.get();
  }

  // Where one entry goes and how messages name it.
  struct Output {
    int dir;
    std::string base;    // the file's name in `dir`
    std::string target;  // its path, for messages
    std::string source;  // the entry, for messages
  };

  std::optional<std::string> extract(const FileEntry& entry) {
    const size_t slash = entry.path.rfind('/');
    const std::string parent = slash == std::string::npos ? "" : entry.path.substr(0, slash);
    std::string error;
    Output output{parentDirectory(parent, &error),
                  slash == std::string::npos ? entry.path : entry.path.substr(slash + 1),
                  job_.destDir + "/" + entry.path,
                  Quoted(entry.name) + " from zip archive " + Quoted(job_.zipPath)};
    if (output.dir < 0) return error;
    if (entry.decodedHere) return extractDecoded(entry, output);
    return entry.whole ? extractWhole(entry, output) : extractStreamed(entry, output);
  }

  static std::string writeError(const Output& output) {
    return "cannot write " + Quoted(output.target) + ": " + ErrnoText(errno);
  }

  static std::optional<std::string> create(const FileEntry& entry, const Output& output, Fd* out) {
    *out = Fd(::openat(output.dir, output.base.c_str(),
                       O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, entry.mode));
    if (out->valid()) return std::nullopt;
    if (errno == ELOOP) return "refusing to follow symbolic link " + Quoted(output.target);
    return writeError(output);
  }

  static std::optional<std::string> finish(Fd out, const Output& output) {
    if (::close(out.release()) == 0) return std::nullopt;
    return writeError(output);
  }

  static std::string tooLong(const FileEntry& entry, const Output& output) {
    return "cannot extract " + output.source + ": it holds more than the " +
           std::to_string(entry.size) + " bytes it declares";
  }

  static std::string tooShort(const FileEntry& entry, const Output& output, uint64_t total) {
    return "cannot extract " + output.source + ": " + std::to_string(total) + " bytes instead of " +
           std::to_string(entry.size);
  }

  // Reads the stored bytes in one call, inflates them in one more and checks the CRC before
  // the file is made: a corrupt entry leaves nothing behind.
  std::optional<std::string> extractWhole(const FileEntry& entry, const Output& output) {
    zip_file_t* file = zip_fopen_index(archive_.get(), entry.index, ZIP_FL_COMPRESSED);
    if (file == nullptr) {
      return "cannot extract " + output.source + ": " + zip_strerror(archive_.get());
    }
    std::unique_ptr<zip_file_t, int (*)(zip_file_t*)> guard(file, zip_fclose);
    if (stored_.size() < entry.compressedSize) stored_.resize(entry.compressedSize);
    const zip_int64_t count = zip_fread(file, stored_.data(), entry.compressedSize);
    if (count < 0) return "cannot extract " + output.source + ": " + zip_file_strerror(file);
    if (static_cast<uint64_t>(count) != entry.compressedSize) {
      return "cannot extract " + output.source + ": " + ZipCodeText(ZIP_ER_EOF);
    }
    const char* data = stored_.data();
    size_t length = static_cast<size_t>(count);
    if (entry.method == ZIP_CM_DEFLATE) {
      if (!decompressor_) decompressor_.reset(libdeflate_alloc_decompressor());
      if (!decompressor_) throw std::bad_alloc();
      // One byte more than an empty entry needs, so the buffer has an address.
      if (inflated_.size() < entry.size + 1) inflated_.resize(entry.size + 1);
      switch (libdeflate_deflate_decompress(decompressor_.get(), data, length, inflated_.data(),
                                            entry.size, &length)) {
        case LIBDEFLATE_SUCCESS:
          break;
        case LIBDEFLATE_INSUFFICIENT_SPACE:
          return tooLong(entry, output);
        default:
          return "cannot extract " + output.source + ": " + ZipCodeText(ZIP_ER_COMPRESSED_DATA);
      }
      data = inflated_.data();
    }
    if (length > entry.size) return tooLong(entry, output);
    if (length < entry.size) return tooShort(entry, output, length);
    if (libdeflate_crc32(0, data, length) != entry.crc) {
      return "cannot extract " + output.source + ": " + ZipCodeText(ZIP_ER_CRC);
    }
    Fd out;
    if (auto failure = create(entry, output, &out)) return failure;
    if (!WriteAll(out.get(), data, length)) {
      return writeError(output);
    }
    job_.addBytes(length);
    return finish(std::move(out), output);
  }

  std::optional<std::string> extractStreamed(const FileEntry& entry, const Output& output) {
    zip_file_t* file = zip_fopen_index(archive_.get(), entry.index, 0);
    if (file == nullptr) {
      return "cannot extract " + output.source + ": " + zip_strerror(archive_.get());
    }
    std::unique_ptr<zip_file_t, int (*)(zip_file_t*)> guard(file, zip_fclose);
    Fd out;
    if (auto failure = create(entry, output, &out)) return failure;
    if (buffer_.empty()) buffer_.resize(kChunkSize);
    uint64_t total = 0;
    for (;;) {
      if (job_.failed.load(std::memory_order_relaxed)) return std::nullopt;
      // Never more than one byte past the declared size: an entry that holds more than it
      // declares is corrupt, and its excess is never written.
      const uint64_t wanted = std::min<uint64_t>(buffer_.size(), entry.size - total + 1);
      const zip_int64_t count = zip_fread(file, buffer_.data(), wanted);
      if (count < 0) return "cannot extract " + output.source + ": " + zip_file_strerror(file);
      if (count == 0) break;
      if (total + static_cast<uint64_t>(count) > entry.size) return tooLong(entry, output);
      if (!WriteAll(out.get(), buffer_.data(), static_cast<size_t>(count))) {
        return writeError(output);
      }
      total += static_cast<uint64_t>(count);
      job_.addBytes(static_cast<uint64_t>(count));
    }
    if (total != entry.size) return tooShort(entry, output, total);
    if (const int code = zip_fclose(guard.release()); code != 0) {
      return "cannot extract " + output.source + ": " + ZipCodeText(code);
    }
    return finish(std::move(out), output);
  }

  // Reads the stored data in chunks and decodes it here, checking the size and the CRC as
  // libzip does for the methods it decodes itself.
  std::optional<std::string> extractDecoded(const FileEntry& entry, const Output& output) {
    zip_file_t* file = zip_fopen_index(archive_.get(), entry.index, ZIP_FL_COMPRESSED);
    if (file == nullptr) {
      return "cannot extract " + output.source + ": " + zip_strerror(archive_.get());
    }
    std::unique_ptr<zip_file_t, int (*)(zip_file_t*)> guard(file, zip_fclose);
    Fd out;
    if (auto failure = create(entry, output, &out)) return failure;
    if (stored_.size() < kChunkSize) stored_.resize(kChunkSize);
    MerinLzmaDecoder decoder(entry.method, entry.size);
    uint64_t total = 0;
    uint32_t crc = 0;
    std::optional<std::string> failure;
    const auto write = [&](std::string_view data) {
      if (total + data.size() > entry.size) {
        failure = tooLong(entry, output);
      } else if (!WriteAll(out.get(), data.data(), data.size())) {
        failure = writeError(output);
      } else {
        total += data.size();
        crc = static_cast<uint32_t>(libdeflate_crc32(crc, data.data(), data.size()));
        job_.addBytes(data.size());
      }
      return !failure;
    };
    for (;;) {
      if (job_.failed.load(std::memory_order_relaxed)) return std::nullopt;
      const zip_int64_t count = zip_fread(file, stored_.data(), kChunkSize);
      if (count < 0) return "cannot extract " + output.source + ": " + zip_file_strerror(file);
      auto reason = decoder.decode({stored_.data(), static_cast<size_t>(count)}, write);
      if (failure) return failure;
      if (reason) return "cannot extract " + output.source + ": " + *reason;
      if (count == 0) break;
    }
    if (total != entry.size) return tooShort(entry, output, total);
    if (crc != entry.crc) return "cannot extract " + output.source + ": " + ZipCodeText(ZIP_ER_CRC);
    return finish(std::move(out), output);
  }

  Extraction& job_;
  ZipPtr archive_;
  std::vector<char> buffer_;    // a chunk of a streamed entry
  std::vector<char> stored_;    // a whole entry as stored
  std::vector<char> inflated_;  // and inflated
  std::unique_ptr<libdeflate_decompressor, DecompressorFree> decompressor_;
  std::string cachedParent_;
  Fd cachedFd_;
};

}  // namespace

std::optional<std::string> MerinExtractZip(const std::string& zipPath, const std::string& destDir,
                                           const std::function<void(float)>& progress,
                                           unsigned workers) {
  std::string error;
  ZipPtr archive = OpenArchive(zipPath, &error);
  if (!archive) return error;
  Plan plan;
  if (auto failure = BuildPlan(archive.get(), zipPath, &plan)) return failure;

  std::error_code ec;
  std::filesystem::create_directories(destDir, ec);
  Fd root(::open(destDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root.valid()) {
    const std::string reason = ec ? ec.message() : ErrnoText(errno);
    return "cannot create destination directory " + Quoted(destDir) + ": " + reason;
  }
  Extraction job(zipPath, destDir, plan, root.get());
  if (auto failure = CreateDirectories(job)) return failure;

  // Largest entries first, so that the last ones handed out are small and the workers finish
  // together.
  std::stable_sort(plan.files.begin(), plan.files.end(),
                   [](const FileEntry& a, const FileEntry& b) { return a.size > b.size; });
  if (workers == 0) workers = std::clamp(std::thread::hardware_concurrency(), 1u, kMaxWorkers);
  if (plan.totalBytes < kParallelThreshold) workers = 1;
  workers =
      static_cast<unsigned>(std::min<size_t>(workers, std::max<size_t>(plan.files.size(), 1)));

  if (progress) progress(0.0f);
  job.running = workers;
  std::vector<std::thread> threads;
  threads.reserve(workers);
  for (unsigned i = 0; i < workers; ++i) {
    // The first worker reads through the archive opened for the checks; the others open their
    // own, since a zip_t serves one thread at a time.
    threads.emplace_back([&job, owned = i == 0 ? std::move(archive) : ZipPtr()]() mutable {
      Worker(job, std::move(owned)).run();
      {
        std::lock_guard lock(job.mutex);
        --job.running;
      }
      job.changed.notify_one();
    });
  }

  int reported = 0;
  {
    std::unique_lock lock(job.mutex);
    for (;;) {
      job.changed.wait(
          lock, [&] { return job.running == 0 || job.percent(job.bytesDone.load()) > reported; });
      const int now = job.percent(job.bytesDone.load());
      if (now > reported) {
        reported = now;
        if (progress && now < 100 && !job.failed.load()) {
          lock.unlock();
          progress(static_cast<float>(now) / 100.0f);
          lock.lock();
        }
      }
      if (job.running == 0) break;
    }
  }
  for (auto& thread : threads) thread.join();
  if (job.failed.load()) return job.error;
  if (progress) progress(1.0f);
  return std::nullopt;
}
