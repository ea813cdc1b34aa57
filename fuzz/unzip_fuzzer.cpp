// Arbitrary bytes as a package: the unpack limits read the archive's directory, then the
// engine's extractor unpacks it into a scratch directory. Whatever the bytes, the extractor
// either fails or writes regular files and directories below the destination, and nothing else
// appears next to it.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "MerinZipExtractor.h"
#include "tavo/ZMLog.h"
#include "util/ZMPackageLimits.h"

namespace fs = std::filesystem;

namespace {

fs::path Scratch() {
  static const fs::path scratch = [] {
    std::string pattern = (fs::temp_directory_path() / "tavo-unzip-fuzz-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    return fs::path(pattern);
  }();
  return scratch;
}

void Check(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "unzip_fuzzer: %s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ZMLog::setSink([](std::string_view) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const fs::path box = Scratch() / "box";
  const fs::path zip = Scratch() / "in.zip";
  const fs::path dest = box / "dest";
  fs::remove_all(box);
  fs::create_directories(box);
  {
    std::ofstream out(zip, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  const bool withinLimits = !ZMPackageLimits{}.check(zip.string()).has_value();
  const auto failure = MerinExtractZip(zip.string(), dest.string(), nullptr, 1);

  for (const auto& entry : fs::directory_iterator(box)) {
    Check(entry.path() == dest, "something was written next to the destination");
  }
  if (fs::exists(dest)) {
    uint64_t written = 0;
    for (const auto& entry : fs::recursive_directory_iterator(dest)) {
      const auto status = entry.symlink_status();
      Check(fs::is_regular_file(status) || fs::is_directory(status),
            "the extractor made something other than a file or a directory");
      if (fs::is_regular_file(status)) written += entry.file_size();
    }
    // An archive within the limits never makes the extractor write past them.
    if (withinLimits) {
      Check(written <= ZMPackageLimits::kDefaultMaxUnpackedBytes, "wrote past the limits");
    }
  }
  (void)failure;
  return 0;
}
