#include "tavo/ZMFileMD5.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "platform/ZMFileManager.h"

namespace {

// The one buffer every read of a digest goes through. A caller's chunk size up to this many bytes
// is read as one chunk; a larger one is read in pieces of this size, which gives the same digest
// and keeps a caller-chosen size from overflowing the stack.
constexpr size_t kMaxStackChunk = 64 * 1024;
constexpr size_t kDefaultChunk = 8192;

// Owns the descriptor and the digest context, so that every way out releases both.
struct DigestSession {
  int fd = -1;
  EVP_MD_CTX* context = nullptr;
  ~DigestSession() {
    if (context) EVP_MD_CTX_free(context);
    if (fd >= 0) ::close(fd);
  }
};

char* hexString(const unsigned char* digest, unsigned int length) {
  static constexpr char kDigits[] = "0123456789abcdef";
  char* out = static_cast<char*>(std::malloc(length * 2 + 1));
  if (!out) return nullptr;
  for (unsigned int i = 0; i < length; ++i) {
    out[2 * i] = kDigits[digest[i] >> 4];
    out[2 * i + 1] = kDigits[digest[i] & 0x0f];
  }
  out[length * 2] = '\0';
  return out;
}

}  // namespace

char* FileMD5HashCreateWithPath(const char* path, size_t chunkSize) {
  if (!path || !*path) return nullptr;
  const size_t chunk = std::min(chunkSize == 0 ? kDefaultChunk : chunkSize, kMaxStackChunk);

  DigestSession session;
  // Only regular files have a digest.
  session.fd = ZMFileManager::openRegularFile(path, true);
  if (session.fd < 0) return nullptr;
  ::posix_fadvise(session.fd, 0, 0, POSIX_FADV_SEQUENTIAL);

  session.context = EVP_MD_CTX_new();
  if (!session.context || EVP_DigestInit_ex(session.context, EVP_md5(), nullptr) != 1) {
    return nullptr;
  }

  unsigned char buffer[kMaxStackChunk];
  for (;;) {
    const ssize_t n = ::read(session.fd, buffer, chunk);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      return nullptr;  // a directory lands here too (EISDIR)
    }
    if (EVP_DigestUpdate(session.context, buffer, static_cast<size_t>(n)) != 1) return nullptr;
  }

  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(session.context, digest, &length) != 1) return nullptr;
  return hexString(digest, length);
}
