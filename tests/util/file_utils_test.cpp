#include "tavo/ZMFileUtils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/TestSupport.h"
#include "tavo/ZMError.h"
#include "tavo/ZMException.h"

namespace fs = std::filesystem;

namespace {

// Permission checks never fail for root, which is how the suite usually runs. For one scope this
// drops the real and effective ids to nobody and keeps root as the saved id, which brings them
// back. Files are prepared before, while still privileged.
class Unprivileged {
 public:
  explicit Unprivileged(const std::string& reachable) {
    if (::geteuid() != 0) {
      usable_ = true;
      return;
    }
    constexpr uid_t kNobody = 65534;
    ::chmod(reachable.c_str(), 0755);
    if (::setresgid(kNobody, kNobody, 0) != 0) return;
    if (::setresuid(kNobody, kNobody, 0) != 0) {
      (void)::setresgid(0, 0, 0);
      return;
    }
    dropped_ = true;
    usable_ = ::access(reachable.c_str(), R_OK | X_OK) == 0;
  }
  ~Unprivileged() {
    if (!dropped_) return;
    if (::setresuid(0, 0, 0) != 0 || ::setresgid(0, 0, 0) != 0) std::abort();
  }
  bool usable() const { return usable_; }

 private:
  bool dropped_ = false;
  bool usable_ = false;
};

}  // namespace

TEST(ZMFileUtils, IsExistTreatsEmptyPathAsMissing) {
  TempDir dir;
  WriteFile(dir / "file", "x");
  fs::create_symlink(dir / "nowhere", dir / "dangling");

  EXPECT_FALSE(ZMFileUtils::isExist(""));  // even though "" could mean the current directory
  EXPECT_FALSE(ZMFileUtils::isExist(dir / "missing"));
  EXPECT_FALSE(ZMFileUtils::isExist(dir / "dangling"));  // links are followed
  EXPECT_TRUE(ZMFileUtils::isExist(dir / "file"));
  EXPECT_TRUE(ZMFileUtils::isExist(dir.path()));
}

TEST(ZMFileUtils, ReadStringFromFile) {
  TempDir dir;
  LogCapture log;
  const std::string text = "h\u00e9llo \u4e16\u754c \U0001F600\n" + std::string("\0tail", 5);
  WriteFile(dir / "text", text);
  WriteFile(dir / "empty", "");

  EXPECT_EQ(ZMFileUtils::readStringFromFile(dir / "text"), text);
  EXPECT_EQ(ZMFileUtils::readStringFromFile(dir / "empty"), std::string());
  EXPECT_EQ(ZMFileUtils::readStringFromFile(dir / "missing"), std::nullopt);
  EXPECT_EQ(ZMFileUtils::readStringFromFile(""), std::nullopt);
  EXPECT_TRUE(log.lines().empty());

  // Bytes that are not UTF-8: a stray byte, an overlong "/", an encoded surrogate, a sequence cut
  // short at the end, and a code point above U+10FFFF.
  const std::string invalid[] = {"ok\xff", "\xc0\xaf", "\xed\xa0\x80", "end\xe2\x82",
                                 "\xf4\x90\x80\x80"};
  for (const auto& bytes : invalid) {
    WriteFile(dir / "bad", bytes);
    EXPECT_EQ(ZMFileUtils::readStringFromFile(dir / "bad"), std::nullopt);
  }
  const auto lines = log.startingWith("read file error: Error Domain=NSCocoaErrorDomain Code=261 ");
  EXPECT_EQ(lines.size(), std::size(invalid));
  EXPECT_EQ(log.lines().size(), std::size(invalid));

  // A directory exists but cannot be read.
  EXPECT_EQ(ZMFileUtils::readStringFromFile(dir.path()), std::nullopt);
  EXPECT_EQ(log.startingWith("read file error: Error Domain=NSCocoaErrorDomain").size(),
            std::size(invalid) + 1);
}

