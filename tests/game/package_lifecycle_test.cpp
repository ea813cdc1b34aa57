// A game package's install, the version check that reads what it recorded, and its removal.
#include <gtest/gtest.h>

#include "storage/ZMDatabaseHelper.h"
#include "storage/ZMPermissionUtil.h"
#include "support/TestRuntime.h"
#include "support/TestZip.h"
#include "util/ZMTaskGroup.h"

namespace {

using Events = std::vector<std::string>;

class ZMGameInstallPackageTask : public ::testing::Test {
 protected:
  TestRuntime t;
  const std::string package = t.root() + "/p.zip";

  Events install(const ZMValue& options) {
    auto listener = std::make_shared<InstallRecorder>();
    t.runtime->installGamePackage(options, listener);
    EXPECT_TRUE(RunUntil([&] { return listener->size() >= 2; }));
    return listener->events();
  }
  static ZMValue options(const std::string& appId, const std::string& version,
                         const std::string& package) {
    return {{ZM_KEY_GAME_PACKAGE_APP_ID, appId},
            {ZM_KEY_GAME_PACKAGE_VERSION, version},
            {ZM_KEY_GAME_PACKAGE_PATH, package}};
  }
  std::shared_ptr<ZMAppRow> record(const std::string& appId) {
    return ZMDatabaseHelper::getInstance().getAppRowByUserId("u1", appId);
  }
  static std::string detail(const std::string& appId, const std::string& version) {
    return "{\n  \"rt_game_package_app_id\" : \"" + appId +
           "\",\n  \"rt_game_package_version\" : \"" + version + "\"\n}";
  }
};

TEST_F(ZMGameInstallPackageTask, WholeGameReplacesEarlierVersionAndRecordsTheInstall) {
  const std::string v1 = t.root() + "/v1.zip", v2 = t.root() + "/v2.zip";
  MakeGamePackage(v1, R"({"deviceOrientation":"portrait"})", {{"assets/a.png", "AAAA"}});
  MakeGamePackage(v2, R"({"deviceOrientation":"landscape"})");
  auto first = options("g1", "1.0", v1);
  first[ZM_KEY_GAME_PACKAGE_EXTEND_DATA] = "extra-1";
  LogCapture log;
  EXPECT_EQ(install(first), (Events{"onInstallStart", "onInstallSuccess"}));
  EXPECT_TRUE(log.contains("unzip progress:1.000000"));
  EXPECT_EQ(ReadFile(t.app() + "/g1/1.0/assets/a.png"), "AAAA");
  EXPECT_FALSE(Exists(v1)) << "the package file is deleted after a successful install";
  EXPECT_EQ(ReadFile(t.app() + "/g1/detail.json"), detail("g1", "1.0"));

  // Permissions given meanwhile survive a reinstall; an absent extend leaves the stored one.
  ZMPermissionUtil("u1").updatePermission("g1", {"camera"}, {});
  EXPECT_EQ(install(options("g1", "2.0", v2)).back(), "onInstallSuccess");
  EXPECT_EQ(ListDir(t.app() + "/g1"), (Events{"2.0", "detail.json"}));
  EXPECT_EQ(ReadFile(t.app() + "/g1/detail.json"), detail("g1", "2.0"));
  EXPECT_EQ(record("g1")->auth_camera, 1);
  EXPECT_EQ(record("g1")->extend, "extra-1");
  EXPECT_EQ(ZMDatabaseHelper::getInstance().getPeopleCount("g1"), 1);
}

TEST_F(ZMGameInstallPackageTask, SubpackagesAppendTheirRootAndFallBackWithoutDetail) {
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  auto sub = options("g1", "1.0", package);
  sub[ZM_KEY_GAME_PACKAGE_SUBPACKAGE_ROOT] = "levels";
  for (int i = 0; i < 2; ++i) {
    MakeZip(package, {{"levels/l1.json", "{}"}});
    EXPECT_EQ(install(sub).back(), "onInstallSuccess");
  }
  EXPECT_TRUE(Exists(t.app() + "/g1/1.0/game.config.json")) << "a subpackage clears nothing";
  EXPECT_EQ(ReadFile(t.app() + "/g1/detail.json"),
            "{\n  \"rt_game_package_app_id\" : \"g1\",\n  \"rt_game_package_version\" : \"1.0\",\n"
            "  \"subpackages\" : [\n    \"levels\",\n    \"levels\"\n  ]\n}");

  // With no readable detail the file is rebuilt from the request and the root is not recorded.
  MakeZip(package, {{"extra/x.txt", "x"}});
  sub[ZM_KEY_GAME_PACKAGE_APP_ID] = "g2";
  EXPECT_EQ(install(sub).back(), "onInstallSuccess");
  EXPECT_EQ(ReadFile(t.app() + "/g2/detail.json"), detail("g2", "1.0"));
}

// An earlier version's files are there, but no record: a failure must not make one. (What the
// engine refuses, and that it writes nothing then, the engine's archive corpus shows.)
TEST_F(ZMGameInstallPackageTask, BadPackagesFailCleanly) {
  const std::string truncated = t.root() + "/truncated.zip";
  MakeGamePackage(truncated, "{}", {{"big.bin", std::string(200000, 'z')}});
  const std::string full = ReadFile(truncated);
  WriteFile(truncated, full.substr(0, full.size() / 2));
  WriteFile(t.app() + "/g1/1.0/main.js", "old");
  const auto events = install(options("g1", "2.0", truncated));
  ASSERT_EQ(events.size(), 2u);
  EXPECT_TRUE(events[1].starts_with("onInstallFailure:cannot open zip archive") &&
              events[1].ends_with("|-1"))
      << "the engine's message is passed on: " << events[1];
  EXPECT_TRUE(ListDir(t.app() + "/g1").empty()) << "a failed whole-game install leaves nothing";
  EXPECT_TRUE(Exists(truncated)) << "the package is kept";
  EXPECT_EQ(record("g1"), nullptr);

  ZMGameHandle::setInstance(nullptr);
  EXPECT_EQ(install(options("g1", "1.0", truncated)).back(),
            "onInstallFailure:no game engine is loaded to unzip the package|-1");
}

TEST_F(ZMGameInstallPackageTask, RefusedRequestsClearNothingAndKeepThePackage) {
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  MakeGamePackage(package, "{}");
  auto noVersion = options("g1", "", package);
  noVersion.erase(ZM_KEY_GAME_PACKAGE_VERSION);
  auto subpackage = options("g1", "", package);  // without a version it would land in the root
  subpackage[ZM_KEY_GAME_PACKAGE_SUBPACKAGE_ROOT] = "levels";
  const std::string bomb = t.root() + "/bomb.zip", big = t.root() + "/big.zip";
  const ZMValue unpackBig = options("g1", "2.0", big);
  MakeZip(bomb, {{"a.bin", std::string(1000, 'a')}});
  DeclareEntrySize(bomb, 200'000'000);
  MakeZip(big, {{"a.bin", std::string(5000, 'b')}, {"b.bin", RandomBytes(5000, 1)}});
  // A self-extracting stub before the entries, their offsets not adjusted: the limits read the
  // archive where the unzip does.
  const std::string stubbed = t.root() + "/stubbed.zip";
  WriteFile(stubbed, "#!/bin/sh\nexec unzip \"$0\"\n" + ReadFile(bomb));
  // Refusing `zip`, which would unpack to `bytes`, by the limit on size or (`ratio`) on ratio.
  const auto refusal = [](const std::string& zip, const std::string& bytes,
                          const std::string& limit, bool ratio) {
    return "package \"" + zip + "\" would unpack to " + bytes + " bytes" +
           (ratio ? " from " + std::to_string(std::filesystem::file_size(zip)) +
                        ", more than the limit of " + limit + " times its size"
                  : ", more than the limit of " + limit);
  };
  const std::vector<std::tuple<ZMValue, ZMValue, std::string>> cases{
      {{}, noVersion, "missing install option: ZM_KEY_GAME_PACKAGE_VERSION"},
      {{}, options("g1", "..", package), "invalid version: .."},
      {{}, subpackage, "missing install option: ZM_KEY_GAME_PACKAGE_VERSION"},
      // Unpack limits; by default no more than 1000 times the archive's size.
      {{}, options("g1", "2.0", bomb), refusal(bomb, "200000000", "1000", true)},
      {{}, options("g1", "2.0", stubbed), refusal(stubbed, "200000000", "1000", true)},
      {{{"rt_package_max_unpacked_bytes", "9999"}},
       unpackBig,
       refusal(big, "10000", "9999", false)},
      {{{"rt_package_max_compression_ratio", 1}}, unpackBig, refusal(big, "10000", "1", true)}};
  for (const auto& [limits, request, failure] : cases) {
    t.extraOptions = limits.is_null() ? ZMValue::object() : limits;
    t.switchUser("u1");
    EXPECT_EQ(install(request), (Events{"onInstallStart", "onInstallFailure:" + failure + "|-1"}));
    EXPECT_EQ(t.checkVersion("g1", "1.0"), "onCheckVersionSuccess");
    auto listed = ListDir(t.app() + "/g1");  // an unpack limit is read once 2.0 is made, empty
    EXPECT_TRUE(std::erase(listed, "2.0") == 0 || ListDir(t.app() + "/g1/2.0").empty());
    EXPECT_EQ(listed, (Events{"1.0", "detail.json"})) << failure;
    EXPECT_TRUE(Exists(t.app() + "/g1/1.0/game.config.json"));
    EXPECT_TRUE(Exists(request[ZM_KEY_GAME_PACKAGE_PATH].get<std::string>())) << failure;
  }
  // Limits set above what a package holds let it through, a stub before its entries or not.
  WriteFile(stubbed, "#!/bin/sh\nexec unzip \"$0\"\n" + ReadFile(big));
  t.extraOptions = {{"rt_package_max_unpacked_bytes", 10000},
                    {"rt_package_max_compression_ratio", "2"}};
  t.switchUser("u1");
  EXPECT_EQ(install(options("g1", "2.0", stubbed)).back(), "onInstallSuccess");
  EXPECT_EQ(ReadFile(t.app() + "/g1/2.0/a.bin"), std::string(5000, 'b'));
}

TEST_F(ZMGameInstallPackageTask, CancelSkipsOnlyTheFinalStep) {
  MakeGamePackage(package, "{}");
  auto listener = std::make_shared<InstallRecorder>();
  t.runtime->installGamePackage(options("g1", "1.0", package), listener);
  t.runtime->cancelGamePackageRequest();
  ASSERT_TRUE(RunUntil([&] { return Exists(t.app() + "/g1/detail.json"); }));
  DrainMainQueue();
  EXPECT_EQ(listener->events(), Events{"onInstallStart"});
  EXPECT_TRUE(Exists(t.app() + "/g1/1.0/game.config.json"));
  EXPECT_TRUE(Exists(package));
  EXPECT_EQ(record("g1"), nullptr);
}

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

