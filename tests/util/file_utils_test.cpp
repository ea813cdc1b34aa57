#include "tavo/ZMFileUtils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "support/TestSupport.h"
#include "tavo/ZMFileMD5.h"

namespace fs = std::filesystem;

namespace {

// Root passes every permission check, so a root process drops its real and effective ids to
// nobody for one scope; the saved ids stay root, to come back.
struct Unprivileged {
  const bool root = ::geteuid() == 0;
  const bool dropped =
      root && ::setresgid(65534, 65534, 0) == 0 && ::setresuid(65534, 65534, 0) == 0;
  ~Unprivileged() {
    if (root && (::setresuid(0, 0, 0) != 0 || ::setresgid(0, 0, 0) != 0)) std::abort();
  }
};

// Takes ownership of the C result; null stays null.
std::optional<std::string> Digest(const std::string& path, size_t chunk) {
  const std::unique_ptr<char, decltype(&std::free)> hash(
      FileMD5HashCreateWithPath(path.c_str(), chunk), &std::free);
  return hash ? std::optional<std::string>(hash.get()) : std::nullopt;
}

std::ptrdiff_t OpenDescriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

class ZMFileUtilsTest : public ::testing::Test {
 protected:
  TempDir dir;
  LogCapture log;
};

}  // namespace

TEST_F(ZMFileUtilsTest, ExistenceDigestAndDeletionInAndOfFolders) {
  for (const char* file : {"file", "tree/a/b/c.txt", "target/kept.txt"}) WriteFile(dir / file, "x");
  fs::create_directory_symlink(dir / "target", dir / "link");
  fs::create_symlink(dir / "nowhere", dir / "dangling");

  EXPECT_FALSE(ZMFileUtils::isExist(""));                // not the current directory
  EXPECT_FALSE(ZMFileUtils::isExist(dir / "dangling"));  // links are followed
  EXPECT_TRUE(ZMFileUtils::isExist(dir / "file"));
  EXPECT_EQ(ZMFileUtils::getFileMD5(dir / "file"), "9dd4e461268c8034f5c8564e155c67a6");
  EXPECT_EQ(ZMFileUtils::getFileMD5(dir / "missing"), std::string());  // empty, not null
  EXPECT_EQ(ZMFileUtils::getFileMD5(dir / "tree"), std::nullopt);      // a directory cannot be read

  // A link goes, not what it points to.
  for (const char* name : {"missing", "file", "tree", "link"}) {
    EXPECT_TRUE(ZMFileUtils::deleteFile(dir / name)) << name;
  }
  EXPECT_EQ(ListDir(dir.path()), (std::vector<std::string>{"dangling", "target"}));
  EXPECT_TRUE(Exists(dir / "target/kept.txt"));
  EXPECT_TRUE(log.lines().empty());

  // deleteFileInFolder keeps what is listed by full path; a bare name never matches.
  const std::string folder = dir / "cache";
  for (const char* name : {"a.zgp", "b.zgp", ".hidden", "sub/deep/file"}) {
    WriteFile(folder + "/" + name, "x");
  }
  ZMFileUtils::deleteFileInFolder(folder, {folder + "/a.zgp", folder + "/sub", dir / "other"});
  EXPECT_EQ(ListDir(folder), (std::vector<std::string>{"a.zgp", "sub"}));
  EXPECT_TRUE(Exists(folder + "/sub/deep/file"));
  ZMFileUtils::deleteFileInFolder(folder, {"a.zgp", "sub"});
  EXPECT_TRUE(ListDir(folder).empty());
}