TEST(ZMFileUtils, ReadJSONObjectFromFile) {
  TempDir dir;
  LogCapture log;
  WriteFile(dir / "object.json", R"({"zeta": "z\/1", "alpha": {"n": [1, 2.5, null]}, "b": true})");
  WriteFile(dir / "array.json", R"([{"provider": "p", "version": "1.0"}])");

  const auto object = ZMFileUtils::readJSONObjectFromFile(dir / "object.json");
  ASSERT_TRUE(object.has_value());
  EXPECT_EQ(object->dump(), R"({"zeta":"z/1","alpha":{"n":[1,2.5,null]},"b":true})");
  const auto array = ZMFileUtils::readJSONObjectFromFile(dir / "array.json");
  ASSERT_TRUE(array.has_value());
  EXPECT_EQ((*array)[0]["version"], "1.0");
  EXPECT_EQ(ZMFileUtils::readJSONObjectFromFile(dir / "missing.json"), std::nullopt);
  EXPECT_EQ(ZMFileUtils::readJSONObjectFromFile(""), std::nullopt);
  EXPECT_TRUE(log.lines().empty());

  // Not a JSON document: truncated, empty, a bare scalar (only containers are documents).
  for (const char* content : {R"({"a": )", "", "42", R"("text")"}) {
    WriteFile(dir / "bad.json", content);
    EXPECT_EQ(ZMFileUtils::readJSONObjectFromFile(dir / "bad.json"), std::nullopt) << content;
  }
  EXPECT_EQ(log.startingWith("read json file error: Error Domain=NSCocoaErrorDomain Code=3840 ")
                .size(),
            4u);
  EXPECT_EQ(log.lines().size(), 4u);

  // Text that is not UTF-8 never reaches the JSON reader: only the read error is logged.
  WriteFile(dir / "latin1.json", "{\"name\": \"caf\xe9\"}");
  EXPECT_EQ(ZMFileUtils::readJSONObjectFromFile(dir / "latin1.json"), std::nullopt);
  EXPECT_EQ(log.startingWith("read file error: ").size(), 1u);
  EXPECT_EQ(log.lines().size(), 5u);
}

TEST(ZMFileUtils, EnsureDirExistsAndValidateDirectory) {
  TempDir dir;
  LogCapture log;
  const std::string file = dir / "file";
  WriteFile(file, "x");

  EXPECT_TRUE(ZMFileUtils::ensureDirExists(dir.path()));
  EXPECT_TRUE(ZMFileUtils::ensureDirExists(dir / "a/b/c"));
  EXPECT_TRUE(fs::is_directory(dir / "a/b/c"));
  EXPECT_NO_THROW(ZMFileUtils::validateDirectory(dir / "x/y"));
  EXPECT_TRUE(fs::is_directory(dir / "x/y"));
  EXPECT_NO_THROW(ZMFileUtils::validateDirectory(dir / "x/y"));
  EXPECT_TRUE(log.lines().empty());

  // A file in the way: the invalid-argument exception comes through validateDirectory unchanged.
  EXPECT_EQ(Raised([&] { ZMFileUtils::ensureDirExists(file); }),
            "NSInvalidArgumentException: " + file + " is a file");
  EXPECT_EQ(Raised([&] { ZMFileUtils::validateDirectory(file); }),
            "NSInvalidArgumentException: " + file + " is a file");
  EXPECT_TRUE(log.lines().empty());

  // Creation fails below a file: false and one log line; validateDirectory turns that into
  // "file no found".
  EXPECT_FALSE(ZMFileUtils::ensureDirExists(file + "/sub"));
  EXPECT_EQ(Raised([&] { ZMFileUtils::validateDirectory(file + "/sub"); }),
            "NSFileHandleOperationException: file no found");
  const auto lines = log.startingWith("creat Directory Failed. errorInfo:Error Domain=");
  EXPECT_EQ(lines.size(), 2u);
  EXPECT_EQ(log.lines().size(), 2u);
  EXPECT_NE(lines.front().find(file + "/sub"), std::string::npos) << lines.front();
  EXPECT_FALSE(ZMFileUtils::ensureDirExists(""));
  EXPECT_EQ(log.lines().size(), 3u);
}