  // A second check cancels the first, which is never heard of again, even while still held.
  const ZMValue options = {{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"},
                           {ZM_KEY_GAME_PACKAGE_VERSION, "1.0"}};
  auto listener = std::make_shared<CheckRecorder>();
  t.runtime->checkGameVersion(options, listener);
  const auto first = t.runtime->gameCheckTask();
  t.runtime->checkGameVersion(options, listener);
  ASSERT_TRUE(RunUntil([&] { return listener->size() >= 3; }));
  DrainMainQueue();
  EXPECT_EQ(listener->events(),
            (Events{"onCheckVersionStart", "onCheckVersionStart", "onCheckVersionSuccess"}));
  EXPECT_EQ(listener->threads().back(), std::this_thread::get_id()) << "on the main thread";
}

TEST(ZMGameUninstallPackageTask, RecordsGoBeforeFilesAndAFailedDeletionEndsTheRun) {
  TestRuntime t;
  auto listener = std::make_shared<RemoveRecorder>();
  t.runtime->removeGameList({}, listener);
  t.runtime->removeGameAll(listener);  // a user without records: same as an empty list
  DrainMainQueue();
  EXPECT_EQ(listener->size(), 0u);

  for (const char* appId : {"a2", "a3"}) ASSERT_TRUE(t.installGame(appId, "1"));
  auto& store = ZMDatabaseHelper::getInstance();

  // a2's record goes before its files, so it is gone though they stay; a3 is not reached.
  const std::string pinned = t.user() + "/u1_a2/data/d.bin";
  WriteFile(pinned, "d");
  if (!SetImmutable(pinned, true)) GTEST_SKIP() << "this file system has no immutable flag";
  std::shared_ptr<void> unpin(nullptr, [&](void*) { SetImmutable(pinned, false); });
  t.runtime->removeGameList({"a2", "a3"}, listener);
  ASSERT_TRUE(RunUntil([&] { return listener->last().starts_with("onRemoveSuccess"); }));
  EXPECT_EQ(listener->events(),
            (Events{"onRemoveStart:a2|(null)",
                    "onRemoveFailure:remove game file fail appId: a2 and extra: (null)|0",
                    "onRemoveSuccess:(null)"}));
  EXPECT_FALSE(store.getAppRowByUserId("u1", "a2"));
  EXPECT_TRUE(store.getAppRowByUserId("u1", "a3"));
  EXPECT_TRUE(Exists(t.app() + "/a3/1"));
}

TEST(ZMGameUninstallPackageTask, DoneWaitsForARemovalInFlightAndNothingReportsAfterwards) {
  TestRuntime t;
  auto& store = ZMDatabaseHelper::getInstance();
  for (const char* appId : {"a1", "a2", "a3", "a4"}) ASSERT_TRUE(t.installGame(appId, "1"));
  auto snapshot = [&] {
    Events state = ListDir(t.app());
    for (const char* appId : {"a1", "a2", "a3", "a4"})
      state.push_back(store.getAppRowByUserId("u1", appId) ? "row" : "-");
    return state;
  };

  // Queued behind a held pool: done() cancels it, and returns only once its block has been
  // skipped, so nothing is removed and nobody hears of it.
  auto release = HoldGlobalQueue();
  auto queued = std::make_shared<RemoveRecorder>();
  t.runtime->removeGameList({"a1", "a2"}, queued);
  const Events before = snapshot();
  auto ending = std::async(std::launch::async, [&] { t.runtime->done(); });
  ASSERT_TRUE(RunUntil([&] { return t.runtime->tasks()->hasEnded(); }));
  release.set_value();
  ending.get();
  DrainMainQueue();
  EXPECT_EQ(snapshot(), before);
  EXPECT_EQ(queued->size(), 0u);

  // Running when done() is called: whatever it removed, it removed before done() returned, and
  // it reports nothing, not even the end of the run.
  t.switchUser("u1");
  auto running = std::make_shared<RemoveRecorder>();
  t.runtime->removeGameList({"a1", "a2", "a3", "a4"}, running);
  t.runtime->done();
  const Events after = snapshot();
  DrainMainQueue();
  EXPECT_EQ(snapshot(), after);
  EXPECT_EQ(running->size(), 0u);
}

}  // namespace
