#include <gtest/gtest.h>

#include "runtime/ZMGameConfig.h"
#include "support/TestRuntime.h"
#include "support/TestSupport.h"

namespace {

TEST(ZMGameConfig, DefaultsStoredValuesAndPluginsInFileOrder) {
  TempDir dir;
  const std::string path = dir / "game.config.json";
  WriteFile(path, R"({"plugins":{"zeta":{"version":"2"},"alpha":{"version":"1"}}})");
  auto config = ZMGameConfig::createGameCofingWithPath(path);
  ASSERT_TRUE(config);
  EXPECT_EQ(config->deviceOrientation(), "landscape");
  EXPECT_FALSE(config->showStatusBar());
  EXPECT_EQ(config->runtimeVersion(), "");
  EXPECT_EQ(config->subpackages(), ZMValue::array());
  // The object's own order, not sorted: zeta before alpha.
  EXPECT_EQ(config->plugins(), (ZMValue{{{"version", "2"}}, {{"version", "1"}}}));

  WriteFile(path, R"({"runtimeVersion":"2.1","subpackages":["a"]})");
  config = ZMGameConfig::createGameCofingWithPath(path);
  EXPECT_EQ(config->runtimeVersion(), "2.1");
  EXPECT_EQ(config->subpackages(), ZMValue::array({"a"}));
  for (const std::string truth : {"true", "1", "\"YES\"", "0"}) {
    WriteFile(path, R"({"showStatusBar":)" + truth + "}");
    EXPECT_EQ(ZMGameConfig::createGameCofingWithPath(path)->showStatusBar(), truth != "0") << truth;
  }

  WriteFile(dir / "bad.json", "{not json");
  // Found by fuzzing: the parser's message quotes bytes that are not UTF-8, and logging the
  // failure threw out of the read.
  WriteFile(dir / "binary.json", "[1\xd0\x8e,\x16");
  LogCapture log;
  for (const std::string& missing :
       {std::string(), dir / "missing.json", dir / "bad.json", dir / "binary.json"}) {
    EXPECT_FALSE(ZMGameConfig::createGameCofingWithPath(missing)) << missing;
  }
  const auto lines = log.lines();
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
    return line.find("\xEF\xBF\xBD") != std::string::npos;
  })) << "the stray bytes are logged as U+FFFD";
}

TEST(ZMGameRuntimeGetGameConfig, FindsTheInstalledConfiguration) {
  TestRuntime t;
  const auto config = [&](const std::string& version = "") {
    ZMValue options = {{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"}};
    if (!version.empty()) options[ZM_KEY_GAME_PACKAGE_VERSION] = version;
    return t.runtime->getGameConfig(options);
  };
  EXPECT_EQ(config(), nullptr) << "no version and no detail file: nothing is installed";

  ASSERT_TRUE(t.installGame("g1", "1.0", R"({"deviceOrientation":"portrait"})"));
  ASSERT_TRUE(config());
  EXPECT_EQ(config()->deviceOrientation(), "portrait") << "the version named by detail.json";

  // A version directory without "game.config.json" reads as all defaults (and is created).
  ASSERT_TRUE(config("9"));
  EXPECT_EQ(config("9")->deviceOrientation(), "landscape");
  EXPECT_TRUE(Exists(t.app() + "/g1/9"));

  // A broken "game.config.json" gives no configuration, and neither does a broken detail.
  WriteFile(t.app() + "/g1/1.0/game.config.json", "{");
  EXPECT_EQ(config(), nullptr);
  WriteFile(t.app() + "/g1/1.0/game.config.json", "{}");
  for (const std::string detail : {"[1,", R"({"rt_game_package_version":1})"}) {
    WriteFile(t.app() + "/g1/detail.json", detail);
    EXPECT_EQ(config(), nullptr) << detail;  // a version that is no text names none
  }

  EXPECT_EQ(config("../x"), nullptr);
  EXPECT_FALSE(Exists(t.app() + "/x"));
}

}  // namespace
