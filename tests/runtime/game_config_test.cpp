#include <gtest/gtest.h>

#include "runtime/ZMGameConfig.h"
#include "support/TestRuntime.h"
#include "support/TestSupport.h"

namespace {

TEST(ZMGameConfig, DefaultsForEveryAbsentKeyAndPluginsInFileOrder) {
  TempDir dir;
  WriteFile(dir / "game.config.json",
            R"({"plugins":{"zeta":{"provider":"z","version":"2"},"alpha":{"provider":"a","version":"1"}}})");
  auto config = ZMGameConfig::createGameCofingWithPath(dir / "game.config.json");
  ASSERT_TRUE(config);
  EXPECT_EQ(config->deviceOrientation(), "landscape");
  EXPECT_FALSE(config->showStatusBar());
  EXPECT_EQ(config->runtimeVersion(), "");
  EXPECT_EQ(config->subpackages(), ZMValue::array());
  // The object's own order, not sorted: zeta before alpha.
  EXPECT_EQ(config->plugins(), (ZMValue{{{"provider", "z"}, {"version", "2"}},
                                        {{"provider", "a"}, {"version", "1"}}}));
}

TEST(ZMGameConfig, StoredValuesAndTruthOfShowStatusBar) {
  TempDir dir;
  for (const char* truthy : {"true", "1", "\"YES\""}) {
    WriteFile(dir / "c.json", std::string(R"({"deviceOrientation":"portrait","runtimeVersion":"2.1",)") +
                                  R"("subpackages":["a","b"],"showStatusBar":)" + truthy + "}");
    auto config = ZMGameConfig::createGameCofingWithPath(dir / "c.json");
    ASSERT_TRUE(config);
    EXPECT_TRUE(config->showStatusBar()) << truthy;
    EXPECT_EQ(config->deviceOrientation(), "portrait");
    EXPECT_EQ(config->runtimeVersion(), "2.1");
    EXPECT_EQ(config->subpackages(), (ZMValue{"a", "b"}));
  }
  WriteFile(dir / "c.json", R"({"showStatusBar":0})");
  EXPECT_FALSE(ZMGameConfig::createGameCofingWithPath(dir / "c.json")->showStatusBar());

  EXPECT_FALSE(ZMGameConfig::createGameCofingWithPath(""));
  EXPECT_FALSE(ZMGameConfig::createGameCofingWithPath(dir / "missing.json"));
  WriteFile(dir / "bad.json", "{not json");
  EXPECT_FALSE(ZMGameConfig::createGameCofingWithPath(dir / "bad.json"));
}

TEST(ZMGameRuntimeGetGameConfig, FindsTheInstalledConfiguration) {
  TestRuntime t;
  auto& r = *t.runtime;
  // No version and no detail file: nothing is installed.
  EXPECT_EQ(r.getGameConfig({{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"}}), nullptr);

  ASSERT_TRUE(t.installGame("g1", "1.0", R"({"deviceOrientation":"portrait","plugins":{}})"));
  auto config = r.getGameConfig({{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"}});
  ASSERT_TRUE(config);
  EXPECT_EQ(config->deviceOrientation(), "portrait");

  // A version directory without "game.config.json" reads as all defaults (and is created).
  auto other = r.getGameConfig({{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"}, {ZM_KEY_GAME_PACKAGE_VERSION, "9"}});
  ASSERT_TRUE(other);
  EXPECT_EQ(other->deviceOrientation(), "landscape");
  EXPECT_TRUE(Exists(t.app() + "/g1/9"));

  // The detail names the version; a broken "game.config.json" there gives no configuration,
  // and neither does a broken detail.
  WriteFile(t.app() + "/g1/1.0/game.config.json", "{");
  EXPECT_EQ(r.getGameConfig({{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"}}), nullptr);
  WriteFile(t.app() + "/g1/1.0/game.config.json", "{}");
  WriteFile(t.app() + "/g1/detail.json", "[1,");
  EXPECT_EQ(r.getGameConfig({{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"}}), nullptr);

  EXPECT_EQ(r.getGameConfig({{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"}, {ZM_KEY_GAME_PACKAGE_VERSION, "../x"}}),
            nullptr);
  EXPECT_FALSE(Exists(t.app() + "/x"));
}

}  // namespace
