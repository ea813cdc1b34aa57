#include <gtest/gtest.h>

#include "support/TestRuntime.h"

namespace {

TEST(ZMGameCheckVersionTask, EveryMismatchIsOneErrorAndASecondCheckCancelsTheFirst) {
  TestRuntime t;
  const std::string detail = t.app() + "/g1/detail.json";
  EXPECT_EQ(t.checkVersion("g1", "1.0"), kVersionMismatch) << "nothing installed";
  for (const char* content :
       {R"({"rt_game_package_app_id":"g1","rt_game_package_version":"1.0 "})",
        R"({"rt_game_package_app_id":"other","rt_game_package_version":"1.0"})",
        R"({"rt_game_package_app_id":"g1","rt_game_package_version":1.0})",
        R"({"rt_game_package_app_id":1,"rt_game_package_version":"1.0"})", "[]", "not json"}) {
    WriteFile(detail, content);
    EXPECT_EQ(t.checkVersion("g1", "1.0"), kVersionMismatch) << content;
  }
  WriteFile(detail, R"({"rt_game_package_app_id":"g1","rt_game_package_version":"1.0"})");
  EXPECT_EQ(t.checkVersion("g1", "1.0.0"), kVersionMismatch) << "versions are texts, not numbers";
  EXPECT_EQ(t.checkVersion("g1", std::nullopt), kVersionMismatch);
  EXPECT_EQ(t.checkVersion("g1", "1.0"), "onCheckVersionSuccess");

  // A second check cancels the first, which is then never heard of, even while something
  // still holds it.
  const ZMValue options = {{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"},
                           {ZM_KEY_GAME_PACKAGE_VERSION, "1.0"}};
  auto listener = std::make_shared<CheckRecorder>();
  t.runtime->checkGameVersion(options, listener);
  const auto first = t.runtime->gameCheckTask();
  t.runtime->checkGameVersion(options, listener);
  ASSERT_TRUE(RunUntil([&] { return listener->size() >= 3; }));
  DrainMainQueue();
  EXPECT_EQ(listener->events(),
            (std::vector<std::string>{"onCheckVersionStart", "onCheckVersionStart",
                                      "onCheckVersionSuccess"}));
  EXPECT_EQ(listener->threads().back(), std::this_thread::get_id()) << "on the main thread";
}

}  // namespace
