#include "ZMZipArchive.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

namespace {

// The archive as libzip reads it: positioned reads (pread) from `base` on, through a read-ahead
// buffer that starts small after each seek and doubles while the reads go on in sequence.
// libzip asks for 8 KiB at a time; the stdio file source turns each request into a seek and two
// reads.
class PreadSource {
 public:
  static constexpr size_t kMinReadAhead = 16 * 1024;
  static constexpr size_t kMaxReadAhead = 256 * 1024;

  PreadSource(int fd, uint64_t base, uint64_t size) : fd_(fd), base_(base), size_(size) {
    zip_error_init(&error_);
  }
  ~PreadSource() {
    zip_error_fini(&error_);
    ::close(fd_);
  }

  static zip_int64_t callback(void* state, void* data, zip_uint64_t length,
                              zip_source_cmd_t command) {
    auto* self = static_cast<PreadSource*>(state);
    switch (command) {
      case ZIP_SOURCE_OPEN:
        self->offset_ = 0;
        return 0;
      case ZIP_SOURCE_READ:
        return self->read(static_cast<char*>(data), length);
      case ZIP_SOURCE_CLOSE:
        return 0;
      case ZIP_SOURCE_STAT: {
        auto* st = ZIP_SOURCE_GET_ARGS(zip_stat_t, data, length, &self->error_);
        if (st == nullptr) return -1;
        zip_stat_init(st);
        st->size = self->size_;
        st->valid |= ZIP_STAT_SIZE;
        return sizeof(zip_stat_t);
      }
      case ZIP_SOURCE_ERROR:
        return zip_error_to_data(&self->error_, data, length);
      case ZIP_SOURCE_FREE:
        delete self;
        return 0;
      case ZIP_SOURCE_SEEK: {
        const zip_int64_t offset =
            zip_source_seek_compute_offset(self->offset_, self->size_, data, length, &self->error_);
        if (offset < 0) return -1;
        self->offset_ = static_cast<uint64_t>(offset);
        return 0;
      }
      case ZIP_SOURCE_TELL:
        return static_cast<zip_int64_t>(self->offset_);
      case ZIP_SOURCE_SUPPORTS:
        return zip_source_make_command_bitmap(
            ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE, ZIP_SOURCE_STAT, ZIP_SOURCE_ERROR,
            ZIP_SOURCE_FREE, ZIP_SOURCE_SEEK, ZIP_SOURCE_TELL, ZIP_SOURCE_SUPPORTS, -1);
      default:
        zip_error_set(&self->error_, ZIP_ER_OPNOTSUPP, 0);
        return -1;
    }
  }

 private:
  zip_int64_t read(char* out, uint64_t length) {
    length = std::min(length, size_ - std::min(offset_, size_));
    uint64_t done = 0;
    while (done < length) {
      if (offset_ >= bufferStart_ && offset_ < bufferStart_ + bufferLength_) {
        const uint64_t count = std::min(length - done, bufferStart_ + bufferLength_ - offset_);
        std::memcpy(out + done, buffer_.data() + (offset_ - bufferStart_), count);
        done += count;
        offset_ += count;
        continue;
      }
      const bool sequential = offset_ == bufferStart_ + bufferLength_;
      readAhead_ = sequential ? std::min(readAhead_ * 2, kMaxReadAhead) : kMinReadAhead;
      const uint64_t wanted = length - done;
      const bool direct = wanted >= readAhead_;
      if (!direct && buffer_.empty()) buffer_.resize(kMaxReadAhead);
      char* target = direct ? out + done : buffer_.data();
      const uint64_t count = direct ? wanted : std::min<uint64_t>(readAhead_, size_ - offset_);
      const ssize_t got = ::pread(fd_, target, count, static_cast<off_t>(base_ + offset_));
      if (got < 0) {
        if (errno == EINTR) continue;
        zip_error_set(&error_, ZIP_ER_READ, errno);
        return -1;
      }
      if (got == 0) break;  // the file shrank
      bufferStart_ = offset_;
      bufferLength_ = direct ? 0 : static_cast<uint64_t>(got);
      if (direct) {
        bufferStart_ += static_cast<uint64_t>(got);
        done += static_cast<uint64_t>(got);
        offset_ += static_cast<uint64_t>(got);
      }
    }
    return static_cast<zip_int64_t>(done);
  }

