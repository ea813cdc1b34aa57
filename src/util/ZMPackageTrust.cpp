#include "util/ZMPackageTrust.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "platform/ZMFileManager.h"
#include "platform/ZMFormat.h"
#include "tavo/ZMOptionKeys.h"

namespace {

constexpr std::string_view kUntrustedPrefix = "untrusted comment: ";
constexpr std::string_view kTrustedPrefix = "trusted comment: ";
constexpr std::string_view kRefusalPrefix = "package signature ";
constexpr std::size_t kSignatureBytes = 64;

// A signature file's parts, as minisign writes them.
struct Signature {
  bool prehashed = false;
  std::array<unsigned char, 8> keyId{};
  std::string signature;  // 64 bytes
  std::string_view trustedComment;
  std::string globalSignature;  // 64 bytes
};

// The `expected` bytes that `text` encodes in standard base64 with padding, written exactly as
// an encoder writes them; null for anything else (another length, a stray character, a
// non-zero padding bit).
std::optional<std::string> decodeBase64(std::string_view text, std::size_t expected) {
  const std::size_t encoded = 4 * ((expected + 2) / 3);
  if (text.size() != encoded) return std::nullopt;
  std::string bytes(encoded / 4 * 3, '\0');
  if (EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                      reinterpret_cast<const unsigned char*>(text.data()),
                      static_cast<int>(text.size())) < 0) {
    return std::nullopt;
  }
  bytes.resize(expected);
  std::string again(encoded + 1, '\0');
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(again.data()),
                  reinterpret_cast<const unsigned char*>(bytes.data()),
                  static_cast<int>(bytes.size()));
  if (std::string_view(again.data(), encoded) != text) return std::nullopt;
  return bytes;
}

// The lines of `text`, without their "\n" or "\r\n".
std::vector<std::string_view> linesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const auto end = text.find('\n');
    std::string_view line = text.substr(0, end);
    if (line.ends_with('\r')) line.remove_suffix(1);
    lines.push_back(line);
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return lines;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kSpace = " \t\r\n";
  const auto first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

std::optional<Signature> parseSignature(std::string_view text) {
  if (text.size() > ZMPackageTrust::kMaxSignatureBytes) return std::nullopt;
  // Lines after the fourth are not read, as minisign reads none.
  const auto lines = linesOf(text);
  if (lines.size() < 4 || !lines[0].starts_with(kUntrustedPrefix) ||
      !lines[2].starts_with(kTrustedPrefix)) {
    return std::nullopt;
  }
  const auto signature = decodeBase64(lines[1], 2 + 8 + kSignatureBytes);
  const auto global = decodeBase64(lines[3], kSignatureBytes);
  if (!signature || !global) return std::nullopt;
  Signature parsed;
  const std::string_view algorithm = std::string_view(*signature).substr(0, 2);
  if (algorithm != "ED" && algorithm != "Ed") return std::nullopt;
  parsed.prehashed = algorithm == "ED";
  std::copy_n(signature->begin() + 2, 8, parsed.keyId.begin());
  parsed.signature = signature->substr(10);
  parsed.trustedComment = lines[2].substr(kTrustedPrefix.size());
  parsed.globalSignature = *global;
  return parsed;
}

bool ed25519Verifies(const ZMSigningKey& key, std::string_view signature,
                     const unsigned char* message, std::size_t length) {
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> publicKey(
      EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, key.publicKey.data(),
                                  key.publicKey.size()),
      EVP_PKEY_free);
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        EVP_MD_CTX_free);
  if (!publicKey || !context ||
      EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, publicKey.get()) != 1) {
    return false;
  }
  return EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(signature.data()),
                          signature.size(), message, length) == 1;
}

// Owns a descriptor.
struct File {
  int fd = -1;
  explicit File(const std::string& path) : fd(ZMFileManager::openRegularFile(path, true)) {}
  ~File() {
    if (fd >= 0) ::close(fd);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
};

// The BLAKE2b-512 of the file at `path`, read in pieces; null when it cannot be read.
std::optional<std::string> blake2bOfFile(const std::string& path) {
  File file(path);
  if (file.fd < 0) return std::nullopt;
  ::posix_fadvise(file.fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        EVP_MD_CTX_free);
  if (!context || EVP_DigestInit_ex(context.get(), EVP_blake2b512(), nullptr) != 1) {
    return std::nullopt;
  }
  std::string buffer(256 * 1024, '\0');
  for (;;) {
    const ssize_t n = ::read(file.fd, buffer.data(), buffer.size());
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    if (EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(n)) != 1) {
      return std::nullopt;
    }
  }
  std::string digest(EVP_MAX_MD_SIZE, '\0');
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(context.get(), reinterpret_cast<unsigned char*>(digest.data()), &length) !=
      1) {
    return std::nullopt;
  }
  digest.resize(length);
  return digest;
}

