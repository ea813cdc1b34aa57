#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tavo/ZMValue.h"

// ZMPackageLimits bounds what fetching and unpacking one package (a game or a plug-in) may do:
// how often its download may be continued, the total size its entries declare, and that total
// over the size of the archive itself. The defaults
// are far beyond any real package and stop a small archive that would fill the disk. A host
// sets them with the runtime creation options ZM_KEY_PACKAGE_MAX_UNPACKED_BYTES and
// ZM_KEY_PACKAGE_MAX_COMPRESSION_RATIO. A value, read from any thread.
struct ZMPackageLimits {
  static constexpr uint64_t kDefaultMaxUnpackedBytes = uint64_t{4} << 30;  // 4 GiB
  static constexpr uint64_t kDefaultMaxCompressionRatio = 1000;

  uint64_t maxUnpackedBytes = kDefaultMaxUnpackedBytes;
  uint64_t maxCompressionRatio = kDefaultMaxCompressionRatio;
  // How often a package download may be continued after a failure
  // (ZM_KEY_DOWNLOAD_RESUME_ATTEMPTS); 0: never.
  int64_t downloadResumeAttempts = 0;

  // Each limit from its option when that is a positive whole number (or text reading as one);
  // anything else keeps the default.
  static ZMPackageLimits fromOptions(const ZMValue& options);

  // Reads only the archive's directory, before anything is unpacked: the refusal when the
  // package breaks a limit, nothing when it keeps them. An archive that cannot be read passes:
  // the unzip then reports why. The refusal names the package `name`, by default `zipPath`
  // (a package read under a private name is named by its shared one).
  std::optional<std::string> check(const std::string& zipPath, const std::string& name = {}) const;
};
