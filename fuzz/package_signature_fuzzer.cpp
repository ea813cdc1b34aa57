// Arbitrary bytes as a package's minisign signature file, and as a trusted key: each is refused
// or passed, never a crash, and no bytes but a real signature get a package past the check.
// The seeds are signatures of kPackage by the key kPublicKey, whose secret half was thrown away.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include "tavo/ZMOptionKeys.h"
#include "util/ZMPackageTrust.h"

namespace {

constexpr const char* kPublicKey = "RWTXbmITYccTYcxU4nJE9S4PtfVh1ymkczkxcT5193PZOvOWp29tk+l3";
constexpr const char* kPackage = "a package that the fuzzer verifies\n";
constexpr const char* kSignature =
    "untrusted comment: signature from minisign secret key\n"
    "RUTXbmITYccTYYO6Qh2y711Es06mecywqW3uB0X4T6e9fAKts1a4qxRHeOYTgMfOJsq6aODsLxptkHz521s2ePIZmZYkAt"
    "wk5AA=\n"
    "trusted comment: timestamp:0\tfile:package\thashed\n"
    "u+EHGCVHIXBAwtOAmx0dL/CbPwsIo56rGC5NMJmSr1KXqOBECbJ5IvRJvpl9HZ/KZ/ddnIG05PWC5zONa1Q1CA==\n";

std::string packagePath, otherPath;
ZMPackageTrust trust;

std::string TemporaryFile(const std::string& content) {
  char path[] = "/tmp/tavo-signature-fuzz-XXXXXX";
  const int fd = ::mkstemp(path);
  if (fd < 0) std::abort();
  ::close(fd);
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  packagePath = TemporaryFile(kPackage);
  otherPath = TemporaryFile(std::string(kPackage) + "changed\n");
  std::atexit([] {
    ::unlink(packagePath.c_str());
    ::unlink(otherPath.c_str());
  });
  trust = ZMPackageTrust::fromOptions({{ZM_KEY_PACKAGE_TRUSTED_KEYS, kPublicKey}});
  // A fuzzer that refuses everything would find nothing: the real signature must pass.
  if (trust.verify(kSignature, packagePath, "seed")) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  trust.verify(text, packagePath, "input");
  // Against other bytes, whatever the signature: only one made with the secret key over those
  // bytes could pass.
  if (!trust.verify(text, otherPath, "input")) std::abort();
  ZMSigningKey::parse(text);
  ZMPackageTrust::fromOptions({{ZM_KEY_PACKAGE_TRUSTED_KEYS, text}});
  return 0;
}
