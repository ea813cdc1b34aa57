#include <gtest/gtest.h>

#include "support/TestRuntime.h"
#include "support/TestSupport.h"

namespace {

// getGameConfig reads the version's game.config.json, the version named by detail.json when the
// host names none.
TEST(ZMGameRuntimeGetGameConfig, ReadsTheInstalledConfigurationOrGivesNothing) {
  TestRuntime t;
  const auto config = [&](const std::string& version = "") {
    ZMValue options = {{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"}};
    if (!version.empty()) options[ZM_KEY_GAME_PACKAGE_VERSION] = version;
    return t.runtime->getGameConfig(options);
  };
  EXPECT_EQ(config(), nullptr) << "no version and no detail file: nothing is installed";
  ASSERT_TRUE(t.installGame("g1", "1.0", R"({"deviceOrientation":"portrait"})"));
  ASSERT_TRUE(config());
  EXPECT_EQ(config()->deviceOrientation(), "portrait");

  // A version directory without "game.config.json" reads as all defaults (and is created).
  const auto defaults = config("9");
  ASSERT_TRUE(defaults);
  EXPECT_EQ(std::tuple(defaults->deviceOrientation(), defaults->showStatusBar(),
                       defaults->runtimeVersion(), defaults->subpackages(), defaults->plugins()),
            std::tuple("landscape", false, "", ZMValue::array(), ZMValue::array()));
  EXPECT_TRUE(Exists(t.app() + "/g1/9"));

  // Stored values; plug-ins in the object's own order, not sorted: zeta before alpha.
  const std::string file = t.app() + "/g1/1.0/game.config.json";
  WriteFile(file, R"({"runtimeVersion":"2.1","subpackages":["a"],"showStatusBar":"YES",)"
                  R"("plugins":{"zeta":{"version":"2"},"alpha":{"version":"1"}}})");
  EXPECT_TRUE(config()->showStatusBar());
  EXPECT_EQ(config()->runtimeVersion(), "2.1");
  EXPECT_EQ(config()->subpackages(), ZMValue::array({"a"}));
  EXPECT_EQ(config()->plugins(), (ZMValue{{{"version", "2"}}, {{"version", "1"}}}));

  // A broken configuration gives none. Found by fuzzing: the parser's message quotes bytes that
  // are not UTF-8, and logging the failure threw out of the read.
  LogCapture log;
  for (const std::string broken : {"{", "[1\xd0\x8e,\x16"}) {
    WriteFile(file, broken);
    EXPECT_EQ(config(), nullptr) << broken;
  }
  const auto lines = log.lines();
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
    return line.find("\xEF\xBF\xBD") != std::string::npos;
  })) << "the stray bytes are logged as U+FFFD";

  // Neither does a broken detail, nor one whose version is no text, nor an unsafe version.
  WriteFile(file, "{}");
  for (const std::string detail : {"[1,", R"({"rt_game_package_version":1})"}) {
    WriteFile(t.app() + "/g1/detail.json", detail);
    EXPECT_EQ(config(), nullptr) << detail;
  }
  EXPECT_EQ(config("../x"), nullptr);
  EXPECT_FALSE(Exists(t.app() + "/x"));
}

}  // namespace