  const int fd_;
  const uint64_t base_;
  const uint64_t size_;
  uint64_t offset_ = 0;
  std::vector<char> buffer_;
  uint64_t bufferStart_ = 0;
  uint64_t bufferLength_ = 0;
  size_t readAhead_ = kMinReadAhead;
  zip_error_t error_;
};

// Little-endian fields of the records at the end of an archive.
uint64_t Field(std::string_view bytes, size_t at, size_t width) {
  uint64_t value = 0;
  for (size_t i = width; i-- > 0;) value = (value << 8) | static_cast<unsigned char>(bytes[at + i]);
  return value;
}

std::string ReadAt(int fd, uint64_t offset, size_t length) {
  std::string bytes(length, '\0');
  size_t done = 0;
  while (done < length) {
    const ssize_t got =
        ::pread(fd, bytes.data() + done, length - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    done += static_cast<size_t>(got);
  }
  bytes.resize(done);
  return bytes;
}

bool HasSignature(int fd, uint64_t offset, std::string_view signature) {
  return ReadAt(fd, offset, signature.size()) == signature;
}

constexpr std::string_view kEndSignature("PK\5\6", 4);
constexpr std::string_view kZip64EndSignature("PK\6\6", 4);
constexpr std::string_view kZip64LocatorSignature("PK\6\7", 4);
constexpr std::string_view kCentralSignature("PK\1\2", 4);
constexpr std::string_view kLocalSignature("PK\3\4", 4);
// Stands before a central directory that is encrypted.
constexpr std::string_view kArchiveExtraDataSignature("PK\6\10", 4);
constexpr size_t kEndLength = 22;
constexpr size_t kZip64EndLength = 56;
constexpr size_t kZip64LocatorLength = 20;

// Where the central directory is, as the records at the end of the archive say and as they
// sit in the file.
struct Directory {
  uint64_t offset = 0;  // as recorded
  uint64_t size = 0;
  uint64_t end = 0;            // where it actually ends: the first end record after it
  unsigned versionNeeded = 0;  // of the Zip64 end record, when there is one
  bool found = false;
};

Directory FindDirectory(int fd, uint64_t size) {
  Directory dir;
  const uint64_t tailLength =
      std::min<uint64_t>(size, 0xffff + kEndLength + kZip64LocatorLength + kZip64EndLength);
  const uint64_t tailStart = size - tailLength;
  const std::string tail = ReadAt(fd, tailStart, static_cast<size_t>(tailLength));
  if (tail.size() != tailLength || tailLength < kEndLength) return dir;
  // The last end record whose comment fits in the file.
  size_t at = tail.size() - kEndLength + 1;
  while (at-- > 0) {
    if (tail.compare(at, 4, kEndSignature) == 0 &&
        at + kEndLength + Field(tail, at + 20, 2) <= tail.size()) {
      break;
    }
  }
  if (at == std::string::npos) return dir;
  dir.found = true;
  dir.size = Field(tail, at + 12, 4);
  dir.offset = Field(tail, at + 16, 4);
  dir.end = tailStart + at;
  // A Zip64 end record sits right before its locator, which sits right before the end record.
  const size_t record = at - std::min(at, kZip64LocatorLength + kZip64EndLength);
  if (at >= kZip64LocatorLength + kZip64EndLength &&
      tail.compare(at - kZip64LocatorLength, 4, kZip64LocatorSignature) == 0 &&
      tail.compare(record, 4, kZip64EndSignature) == 0) {
    dir.versionNeeded = static_cast<unsigned>(Field(tail, record + 14, 2));
    dir.size = Field(tail, record + 40, 8);
    dir.offset = Field(tail, record + 48, 8);
    dir.end = tailStart + record;
  }
  return dir;
}

// How many bytes stand before the archive that its offsets do not count: the central directory
// ends where the end records begin, so it starts `size` bytes before them, and whatever lies
// before its recorded offset is a prefix. Kept only when the directory is found there and not at
// the recorded offset itself.
uint64_t PrefixLength(int fd, const Directory& dir) {
  if (!dir.found || dir.offset > dir.end || dir.size > dir.end - dir.offset) return 0;
  const uint64_t prefix = dir.end - dir.size - dir.offset;
  if (prefix == 0 || dir.size == 0 || HasSignature(fd, dir.offset, kCentralSignature)) return 0;
  const bool directoryThere = HasSignature(fd, dir.offset + prefix, kCentralSignature) ||
                              HasSignature(fd, dir.offset + prefix, kArchiveExtraDataSignature);
  return directoryThere ? prefix : 0;
}

// Whether the archive says its central directory is encrypted: the Zip64 end record needs
// version 6.2, the directory opens with an archive extra data record, or the first entry's
// header is masked (general purpose bit 13).
bool DirectoryEncrypted(int fd, const Directory& dir, uint64_t prefix) {
  if (!dir.found) return false;
  if (dir.versionNeeded % 256 >= 62) return true;
  if (HasSignature(fd, dir.offset + prefix, kArchiveExtraDataSignature)) return true;
  const std::string local = ReadAt(fd, prefix, 8);
  return local.size() == 8 && local.compare(0, 4, kLocalSignature) == 0 &&
         (Field(local, 6, 2) & 0x2000) != 0;
}

}  // namespace

zip_t* ZMOpenZipArchive(int fd, uint64_t size, std::string* error) {
  const Directory dir = FindDirectory(fd, size);
  const uint64_t prefix = PrefixLength(fd, dir);
  auto* state = new PreadSource(fd, prefix, size - prefix);
  zip_error_t zerror;
  zip_error_init(&zerror);
  zip_t* archive = nullptr;
  if (zip_source_t* source = zip_source_function_create(&PreadSource::callback, state, &zerror)) {
    archive = zip_open_from_source(source, ZIP_RDONLY, &zerror);
    if (archive == nullptr) {
      *error = DirectoryEncrypted(fd, dir, prefix)
                   ? "its central directory is encrypted, which is not supported"
                   : zip_error_strerror(&zerror);
      zip_source_free(source);  // frees `state` too
    }
  } else {
    *error = zip_error_strerror(&zerror);
    delete state;
  }
  zip_error_fini(&zerror);
  return archive;
}
