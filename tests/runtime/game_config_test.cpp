#include <gtest/gtest.h>

#include "runtime/ZMGameConfig.h"
#include "runtime/ZMGameDetail.h"
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

TEST(ZMGameDetail, ReadsIdAndVersionOrNothing) {
  TempDir dir;
  WriteFile(dir / "detail.json",
            R"({"rt_game_package_app_id":"g1","rt_game_package_version":"1.0"})");
  ZMGameDetail detail(dir / "detail.json");
  EXPECT_EQ(detail.gameId(), "g1");
  EXPECT_EQ(detail.gameVersion(), "1.0");
  ZMGameDetail missing(dir / "none.json");
  EXPECT_FALSE(missing.detailObj());
  EXPECT_FALSE(missing.gameVersion());
  WriteFile(dir / "broken.json", "[1,");
  EXPECT_FALSE(ZMGameDetail(dir / "broken.json").gameId());
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

  // The detail names the version; a broken "game.config.json" there gives no configuration.
  WriteFile(t.app() + "/g1/1.0/game.config.json", "{");
  EXPECT_EQ(r.getGameConfig({{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"}}), nullptr);

  EXPECT_EQ(r.getGameConfig({{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"}, {ZM_KEY_GAME_PACKAGE_VERSION, "../x"}}),
            nullptr);
  EXPECT_FALSE(Exists(t.app() + "/x"));
}

}  // namespace
