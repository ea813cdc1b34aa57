#include <gtest/gtest.h>

#include "game/ZMGameCheckVersionTask.h"
#include "support/TestRuntime.h"
#include "support/TestSupport.h"

namespace {

const char* kMismatch = "onCheckVersionFailure:Error: version is not the same as local version|-1";

class ZMGameCheckVersionTaskTest : public ::testing::Test {
 protected:
  TestRuntime t;
  std::string check(const ZMValue& options) {
    auto listener = std::make_shared<CheckRecorder>();
    t.runtime->checkGameVersion(options, listener);
    EXPECT_TRUE(RunUntil([&] { return listener->size() >= 2; }));
    EXPECT_EQ(listener->events().front(), "onCheckVersionStart");
    return listener->last();
  }
  static ZMValue ask(const std::string& appId, const std::string& version) {
    return {{ZM_KEY_GAME_PACKAGE_APP_ID, appId}, {ZM_KEY_GAME_PACKAGE_VERSION, version}};
  }
};

TEST_F(ZMGameCheckVersionTaskTest, EveryKindOfMismatchIsTheSameError) {
  EXPECT_EQ(check(ask("g1", "1.0")), kMismatch) << "nothing installed";
  WriteFile(t.app() + "/g1/detail.json",
            R"({"rt_game_package_app_id":"g1","rt_game_package_version":"1.0 "})");
  EXPECT_EQ(check(ask("g1", "1.0")), kMismatch) << "trailing blank in the installed version";
  WriteFile(t.app() + "/g1/detail.json",
            R"({"rt_game_package_app_id":"other","rt_game_package_version":"1.0"})");
  EXPECT_EQ(check(ask("g1", "1.0")), kMismatch) << "another app id";
  WriteFile(t.app() + "/g1/detail.json", "not json");
  EXPECT_EQ(check(ask("g1", "1.0")), kMismatch) << "unreadable detail";
  WriteFile(t.app() + "/g1/detail.json",
            R"({"rt_game_package_app_id":"g1","rt_game_package_version":"1.0"})");
  EXPECT_EQ(check(ask("g1", "1.0.0")), kMismatch) << "versions are texts, not numbers";
  EXPECT_EQ(check({{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"}}), kMismatch) << "no version asked";
  EXPECT_EQ(check(ask("g1", "1.0")), "onCheckVersionSuccess");
}

TEST_F(ZMGameCheckVersionTaskTest, ASecondCheckCancelsTheFirst) {
  WriteFile(t.app() + "/g1/detail.json",
            R"({"rt_game_package_app_id":"g1","rt_game_package_version":"1.0"})");
  auto listener = std::make_shared<CheckRecorder>();
  t.runtime->checkGameVersion(ask("g1", "1.0"), listener);
  auto first = t.runtime->gameCheckTask();
  t.runtime->checkGameVersion(ask("g1", "1.0"), listener);
  EXPECT_TRUE(first->isCancel());
  ASSERT_TRUE(RunUntil([&] { return listener->size() >= 3; }));
  DrainMainQueue();
  EXPECT_EQ(listener->events(), (std::vector<std::string>{
                                   "onCheckVersionStart", "onCheckVersionStart",
                                   "onCheckVersionSuccess"}));
  EXPECT_EQ(listener->threads().back(), std::this_thread::get_id()) << "on the main thread";
}

}  // namespace
