#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "support/TestSupport.h"
#include "tavo/ZMFileMD5.h"

namespace {

// Takes ownership of the C result; null stays null.
std::optional<std::string> Digest(const std::string& path, size_t chunk) {
  char* hash = FileMD5HashCreateWithPath(path.c_str(), chunk);
  if (!hash) return std::nullopt;
  std::string text(hash);
  std::free(hash);
  return text;
}

std::size_t OpenDescriptors() {
  const auto entries = std::filesystem::directory_iterator("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace

TEST(FileMD5HashCreateWithPath, DigestDoesNotDependOnTheChunkSize) {
  TempDir dir;
  std::string pattern(3 * 8192 + 5, '\0');  // three default chunks and a tail
  for (std::size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<char>((i * 31 + 7) % 251);
  const std::pair<std::string, const char*> vectors[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
      {pattern, "60fa3536c80ba6ae39f236d45d41f96d"},
      {std::string(1 << 20, '\0'), "b6d81b360a5672d80c27430f39153e2c"},
  };
  for (const auto& [content, expected] : vectors) {
    WriteFile(dir / "v", content);
    // 0 is the default 8192; the rest straddle it and the largest read that fits one buffer.
    for (const size_t chunk : {size_t{0}, size_t{63}, size_t{8191}, size_t{8193}, SIZE_MAX}) {
      EXPECT_EQ(Digest(dir / "v", chunk), expected) << content.size() << " bytes, chunk " << chunk;
    }
  }
}

TEST(FileMD5HashCreateWithPath, UnreadablePathsGiveNullAndNoDescriptorLeaks) {
  TempDir dir;
  WriteFile(dir / "file.bin", "abc");
  std::filesystem::create_directory(dir / "folder");
  const std::size_t before = OpenDescriptors();
  for (int round = 0; round < 20; ++round) {
    EXPECT_EQ(FileMD5HashCreateWithPath(nullptr, 0), nullptr);
    EXPECT_EQ(Digest("", 0), std::nullopt);
    EXPECT_EQ(Digest(dir / "missing.bin", 8192), std::nullopt);
    EXPECT_EQ(Digest(dir / "folder", 8192), std::nullopt);  // opens, but cannot be read
    EXPECT_EQ(Digest(dir / "file.bin", 1), "900150983cd24fb0d6963f7d28e17f72");
  }
  EXPECT_EQ(OpenDescriptors(), before);
}
