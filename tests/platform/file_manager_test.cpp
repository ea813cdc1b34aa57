#include "platform/ZMFileManager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "support/TestSupport.h"

namespace fs = std::filesystem;

// A move between two file systems (the temporary directory is often a tmpfs, the caches a
// disk) cannot rename: it copies, and must then remove the source, or every download moved
// that way would leave a second copy behind.
TEST(ZMFileManager, MovesAcrossFileSystemsWithoutLeavingTheSource) {
  struct stat shm = {}, here = {};
  TempDir dir;
  if (::stat("/dev/shm", &shm) != 0 || ::stat(dir.path().c_str(), &here) != 0 ||
      shm.st_dev == here.st_dev) {
    GTEST_SKIP() << "needs /dev/shm on a file system of its own";
  }
  const fs::path other = fs::path("/dev/shm") / fs::path(dir.path()).filename();
  WriteFile(other / "file", "payload");
  WriteFile(other / "tree/a/b.txt", "deep");

  ZMError error;
  ASSERT_TRUE(ZMFileManager::moveItem(other / "file", dir / "file", &error)) << error.domain;
  ASSERT_TRUE(ZMFileManager::moveItem(other / "tree", dir / "tree", &error)) << error.domain;
  EXPECT_EQ(ReadFile(dir / "file"), "payload");
  EXPECT_EQ(ReadFile(dir / "tree/a/b.txt"), "deep");
  EXPECT_EQ(ListDir(other), std::vector<std::string>{}) << "the sources are gone";

  // Nothing is overwritten: a move onto an existing item fails and keeps both.
  WriteFile(other / "file", "second");
  EXPECT_FALSE(ZMFileManager::moveItem(other / "file", dir / "file", &error));
  EXPECT_EQ(error.code, 516);
  EXPECT_EQ(ReadFile(other / "file"), "second");
  EXPECT_EQ(ReadFile(dir / "file"), "payload");
  fs::remove_all(other);
}
