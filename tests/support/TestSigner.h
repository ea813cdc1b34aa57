#pragma once

#include <string>

#include "support/TestSupport.h"

// A throw-away minisign key pair, made and used by the real minisign tool (scripts/setup.sh
// installs it), in a directory of its own.
class TestSigner {
 public:
  TestSigner();

  // The base64 line of the public key ("RW..."), as a host passes it.
  const std::string& publicKey() const { return publicKey_; }
  // The key id as minisign prints it.
  std::string keyId() const;
  // Signs `file` into "<file>.minisig": prehashed (minisign's default) or legacy.
  void sign(const std::string& file, bool legacy = false) const;
  // The text of the signature that sign() would write for `file`, leaving none beside it.
  std::string signature(const std::string& file, bool legacy = false) const;

 private:
  TempDir dir_;
  std::string publicKey_;
};