// A legacy signature covers the whole file, and Ed25519 takes its message at once: the file is
// mapped, not read into memory.
bool legacyVerifies(const ZMSigningKey& key, std::string_view signature, const std::string& path) {
  File file(path);
  struct stat info {};
  if (file.fd < 0 || ::fstat(file.fd, &info) != 0) return false;
  const auto size = static_cast<std::size_t>(info.st_size);
  if (size == 0) return ed25519Verifies(key, signature, nullptr, 0);
  void* mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file.fd, 0);
  if (mapped == MAP_FAILED) return false;
  ::madvise(mapped, size, MADV_SEQUENTIAL);
  const bool verified =
      ed25519Verifies(key, signature, static_cast<const unsigned char*>(mapped), size);
  ::munmap(mapped, size);
  return verified;
}

constexpr const char* kPrehashAttribute = "user.tavo.blake2b512";

// What identifies the file at `path` as it is now; empty when it cannot be looked at.
std::string fileState(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return {};
  return ZMFormat(
      "%@ %@ %@ %@.%@ %@.%@",
      {std::to_string(info.st_dev), std::to_string(info.st_ino), std::to_string(info.st_size),
       std::to_string(info.st_mtim.tv_sec), std::to_string(info.st_mtim.tv_nsec),
       std::to_string(info.st_ctim.tv_sec), std::to_string(info.st_ctim.tv_nsec)});
}

// The digest noted beside `signaturePath` for the package at `packagePath`, when the package is
// still the file it was noted for.
std::optional<std::string> recalledPrehash(const std::string& signaturePath,
                                           const std::string& packagePath) {
  char note[512];
  const ssize_t length = ::getxattr(signaturePath.c_str(), kPrehashAttribute, note, sizeof note);
  if (length <= 0) return std::nullopt;
  const std::string_view text(note, static_cast<std::size_t>(length));
  const auto space = text.rfind(' ');
  const std::string state = fileState(packagePath);
  if (space == std::string_view::npos || state.empty() || text.substr(0, space) != state) {
    return std::nullopt;
  }
  return decodeBase64(text.substr(space + 1), ZMPackageTrust::kPrehashBytes);
}

// The option's entries: one for a text or any other single value, each element of a list.
std::vector<ZMValue> keyEntries(const ZMValue& options) {
  if (!options.is_object()) return {};
  const auto it = options.find(ZM_KEY_PACKAGE_TRUSTED_KEYS);
  if (it == options.end() || it->is_null()) return {};
  if (it->is_array()) return std::vector<ZMValue>(it->begin(), it->end());
  return {*it};
}

bool namesNoKey(const ZMValue& entry) {
  return entry.is_string() && trimmed(entry.get_ref<const std::string&>()).empty();
}

}  // namespace

std::optional<ZMSigningKey> ZMSigningKey::parse(std::string_view text) {
  std::optional<std::string_view> keyLine;
  for (const auto line : linesOf(text)) {
    const auto content = trimmed(line);
    if (content.empty() || content.starts_with(trimmed(kUntrustedPrefix))) continue;
    if (keyLine) return std::nullopt;  // two candidates
    keyLine = content;
  }
  if (!keyLine) return std::nullopt;
  const auto bytes = decodeBase64(*keyLine, 2 + 8 + 32);
  if (!bytes || !bytes->starts_with("Ed")) return std::nullopt;
  ZMSigningKey key;
  std::copy_n(bytes->begin() + 2, 8, key.id.begin());
  std::copy_n(bytes->begin() + 10, 32, key.publicKey.begin());
  return key;
}

std::string ZMSigningKey::idText(const std::array<unsigned char, 8>& id) {
  // minisign prints the id as a little-endian number, without leading zeros.
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (auto byte = id.rbegin(); byte != id.rend(); ++byte) {
    text += kDigits[*byte >> 4];
    text += kDigits[*byte & 0x0f];
  }
  const auto first = text.find_first_not_of('0');
  return first == std::string::npos ? "0" : text.substr(first);
}