TEST_F(ZMFileUtilsTest, ReadersRequireStrictUTF8AndJSONContainers) {
  const std::string text = "h\u00e9llo \u4e16\u754c \U0001F600\n" + std::string("\0tail", 5);
  WriteFile(dir / "text", text);
  EXPECT_EQ(ZMFileUtils::readStringFromFile(dir / "text"), text);
  EXPECT_EQ(ZMFileUtils::readStringFromFile(dir / "missing"), std::nullopt);
  // A FIFO where a file belongs is unreadable at once, not waited on.
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(ZMFileUtils::readStringFromFile(dir / "fifo"), std::nullopt);
  EXPECT_EQ(ZMFileUtils::readJSONObjectFromFile(dir / "fifo"), std::nullopt);

  // A stray byte, an overlong "/", an encoded surrogate, a cut sequence, a code point > U+10FFFF.
  const std::string invalid[] = {"ok\xff", "\xc0\xaf", "\xed\xa0\x80", "end\xe2\x82",
                                 "\xf4\x90\x80\x80"};
  for (const auto& bytes : invalid) {
    WriteFile(dir / "bad", bytes);
    EXPECT_EQ(ZMFileUtils::readStringFromFile(dir / "bad"), std::nullopt);
  }
  EXPECT_EQ(ZMFileUtils::readStringFromFile(dir.path()), std::nullopt);  // a directory
  // A file that opens but cannot be read: this process's memory at address 0.
  EXPECT_EQ(ZMFileUtils::readStringFromFile("/proc/self/mem"), std::nullopt);
  EXPECT_EQ(log.startingWith("read file error: Error Domain=NSCocoaErrorDomain Code=261 ").size(),
            std::size(invalid));

  // JSON: only an object or an array, strictly written.
  WriteFile(dir / "object.json", R"({"zeta": "z\/1", "alpha": {"n": [1, 2.5, null]}})");
  WriteFile(dir / "array.json", R"([{"version": "1.0"}])");
  EXPECT_EQ(ZMFileUtils::readJSONObjectFromFile(dir / "object.json")->dump(),
            R"({"zeta":"z/1","alpha":{"n":[1,2.5,null]}})");
  EXPECT_EQ((*ZMFileUtils::readJSONObjectFromFile(dir / "array.json"))[0]["version"], "1.0");
  EXPECT_EQ(ZMFileUtils::readJSONObjectFromFile(dir / "missing.json"), std::nullopt);

  const char* bad[] = {R"({"a": )",      "",         R"({"a": 1,})", "[1 2]",    "{} trailing",
                       "// comment\n{}", "{'a': 1}", "42",           R"("text")"};
  for (const char* content : bad) {
    WriteFile(dir / "bad.json", content);
    EXPECT_EQ(ZMFileUtils::readJSONObjectFromFile(dir / "bad.json"), std::nullopt) << content;
  }
  EXPECT_EQ(
      log.startingWith("read json file error: Error Domain=NSCocoaErrorDomain Code=3840 ").size(),
      std::size(bad));
  // One line for each bad file, the directory, the memory file and the FIFO's two reads; none
  // for good reads.
  EXPECT_EQ(log.lines().size(), std::size(invalid) + 2 + std::size(bad) + 2);
  EXPECT_EQ(log.startingWith("read file error: Error Domain=NSCocoaErrorDomain Code=256 \"Could "
                             "not read “/proc/self/mem”: Input/output error\"")
                .size(),
            1u);
}

TEST_F(ZMFileUtilsTest, DirectoriesAreMadeCheckedOrRefused) {
  const std::string file = dir / "file";
  WriteFile(file, "x");
  WriteFile(dir / "hidden/.keep", "");

  EXPECT_TRUE(ZMFileUtils::ensureDirExists(dir / "a/b/c"));
  EXPECT_NO_THROW(ZMFileUtils::validateDirectory(dir / "x/y"));
  for (const char* made : {"a/b/c", "x/y"}) EXPECT_TRUE(ZMFileUtils::isDirectoryEmpty(dir / made));
  EXPECT_FALSE(ZMFileUtils::isDirectoryEmpty(dir / "hidden"));  // hidden entries count
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(Raised([&] { ZMFileUtils::isDirectoryEmpty(dir / "missing"); }),
            "NSInvalidArgumentException: " + (dir / "missing") + " is not exist");
  EXPECT_EQ(Raised([&] { ZMFileUtils::isDirectoryEmpty(file); }),
            "NSInvalidArgumentException: " + file + " is not directory");

  // A file in the way: the invalid-argument exception comes through validateDirectory unchanged.
  const std::string isAFile = "NSInvalidArgumentException: " + file + " is a file";
  EXPECT_EQ(Raised([&] { ZMFileUtils::ensureDirExists(file); }), isAFile);
  EXPECT_EQ(Raised([&] { ZMFileUtils::validateDirectory(file); }), isAFile);
  // Creation fails below a file: false and one log line; validateDirectory makes it an exception.
  EXPECT_FALSE(ZMFileUtils::ensureDirExists(file + "/sub"));
  EXPECT_EQ(Raised([&] { ZMFileUtils::validateDirectory(file + "/sub"); }),
            "NSFileHandleOperationException: file no found");
  EXPECT_EQ(log.startingWith("creat Directory Failed. errorInfo:Error Domain=").size(), 2u);
  EXPECT_FALSE(ZMFileUtils::ensureDirExists(""));
}

