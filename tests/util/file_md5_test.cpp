#include <gtest/gtest.h>
#include <unistd.h>

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
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

// 24581 bytes (three 8 KiB chunks and a tail) of a fixed pattern.
std::string Pattern() {
  std::string data(3 * 8192 + 5, '\0');
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>((i * 31 + 7) % 251);
  return data;
}
constexpr const char* kPatternMD5 = "60fa3536c80ba6ae39f236d45d41f96d";

}  // namespace

TEST(FileMD5HashCreateWithPath, MatchesReferenceDigests) {
  TempDir dir;
  const std::pair<std::string, const char*> vectors[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
      {std::string(1 << 20, '\0'), "b6d81b360a5672d80c27430f39153e2c"},
  };
  int index = 0;
  for (const auto& [content, expected] : vectors) {
    const std::string path = dir / ("v" + std::to_string(index++));
    WriteFile(path, content);
    EXPECT_EQ(Digest(path, 0), expected) << content.size() << " bytes";
  }
}

TEST(FileMD5HashCreateWithPath, ChunkSizeNeverChangesTheDigest) {
  TempDir dir;
  const std::string path = dir / "pattern.bin";
  WriteFile(path, Pattern());
  // 0 is the default 8192; the rest straddle the file's length, the default chunk and the
  // largest read that fits one stack buffer.
  for (const size_t chunk : {size_t{0}, size_t{1}, size_t{2}, size_t{63}, size_t{4097},
                             size_t{8191}, size_t{8192}, size_t{8193}, size_t{24581},
                             size_t{65537}, size_t{1} << 24, SIZE_MAX}) {
    EXPECT_EQ(Digest(path, chunk), kPatternMD5) << "chunk " << chunk;
  }
}

TEST(FileMD5HashCreateWithPath, FailsWithNullAndReleasesTheFile) {
  TempDir dir;
  const std::string file = dir / "file.bin";
  WriteFile(file, Pattern());
  const std::string folder = dir / "folder";
  std::filesystem::create_directory(folder);

  const std::size_t before = OpenDescriptors();
  for (int round = 0; round < 50; ++round) {
    EXPECT_EQ(FileMD5HashCreateWithPath(nullptr, 0), nullptr);
    EXPECT_EQ(Digest("", 0), std::nullopt);
    EXPECT_EQ(Digest(dir / "missing.bin", 8192), std::nullopt);
    EXPECT_EQ(Digest(folder, 8192), std::nullopt);  // opens, but cannot be read
    EXPECT_EQ(Digest(file, 4097), kPatternMD5);
  }
  EXPECT_EQ(OpenDescriptors(), before);
}