TEST(ZMFileUtils, DeleteFile) {
  TempDir dir;
  LogCapture log;
  WriteFile(dir / "file", "x");
  WriteFile(dir / "tree/a/b/c.txt", "x");
  WriteFile(dir / "target/kept.txt", "x");
  fs::create_directory_symlink(dir / "target", dir / "link");

  EXPECT_TRUE(ZMFileUtils::deleteFile(dir / "missing"));
  EXPECT_TRUE(ZMFileUtils::deleteFile(""));
  EXPECT_TRUE(ZMFileUtils::deleteFile(dir / "file"));
  EXPECT_TRUE(ZMFileUtils::deleteFile(dir / "tree"));
  EXPECT_TRUE(ZMFileUtils::deleteFile(dir / "link"));  // the link goes, not what it points to
  EXPECT_EQ(ListDir(dir.path()), std::vector<std::string>{"target"});
  EXPECT_TRUE(Exists(dir / "target/kept.txt"));
  EXPECT_TRUE(log.lines().empty());
}

TEST(ZMFileUtils, DeleteFileInFolderKeepsOnlyFullPathsListed) {
  TempDir dir;
  LogCapture log;
  const std::string folder = dir / "cache";
  for (const char* name : {"a.zgp", "b.zgp", ".hidden", "sub/deep/file"}) {
    WriteFile(folder + "/" + name, "x");
  }

  ZMFileUtils::deleteFileInFolder(folder, {folder + "/a.zgp", folder + "/sub", dir / "other"});
  EXPECT_EQ(ListDir(folder), (std::vector<std::string>{"a.zgp", "sub"}));
  EXPECT_TRUE(Exists(folder + "/sub/deep/file"));

  // The keep list holds full paths, so bare names never match.
  ZMFileUtils::deleteFileInFolder(folder, {"a.zgp", "sub"});
  EXPECT_TRUE(ListDir(folder).empty());
  EXPECT_TRUE(fs::is_directory(folder));

  ZMFileUtils::deleteFileInFolder(dir / "missing", {});
  ZMFileUtils::deleteFileInFolder("", {});
  EXPECT_TRUE(log.lines().empty());
}

TEST(ZMFileUtils, IsDirectoryEmpty) {
  TempDir dir;
  fs::create_directory(dir / "empty");
  WriteFile(dir / "hidden/.keep", "");
  WriteFile(dir / "file", "x");

  EXPECT_TRUE(ZMFileUtils::isDirectoryEmpty(dir / "empty"));
  EXPECT_FALSE(ZMFileUtils::isDirectoryEmpty(dir / "hidden"));  // hidden entries count

  for (const auto& [path, reason] : std::vector<std::pair<std::string, std::string>>{
           {dir / "missing", " is not exist"},
           {dir / "file", " is not directory"},
           {"", " is not exist"}}) {
    EXPECT_EQ(Raised([&] { ZMFileUtils::isDirectoryEmpty(path); }),
              "NSInvalidArgumentException: " + path + reason);
  }
}