ZMPackageTrust ZMPackageTrust::fromOptions(const ZMValue& options) {
  ZMPackageTrust trust;
  for (const auto& entry : keyEntries(options)) {
    if (namesNoKey(entry)) continue;
    trust.required_ = true;
    if (!entry.is_string()) continue;
    if (auto key = ZMSigningKey::parse(entry.get_ref<const std::string&>())) {
      trust.keys_.push_back(*key);
    }
  }
  return trust;
}

std::optional<std::string> ZMPackageTrust::invalidKey(const ZMValue& options) {
  for (const auto& entry : keyEntries(options)) {
    if (namesNoKey(entry)) continue;
    if (!entry.is_string()) return entry.dump();
    if (!ZMSigningKey::parse(entry.get_ref<const std::string&>())) {
      return entry.get<std::string>();
    }
  }
  return std::nullopt;
}

std::optional<ZMError> ZMPackageTrust::verify(std::string_view signature,
                                              const std::string& packagePath,
                                              const std::string& where,
                                              const std::optional<std::string>& prehash) const {
  if (!required_) return std::nullopt;
  const auto parsed = parseSignature(signature);
  if (!parsed) return invalid(where);
  const auto key = std::find_if(keys_.begin(), keys_.end(),
                                [&](const ZMSigningKey& k) { return k.id == parsed->keyId; });
  if (key == keys_.end()) return untrusted(parsed->keyId);
  // The cheap check first: the trusted comment, bound to the signature.
  std::string global = parsed->signature;
  global += parsed->trustedComment;
  if (!ed25519Verifies(*key, parsed->globalSignature,
                       reinterpret_cast<const unsigned char*>(global.data()), global.size())) {
    return invalid(where);
  }
  bool verified = false;
  if (parsed->prehashed) {
    const auto digest =
        prehash && prehash->size() == kPrehashBytes ? prehash : blake2bOfFile(packagePath);
    verified = digest && ed25519Verifies(*key, parsed->signature,
                                         reinterpret_cast<const unsigned char*>(digest->data()),
                                         digest->size());
  } else {
    verified = legacyVerifies(*key, parsed->signature, packagePath);
  }
  if (!verified) return invalid(where);
  return std::nullopt;
}

std::optional<ZMError> ZMPackageTrust::verifyBeside(const std::string& name,
                                                    const std::string& packagePath) const {
  if (!required_) return std::nullopt;
  const std::string where = signatureOf(name);
  File file(where);
  if (file.fd < 0) return missing(where);
  // One byte more than a signature may have tells a file that is too long.
  std::string text(kMaxSignatureBytes + 1, '\0');
  std::size_t length = 0;
  while (length < text.size()) {
    const ssize_t n = ::read(file.fd, text.data() + length, text.size() - length);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      return invalid(where);
    }
    length += static_cast<std::size_t>(n);
  }
  text.resize(length);
  return verify(text, packagePath, where, recalledPrehash(where, packagePath));
}

void ZMPackageTrust::rememberPrehash(const std::string& packagePath,
                                     const std::string& blake2b512) {
  const std::string state = fileState(packagePath);
  if (state.empty() || blake2b512.size() != kPrehashBytes) return;
  std::string encoded(4 * kPrehashBytes / 3 + 4, '\0');
  encoded.resize(static_cast<std::size_t>(
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                      reinterpret_cast<const unsigned char*>(blake2b512.data()),
                      static_cast<int>(blake2b512.size()))));
  const std::string note = state + " " + encoded;
  ::setxattr(signatureOf(packagePath).c_str(), kPrehashAttribute, note.data(), note.size(), 0);
}

ZMError ZMPackageTrust::missing(const std::string& where) {
  return ZMError(ZMFormat("package signature missing: %@", {where}), 0);
}

ZMError ZMPackageTrust::invalid(const std::string& where) {
  return ZMError(ZMFormat("package signature invalid: %@", {where}), 0);
}

ZMError ZMPackageTrust::untrusted(const std::array<unsigned char, 8>& keyId) {
  return ZMError(ZMFormat("package signature untrusted: %@", {ZMSigningKey::idText(keyId)}), 0);
}

bool ZMPackageTrust::isRefusal(const ZMError& error) {
  return error.code == 0 && std::string_view(error.domain).starts_with(kRefusalPrefix);
}
