#include "util/ZMCoreFileUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace {

std::optional<std::vector<std::string>> Sorted(std::optional<std::vector<std::string>> names) {
  if (names) std::sort(names->begin(), names->end());
  return names;
}

}  // namespace

TEST(ZMCoreFileUtil, ListsTheNamesOfImmediateEntries) {
  TempDir dir;
  const std::string cache = dir / "cache";
  for (const char* name : {"1.0.0.zgp", ".partial", "unpacked/game/main.js"}) {
    WriteFile(cache + "/" + name, "x");
  }
  std::filesystem::create_directory(dir / "empty");
  WriteFile(dir / "file.zgp", "x");

  const std::vector<std::string> expected{".partial", "1.0.0.zgp", "unpacked"};
  EXPECT_EQ(Sorted(ZMCoreFileUtil::getCacheTempFileList(cache)), expected);
  EXPECT_EQ(Sorted(ZMCoreFileUtil::getCacheTempFileList(cache + "/")), expected);
  EXPECT_EQ(Sorted(ZMCoreFileUtil::_getAllSubPathWithCurrentPath(cache)), expected);

  const auto empty = ZMCoreFileUtil::getCacheTempFileList(dir / "empty");
  ASSERT_TRUE(empty.has_value());  // an empty array, not null
  EXPECT_TRUE(empty->empty());

  EXPECT_EQ(ZMCoreFileUtil::getCacheTempFileList(""), std::nullopt);
  EXPECT_EQ(ZMCoreFileUtil::getCacheTempFileList(dir / "missing"), std::nullopt);
  EXPECT_EQ(ZMCoreFileUtil::getCacheTempFileList(dir / "file.zgp"), std::nullopt);
  EXPECT_EQ(ZMCoreFileUtil::_getAllSubPathWithCurrentPath(""), std::nullopt);
}