TEST_F(ZMFileUtilsTest, PermissionFailures) {
  const std::string readOnly = dir / "read-only";
  WriteFile(readOnly + "/stuck.txt", "x");
  ::chmod(readOnly.c_str(), 0555);
  WriteFile(dir / "secret.txt", "x");
  ::chmod((dir / "secret.txt").c_str(), 0);

  ::chmod(dir.path().c_str(), 0755);
  Unprivileged unprivileged;
  if (::geteuid() == 0 || ::access(dir.path().c_str(), R_OK | X_OK) != 0) {
    GTEST_SKIP() << "cannot run without privileges here";
  }
  EXPECT_EQ(Raised([&] { ZMFileUtils::validateDirectory(readOnly); }),
            "NSFileHandleOperationException: file no found");
  EXPECT_FALSE(ZMFileUtils::deleteFile(readOnly + "/stuck.txt"));
  EXPECT_EQ(ZMFileUtils::readStringFromFile(dir / "secret.txt"), std::nullopt);
  EXPECT_EQ(log.startingWith("delete file fail: Error Domain=NSCocoaErrorDomain Code=513 ").size(),
            1u);
  EXPECT_EQ(log.startingWith("read file error: Error Domain=NSCocoaErrorDomain Code=257 ").size(),
            1u);
}

// Hosts rely on these fixed answers; doing the work instead would change what they see.
TEST_F(ZMFileUtilsTest, PlaceholdersKeepTheirFixedResultsAndTouchNothing) {
  WriteFile(dir / "a.txt", "abc");
  fs::create_directory(dir / "sub");
  const std::string a = dir / "a.txt", b = dir / "b.txt";
  const unsigned char bytes[] = {0xab, 0};

  EXPECT_EQ(ZMFileUtils::readJSONArrayFromFile(a), ZMValue::array());
  EXPECT_EQ((std::vector<std::string>{
                ZMFileUtils::writeStringToFile(ZMValue("x")), ZMFileUtils::getFileName(a, true),
                ZMFileUtils::ensurePathEndsWithSlash(a), ZMFileUtils::removeLastSlash(a + "/"),
                ZMFileUtils::byteArrayToHex(bytes), ZMFileUtils::getStringMD5("abc")}),
            std::vector<std::string>(6));
  EXPECT_EQ(
      (std::vector<bool>{ZMFileUtils::isDirectory(dir / "sub"),
                         ZMFileUtils::deleteRecursive(dir / "sub"), ZMFileUtils::isExcluded(a, {a}),
                         ZMFileUtils::renameFile(a, b), ZMFileUtils::copyFile(a, b),
                         ZMFileUtils::isFileMD5Correct(a, "900150983cd24fb0d6963f7d28e17f72"),
                         ZMFileUtils::isAllFilesMD5Correct(dir.path(), ZMValue::array())}),
      std::vector<bool>(7, false));
  EXPECT_EQ(ListDir(dir.path()), (std::vector<std::string>{"a.txt", "sub"}));
}

// FileMD5HashCreateWithPath, which getFileMD5 reads with.
TEST_F(ZMFileUtilsTest, MD5OneDigestForEveryChunkSizeNullWhenUnreadableNothingLeftOpen) {
  const std::ptrdiff_t descriptors = OpenDescriptors();
  // Over a megabyte and five bytes: every chunk size below leaves a tail.
  std::string pattern((1 << 20) + 5, '\0');
  for (std::size_t i = 0; char& c : pattern) c = static_cast<char>((i++ * 31 + 7) % 251);
  const std::pair<std::string, const char*> vectors[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"}, {pattern, "8a7744196f3985b06c719b9999dc300c"}};
  for (const auto& [content, expected] : vectors) {
    WriteFile(dir / "v", content);
    // 0 is the default 8192; the rest straddle it, and SIZE_MAX is read a buffer at a time.
    for (const size_t chunk : {size_t{0}, size_t{63}, size_t{8191}, size_t{8193}, SIZE_MAX}) {
      EXPECT_EQ(Digest(dir / "v", chunk), expected) << content.size() << " bytes, chunk " << chunk;
    }
  }

  EXPECT_EQ(FileMD5HashCreateWithPath(nullptr, 0), nullptr);
  EXPECT_EQ(Digest("", 0), std::nullopt);
  EXPECT_EQ(Digest(dir / "missing.bin", 8192), std::nullopt);
  EXPECT_EQ(Digest(dir.path(), 8192), std::nullopt);  // a directory opens, but cannot be read
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(Digest(dir / "fifo", 8192), std::nullopt);  // at once: nobody will ever write
  EXPECT_EQ(OpenDescriptors(), descriptors);
}
