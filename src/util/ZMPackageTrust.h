#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tavo/ZMError.h"
#include "tavo/ZMValue.h"

// A minisign public key: the key id that signatures name, and the Ed25519 key.
struct ZMSigningKey {
  std::array<unsigned char, 8> id{};
  std::array<unsigned char, 32> publicKey{};

  // The base64 line of a minisign public key file ("RW..."), or the whole file (its comment
  // lines are passed over); null for anything else.
  static std::optional<ZMSigningKey> parse(std::string_view text);
  // The id as minisign prints it: upper-case hex digits, without leading zeros.
  static std::string idText(const std::array<unsigned char, 8>& id);
};

// ZMPackageTrust is what a runtime asks of a package before it is published in the package
// cache or unpacked: when the host named trusted keys (the creation option
// ZM_KEY_PACKAGE_TRUSTED_KEYS), a detached minisign signature by one of them, fetched from the
// package's URL + ".minisig" and kept beside the package as "<package path>.minisig". Without
// keys it asks nothing, and every package flow behaves as it always has.
//
// A signature passes as minisign's own verification passes it: the file has its four lines
// (untrusted comment, signature, trusted comment, global signature); the algorithm is the
// prehashed "ED" (Ed25519 over the package's BLAKE2b-512, minisign's default) or the legacy "Ed"
// (Ed25519 over the whole package, which is then mapped into memory); its key id is a trusted
// key's; that key's Ed25519 signature verifies over the package, and the global signature over
// the signature and the trusted comment. Anything else, however malformed, is a refusal.
//
// A value, read from any thread. Verification reads the whole package unless the signature is
// prehashed and the package's BLAKE2b-512 is known: off the main thread where it may.
class ZMPackageTrust {
 public:
  static constexpr std::string_view kSignatureSuffix = ".minisig";
  // A minisign signature is a few hundred bytes; its trusted comment is one line.
  static constexpr std::size_t kMaxSignatureBytes = 16 * 1024;
  static constexpr std::size_t kPrehashBytes = 64;  // BLAKE2b-512

  ZMPackageTrust() = default;

  // The keys of ZM_KEY_PACKAGE_TRUSTED_KEYS in `options`: a list of texts, or one text. Absent,
  // null, "" and [] name no key. An entry that is no key (see invalidKey) trusts nothing but
  // still makes signatures required, so a mistyped key never turns the check off.
  static ZMPackageTrust fromOptions(const ZMValue& options);
  // The first entry of the option that is not a minisign public key, as text; null when every
  // entry is one (or there is none).
  static std::optional<std::string> invalidKey(const ZMValue& options);

  bool requiresSignatures() const { return required_; }

  // Where the signature of the package at `packagePath` (or `packageUrl`) is.
  static std::string signatureOf(const std::string& packagePath) {
    return packagePath + std::string(kSignatureSuffix);
  }

  // Verifies the package at `packagePath` against the text of its signature file. `prehash` is
  // the package's BLAKE2b-512 (64 bytes) when already known, so a prehashed signature needs no
  // read of the package; otherwise it is read. `where` names the signature in the error. Null
  // when the package passes (and always when no signature is required).
  std::optional<ZMError> verify(std::string_view signature, const std::string& packagePath,
                                const std::string& where,
                                const std::optional<std::string>& prehash = std::nullopt) const;
  // The same with the signature read from signatureOf(packagePath).
  std::optional<ZMError> verifyBeside(const std::string& packagePath) const {
    return verifyBeside(packagePath, packagePath);
  }
  // The same for a package that is read under a second name of its own, `packagePath`, while its
  // signature is beside its shared name, `name`.
  std::optional<ZMError> verifyBeside(const std::string& name,
                                      const std::string& packagePath) const;

  // Notes the BLAKE2b-512 of the package at `packagePath` beside its signature (an extended
  // attribute of signatureOf(packagePath)), bound to the package file as it is now: device,
  // inode, size, modification and change times. verifyBeside, in this process or another, then
  // takes that digest instead of reading the package again while the file is unchanged; any
  // change to it moves its change time, which cannot be set back. Best effort: without the note
  // the package is read.
  static void rememberPrehash(const std::string& packagePath, const std::string& blake2b512);

  // The refusals, each with the text documented beside ZM_KEY_PACKAGE_TRUSTED_KEYS.
  static ZMError missing(const std::string& where);
  static ZMError invalid(const std::string& where);
  static ZMError untrusted(const std::array<unsigned char, 8>& keyId);
  // Whether `error` is one of those refusals.
  static bool isRefusal(const ZMError& error);

 private:
  bool required_ = false;
  std::vector<ZMSigningKey> keys_;
};
