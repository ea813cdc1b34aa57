#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "support/TestSupport.h"
#include "tavo/ZMFileMD5.h"

namespace {

// Takes ownership of the C result; null stays null.
std::optional<std::string> Digest(const std::string& path, size_t chunk) {
  const std::unique_ptr<char, decltype(&std::free)> hash(
      FileMD5HashCreateWithPath(path.c_str(), chunk), &std::free);
  return hash ? std::optional<std::string>(hash.get()) : std::nullopt;
}

std::size_t OpenDescriptors() {
  const auto entries = std::filesystem::directory_iterator("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace

TEST(FileMD5HashCreateWithPath, OneDigestForEveryChunkSizeNullWhenUnreadableNothingLeftOpen) {
  TempDir dir;
  const std::size_t descriptors = OpenDescriptors();
  // Over a megabyte and five bytes: every chunk size below leaves a tail.
  std::string pattern((1 << 20) + 5, '\0');
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    pattern[i] = static_cast<char>((i * 31 + 7) % 251);
  }
  const std::pair<std::string, const char*> vectors[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"}, {pattern, "8a7744196f3985b06c719b9999dc300c"}};
  for (const auto& [content, expected] : vectors) {
    WriteFile(dir / "v", content);
    // 0 is the default 8192; the rest straddle it, and SIZE_MAX is read a buffer at a time.
    for (const size_t chunk : {size_t{0}, size_t{63}, size_t{8191}, size_t{8193}, SIZE_MAX}) {
      EXPECT_EQ(Digest(dir / "v", chunk), expected) << content.size() << " bytes, chunk " << chunk;
    }
  }

  std::filesystem::create_directory(dir / "folder");
  EXPECT_EQ(FileMD5HashCreateWithPath(nullptr, 0), nullptr);
  EXPECT_EQ(Digest("", 0), std::nullopt);
  EXPECT_EQ(Digest(dir / "missing.bin", 8192), std::nullopt);
  EXPECT_EQ(Digest(dir / "folder", 8192), std::nullopt);  // opens, but cannot be read
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(Digest(dir / "fifo", 8192), std::nullopt);  // at once: nobody will ever write
  EXPECT_EQ(OpenDescriptors(), descriptors);
}
