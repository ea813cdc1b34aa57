#include <gtest/gtest.h>

#include "storage/ZMDatabaseHelper.h"
#include "support/TestRuntime.h"
#include "support/TestSupport.h"
#include "support/TestZip.h"

namespace {

class ZMGameInstallPackageTask : public ::testing::Test {
 protected:
  TestRuntime t;

  std::shared_ptr<InstallRecorder> install(const ZMValue& options) {
    auto listener = std::make_shared<InstallRecorder>();
    t.runtime->installGamePackage(options, listener);
    EXPECT_TRUE(RunUntil([&] { return listener->size() >= 2; }));
    return listener;
  }
  ZMValue options(const std::string& appId, const std::string& version,
                  const std::string& package) {
    return {{ZM_KEY_GAME_PACKAGE_APP_ID, appId},
            {ZM_KEY_GAME_PACKAGE_VERSION, version},
            {ZM_KEY_GAME_PACKAGE_PATH, package}};
  }
  // What checkGameVersion for g1 ends with.
  std::string check(const std::string& version) {
    auto listener = std::make_shared<CheckRecorder>();
    t.runtime->checkGameVersion(
        {{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"}, {ZM_KEY_GAME_PACKAGE_VERSION, version}}, listener);
    EXPECT_TRUE(RunUntil([&] { return listener->size() >= 2; }));
    return listener->last();
  }
  std::shared_ptr<ZMAppRow> record(const std::string& appId) {
    return ZMDatabaseHelper::getInstance().getAppRowByUserId("u1", appId);
  }
};

TEST_F(ZMGameInstallPackageTask, WholeGameReplacesEarlierVersionAndRecordsTheInstall) {
  const std::string v1 = t.root() + "/v1.zip", v2 = t.root() + "/v2.zip";
  MakeGamePackage(v1, R"({"deviceOrientation":"portrait"})", {{"assets/a.png", "AAAA"}});
  MakeGamePackage(v2, R"({"deviceOrientation":"landscape"})", {{"assets/b.png", "BBBB"}});

  const std::string mismatch =
      "onCheckVersionFailure:Error: version is not the same as local version|-1";
  EXPECT_EQ(check("1.0"), mismatch);

  auto options1 = options("g1", "1.0", v1);
  options1[ZM_KEY_GAME_PACKAGE_EXTEND_DATA] = "extra-1";
  LogCapture log;
  auto first = install(options1);
  EXPECT_EQ(first->events(), (std::vector<std::string>{"onInstallStart", "onInstallSuccess"}));
  const auto progress = log.startingWith("unzip progress:");
  ASSERT_FALSE(progress.empty());
  EXPECT_EQ(progress.back(), "unzip progress:1.000000");
  EXPECT_EQ(check("1.0"), "onCheckVersionSuccess");
  EXPECT_EQ(ReadFile(t.app() + "/g1/1.0/assets/a.png"), "AAAA");
  EXPECT_FALSE(Exists(v1)) << "the package file is deleted after a successful install";
  EXPECT_EQ(ReadFile(t.app() + "/g1/detail.json"),
            "{\n  \"rt_game_package_app_id\" : \"g1\",\n  \"rt_game_package_version\" : \"1.0\"\n}");
  ASSERT_TRUE(record("g1"));
  EXPECT_EQ(record("g1")->extend, "extra-1");

  // Permissions given meanwhile survive a reinstall; extend follows the new request (none).
  ZMRow row;
  row.user_id = "u1";
  row.app_id = "g1";
  row.auth_camera = 1;
  ASSERT_TRUE(ZMDatabaseHelper::getInstance().updateOrInsertAppRow(row));

  auto second = install(options("g1", "2.0", v2));
  EXPECT_EQ(second->last(), "onInstallSuccess");
  EXPECT_EQ(ListDir(t.app() + "/g1"), (std::vector<std::string>{"2.0", "detail.json"}));
  EXPECT_EQ(ReadFile(t.app() + "/g1/2.0/assets/b.png"), "BBBB");
  EXPECT_NE(ReadFile(t.app() + "/g1/detail.json").find("\"2.0\""), std::string::npos);
  EXPECT_EQ(check("1.0"), mismatch);
  EXPECT_EQ(check("2.0"), "onCheckVersionSuccess");
  EXPECT_EQ(t.runtime->getGameConfig({{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"}})->deviceOrientation(),
            "landscape");
  EXPECT_EQ(record("g1")->auth_camera, 1);
  EXPECT_EQ(record("g1")->extend, "extra-1") << "an absent extend leaves the stored one";
  EXPECT_EQ(ZMDatabaseHelper::getInstance().getPeopleCount("g1"), 1);
}

TEST_F(ZMGameInstallPackageTask, SubpackagesAppendTheirRootAndFallBackWithoutDetail) {
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  for (int i = 0; i < 2; ++i) {
    const std::string sub = t.root() + "/sub.zip";
    MakeZip(sub, {{"levels/l1.json", "{}"}});
    auto opts = options("g1", "1.0", sub);
    opts[ZM_KEY_GAME_PACKAGE_SUBPACKAGE_ROOT] = "levels";
    EXPECT_EQ(install(opts)->last(), "onInstallSuccess");
  }
  EXPECT_TRUE(Exists(t.app() + "/g1/1.0/game.config.json")) << "a subpackage clears nothing";
  EXPECT_EQ(ReadFile(t.app() + "/g1/detail.json"),
            "{\n  \"rt_game_package_app_id\" : \"g1\",\n  \"rt_game_package_version\" : \"1.0\",\n"
            "  \"subpackages\" : [\n    \"levels\",\n    \"levels\"\n  ]\n}");

  // With no readable detail the file is rebuilt from the request and the root is not recorded.
  const std::string sub = t.root() + "/sub2.zip";
  MakeZip(sub, {{"extra/x.txt", "x"}});
  auto opts = options("g2", "3.0", sub);
  opts[ZM_KEY_GAME_PACKAGE_SUBPACKAGE_ROOT] = "extra";
  EXPECT_EQ(install(opts)->last(), "onInstallSuccess");
  EXPECT_EQ(ReadFile(t.app() + "/g2/detail.json"),
            "{\n  \"rt_game_package_app_id\" : \"g2\",\n  \"rt_game_package_version\" : \"3.0\"\n}");
}

TEST_F(ZMGameInstallPackageTask, BadPackagesFailCleanlyAndWriteNothingOutside) {
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  const std::string truncated = t.root() + "/truncated.zip";
  MakeGamePackage(truncated, "{}", {{"big.bin", std::string(200000, 'z')}});
  const std::string full = ReadFile(truncated);
  WriteFile(truncated, full.substr(0, full.size() / 2));
  const std::string hostile = t.root() + "/hostile.zip";
  MakeZip(hostile, {{"game.config.json", "{}"}, {"../evil", "gotcha"}});

  for (const std::string& package : {t.root() + "/missing.zip", truncated, hostile}) {
    SCOPED_TRACE(package);
    const auto events = install(options("g1", "2.0", package))->events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0], "onInstallStart");
    // The engine's message is passed on.
    EXPECT_TRUE(events[1].starts_with("onInstallFailure:") && events[1].ends_with("|-1") &&
                events[1] != "onInstallFailure:|-1")
        << events[1];
    EXPECT_TRUE(ListDir(t.app() + "/g1").empty()) << "a failed whole-game install leaves nothing";
    EXPECT_EQ(Exists(package), package != t.root() + "/missing.zip") << "the package is kept";
  }
  EXPECT_FALSE(Exists(t.app() + "/g1/evil"));
  EXPECT_FALSE(Exists(t.app() + "/evil"));
  EXPECT_FALSE(Exists(t.root() + "/evil"));
  // The record of the earlier successful install is all there is.
  EXPECT_EQ(ZMDatabaseHelper::getInstance().getPeopleCount("g1"), 1);
}

TEST_F(ZMGameInstallPackageTask, MissingOrUnsafeIdsAreRefusedBeforeAnythingIsCleared) {
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  WriteFile(t.root() + "/sentinel", "keep");
  const std::string package = t.root() + "/p.zip";
  MakeGamePackage(package, "{}");

  ZMValue noVersion = {{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"}, {ZM_KEY_GAME_PACKAGE_PATH, package}};
  EXPECT_EQ(install(noVersion)->last(),
            "onInstallFailure:missing install option: ZM_KEY_GAME_PACKAGE_VERSION|-1");
  EXPECT_EQ(install(options("g1", "..", package))->last(), "onInstallFailure:invalid version: ..|-1");
  // A subpackage belongs to one version of one app: without them it would land in the app root.
  noVersion[ZM_KEY_GAME_PACKAGE_SUBPACKAGE_ROOT] = "levels";
  EXPECT_EQ(install(noVersion)->last(),
            "onInstallFailure:missing install option: ZM_KEY_GAME_PACKAGE_VERSION|-1");
  auto noApp = options("g1", "1.0", package);
  noApp.erase(ZM_KEY_GAME_PACKAGE_APP_ID);
  EXPECT_EQ(install(noApp)->last(),
            "onInstallFailure:missing install option: ZM_KEY_GAME_PACKAGE_APP_ID|-1");
  EXPECT_EQ(ListDir(t.app()), std::vector<std::string>{"g1"});
  EXPECT_EQ(ListDir(t.app() + "/g1"), (std::vector<std::string>{"1.0", "detail.json"}));
  EXPECT_TRUE(Exists(t.app() + "/g1/1.0/game.config.json"));
  EXPECT_EQ(ReadFile(t.root() + "/sentinel"), "keep");
  EXPECT_TRUE(Exists(package));
}

TEST_F(ZMGameInstallPackageTask, CancelSkipsOnlyTheFinalStep) {
  const std::string package = t.root() + "/p.zip";
  MakeGamePackage(package, "{}");
  auto listener = std::make_shared<InstallRecorder>();
  t.runtime->installGamePackage(options("g1", "1.0", package), listener);
  // The facade made the directories and called the start synchronously.
  EXPECT_EQ(listener->events(), std::vector<std::string>{"onInstallStart"});
  t.runtime->cancelGamePackageRequest();
  EXPECT_EQ(t.runtime->gameInstallTask(), nullptr);

  ASSERT_TRUE(RunUntil([&] { return Exists(t.app() + "/g1/detail.json"); }));
  DrainMainQueue();
  EXPECT_EQ(listener->events(), std::vector<std::string>{"onInstallStart"});
  EXPECT_TRUE(Exists(t.app() + "/g1/1.0/game.config.json"));
  EXPECT_TRUE(Exists(package));
  EXPECT_EQ(ZMDatabaseHelper::getInstance().getAppRowByUserId("u1", "g1"), nullptr);
}

TEST_F(ZMGameInstallPackageTask, NoEngineIsAnInstallFailure) {
  ZMGameHandle::setInstance(nullptr);
  const std::string package = t.root() + "/p.zip";
  MakeGamePackage(package, "{}");
  auto listener = install(options("g1", "1.0", package));
  EXPECT_EQ(listener->last(),
            "onInstallFailure:no game engine is loaded to unzip the package|-1");
}

}  // namespace