TEST(ZMFileUtils, PermissionFailures) {
  TempDir dir;
  LogCapture log;
  const std::string readOnly = dir / "read-only";
  WriteFile(readOnly + "/stuck.txt", "x");
  ::chmod(readOnly.c_str(), 0555);
  const std::string unlistable = dir / "unlistable";
  WriteFile(unlistable + "/entry", "x");
  ::chmod(unlistable.c_str(), 0311);
  WriteFile(dir / "secret.txt", "x");
  ::chmod((dir / "secret.txt").c_str(), 0);

  Unprivileged unprivileged(dir.path());
  if (!unprivileged.usable()) GTEST_SKIP() << "cannot run without privileges here";

  // An existing directory the process may not write into.
  EXPECT_EQ(Raised([&] { ZMFileUtils::validateDirectory(readOnly); }),
            "NSFileHandleOperationException: file no found");
  EXPECT_TRUE(log.lines().empty());

  EXPECT_FALSE(ZMFileUtils::deleteFile(readOnly + "/stuck.txt"));
  EXPECT_EQ(log.startingWith("delete file fail: Error Domain=NSCocoaErrorDomain Code=513 ").size(),
            1u);

  // Listing fails: the error object itself is thrown.
  try {
    ZMFileUtils::isDirectoryEmpty(unlistable);
    ADD_FAILURE() << "no error thrown";
  } catch (const ZMError& error) {
    EXPECT_EQ(error.domain, kZMCocoaErrorDomain);
    EXPECT_EQ(error.code, 257);
  }

  EXPECT_EQ(ZMFileUtils::readStringFromFile(dir / "secret.txt"), std::nullopt);
  EXPECT_EQ(log.startingWith("read file error: Error Domain=NSCocoaErrorDomain Code=257 ").size(),
            1u);
  EXPECT_EQ(ZMFileUtils::getFileMD5(dir / "secret.txt"), std::nullopt);
  EXPECT_EQ(log.lines().size(), 2u);
}

TEST(ZMFileUtils, GetFileMD5) {
  TempDir dir;
  LogCapture log;
  WriteFile(dir / "empty", "");
  WriteFile(dir / "abc", "abc");

  const auto missing = ZMFileUtils::getFileMD5(dir / "missing");
  ASSERT_TRUE(missing.has_value());  // empty, not null
  EXPECT_EQ(*missing, "");
  EXPECT_EQ(ZMFileUtils::getFileMD5(""), std::string());
  EXPECT_EQ(ZMFileUtils::getFileMD5(dir / "empty"), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(ZMFileUtils::getFileMD5(dir / "abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(ZMFileUtils::getFileMD5(dir.path()), std::nullopt);  // a directory cannot be read
  EXPECT_TRUE(log.lines().empty());
}

// Hosts call these today and get fixed answers; doing the work instead would change what they see.
TEST(ZMFileUtils, PlaceholdersKeepTheirFixedResultsAndTouchNothing) {
  TempDir dir;
  WriteFile(dir / "a.txt", "abc");
  fs::create_directory(dir / "sub");
  const std::string a = dir / "a.txt";
  const std::string b = dir / "b.txt";

  EXPECT_EQ(ZMFileUtils::readJSONArrayFromFile(a), ZMValue::array());
  EXPECT_EQ(ZMFileUtils::writeStringToFile(ZMValue("x")), "");
  EXPECT_FALSE(ZMFileUtils::isDirectory(dir / "sub"));
  EXPECT_FALSE(ZMFileUtils::deleteRecursive(dir / "sub"));
  EXPECT_FALSE(ZMFileUtils::isExcluded(a, {a}));
  EXPECT_FALSE(ZMFileUtils::renameFile(a, b));
  EXPECT_FALSE(ZMFileUtils::copyFile(a, b));
  EXPECT_EQ(ZMFileUtils::getFileName(a, true), "");
  EXPECT_EQ(ZMFileUtils::ensurePathEndsWithSlash(a), "");
  EXPECT_EQ(ZMFileUtils::removeLastSlash(a + "/"), "");
  const unsigned char bytes[] = {0xab, 0};
  EXPECT_EQ(ZMFileUtils::byteArrayToHex(bytes), "");
  EXPECT_EQ(ZMFileUtils::getStringMD5("abc"), "");
  EXPECT_FALSE(ZMFileUtils::isFileMD5Correct(a, "900150983cd24fb0d6963f7d28e17f72"));
  EXPECT_FALSE(ZMFileUtils::isAllFilesMD5Correct(dir.path(), ZMValue::array()));

  EXPECT_TRUE(fs::is_directory(dir / "sub"));
  EXPECT_TRUE(fs::exists(a));
  EXPECT_FALSE(fs::exists(b));
}
