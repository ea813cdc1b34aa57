// The runtime's record operations (listGame, setGameData, removeGameAll) seen by a host, the
// refusal of app ids that could leave the storage roots by every operation that takes one, and
// two users sharing one set of roots.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>

#include "storage/ZMDatabaseHelper.h"
#include "support/TestRuntime.h"
#include "support/TestSupport.h"
#include "support/TestZip.h"

namespace {

namespace fs = std::filesystem;

// A listed game; without extend data the item holds the app id alone.
ZMValue item(const std::string& appId, const ZMValue& extend) {
  ZMValue item = {{ZM_KEY_GAME_ITEM_APP_ID, appId}};
  if (!extend.is_null()) item[ZM_KEY_GAME_ITEM_EXTEND] = extend;
  return item;
}

// Every entry under `root` by relative path: "dir", "link -> target" or the file's content.
// The record store's files change with every query; only their names are kept.
std::map<std::string, std::string> Snapshot(const std::string& root) {
  std::map<std::string, std::string> entries;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const std::string relative = fs::relative(entry.path(), root).string();
    if (entry.is_symlink()) {
      entries[relative] = "link -> " + fs::read_symlink(entry.path()).string();
    } else if (entry.is_directory()) {
      entries[relative] = "dir";
    } else {
      entries[relative] = relative.rfind("Documents/", 0) == 0 ? "" : ReadFile(entry.path());
    }
  }
  return entries;
}

class ZMGameRuntimeRecords : public ::testing::Test {
 protected:
  TestRuntime t;

  ZMDatabaseHelper& store() { return ZMDatabaseHelper::getInstance(); }
  std::shared_ptr<ZMAppRow> record(const std::string& userId, const std::string& appId) {
    return store().getAppRowByUserId(userId, appId);
  }
  ZMValue list() {
    auto listener = std::make_shared<ListRecorder>();
    t.runtime->listGame(listener);
    EXPECT_TRUE(RunUntil([&] { return listener->size() > 0; }));
    EXPECT_EQ(listener->events(), std::vector<std::string>{"onListGameSuccess"});
    return listener->items;
  }
  std::vector<std::string> setData(const std::string& appId, const ZMValue& info) {
    auto listener = std::make_shared<DataRecorder>();
    t.runtime->setGameData(appId, info, listener);
    EXPECT_TRUE(RunUntil([&] { return listener->size() > 0; }));
    return listener->events();
  }
  std::shared_ptr<RemoveRecorder> removeAll() {
    auto listener = std::make_shared<RemoveRecorder>();
    t.runtime->removeGameAll(listener);
    EXPECT_TRUE(RunUntil([&] { return listener->last().rfind("onRemoveSuccess", 0) == 0; }));
    return listener;
  }
  bool installWithExtend(const std::string& appId, const std::string& extend) {
    const std::string package = t.root() + "/" + appId + "-ext.zip";
    MakeGamePackage(package, "{}");
    return t.install(appId, "1.0", package, extend);
  }
  void makeUserDirs(const std::string& userId, const std::string& appId) {
    WriteFile(t.cache() + "/" + userId + "_" + appId + "/tmp/t.bin", "t");
    WriteFile(t.user() + "/" + userId + "_" + appId + "/data/d.bin", "d");
  }
};

TEST_F(ZMGameRuntimeRecords, ListGameReportsEveryRecordWithItsExtendOrNull) {
  EXPECT_EQ(list(), ZMValue::array());

  ASSERT_TRUE(installWithExtend("g1", "from-host"));
  ASSERT_TRUE(t.installGame("g2", "2.0"));
  EXPECT_EQ(list(), ZMValue::array({item("g1", "from-host"), item("g2", nullptr)}));

  // The items follow the records, not the app directories.
  fs::remove_all(t.app() + "/g1");
  EXPECT_EQ(list(), ZMValue::array({item("g1", "from-host"), item("g2", nullptr)}));
  ASSERT_TRUE(store().removeAppRow("u1", "g2"));
  EXPECT_EQ(list(), ZMValue::array({item("g1", "from-host")}));
}

TEST_F(ZMGameRuntimeRecords, SetGameDataStoresHostFieldsButNeverThePlayCount) {
  // An app without a record gets one, even from an empty info.
  ASSERT_FALSE(record("u1", "g9"));
  EXPECT_EQ(setData("g9", ZMValue::object()), std::vector<std::string>{"onGameDataSetSuccess"});
  auto row = record("u1", "g9");
  ASSERT_TRUE(row);
  EXPECT_EQ(row->user_id, "u1");
  EXPECT_FALSE(row->played);
  EXPECT_FALSE(row->extend);
  EXPECT_EQ(store().getPeopleCount("g9"), 1);
  EXPECT_EQ(list(), ZMValue::array({item("g9", nullptr)}));

  // A "played" in the info is no play: only launches count.
  EXPECT_EQ(setData("g9", {{"played", 40}}), std::vector<std::string>{"onGameDataSetSuccess"});
  EXPECT_FALSE(record("u1", "g9")->played);
  store().insertOrUpdateExtraAndPlay("u1", "g9", std::nullopt);
  ASSERT_EQ(record("u1", "g9")->played, 1);

  const ZMValue info = {{"played", 7},
                        {"extend", "level=3"},
                        {"reserve", "spare"},
                        {"auth_camera", 1},
                        {"auth_location", 0},
                        {"auth_record", 2},
                        {"auth_user_info", 1},
                        {"auth_write_photos_album", 1}};
  EXPECT_EQ(setData("g9", info), std::vector<std::string>{"onGameDataSetSuccess"});
  row = record("u1", "g9");
  EXPECT_EQ(row->played, 1);
  EXPECT_EQ(row->extend, "level=3");
  EXPECT_EQ(row->reserve, "spare");
  EXPECT_EQ(row->auth_camera, 1);
  EXPECT_EQ(row->auth_location, 0);
  EXPECT_EQ(row->auth_record, 2);
  EXPECT_EQ(row->auth_user_info, 1);
  EXPECT_EQ(row->auth_write_photos_album, 1);
  EXPECT_EQ(list(), ZMValue::array({item("g9", "level=3")}));

  // Keys left out, and values of the wrong kind, leave what is stored.
  EXPECT_EQ(setData("g9", {{"reserve", "next"}, {"auth_camera", "0"}, {"extend", 5}}),
            std::vector<std::string>{"onGameDataSetSuccess"});
  row = record("u1", "g9");
  EXPECT_EQ(row->reserve, "next");
  EXPECT_EQ(row->auth_camera, 1);
  EXPECT_EQ(row->extend, "level=3");
  EXPECT_EQ(row->auth_location, 0);
  EXPECT_EQ(store().getPeopleCount("g9"), 1) << "updated in place, not inserted again";

  // A store that cannot save is a failure.
  store().setSavesFailForTesting(true);
  EXPECT_EQ(setData("g10", {{"extend", "x"}}),
            std::vector<std::string>{"onGameDataSetFailure:set game data update database fail|0"});
  store().setSavesFailForTesting(false);
}

TEST_F(ZMGameRuntimeRecords, OnlyThePluginManagerNameIsAsked) {
  for (const std::string name : {"", "other", "Plugin_Manager", "plugin_manager ", "plugin"}) {
    EXPECT_EQ(t.runtime->getManager(name, ZMValue::object()), nullptr) << name;
  }
}

// Each bad id with every operation that takes an app id: the host hears the operation's own
// failure (a version check reads as not installed; getGameConfig quietly gives nothing), and
// nothing under the test's root changes: not the installed game, not files next to the roots
// that "..", "." or "../x" would reach, not the directory that "a/b" names.
TEST_F(ZMGameRuntimeRecords, AppIdsThatCouldLeaveTheRootsAreRefusedEverywhere) {
  ASSERT_TRUE(installWithExtend("g1", "kept"));
  makeUserDirs("u1", "g1");
  const std::string package = t.root() + "/p.zip";
  MakeGamePackage(package, "{}");
  WriteFile(t.root() + "/sentinel", "next to the roots");
  WriteFile(t.root() + "/x", "what ../x names from a root");
  WriteFile(t.root() + "/x.1.0.zgp", "where ../x would be downloaded");
  WriteFile(t.app() + "/a/b/keep", "inside a root");
  WriteFile(t.cache() + "/u1_a/b/keep", "inside a root");
  DrainMainQueue();
  const auto before = Snapshot(t.root());
  const auto viewController = std::make_shared<int>(1);

  struct Operation {
    std::string name;
    // Returns what the host hears.
    std::function<std::shared_ptr<EventLog>(const std::string&)> run;
    std::function<std::vector<std::string>(const std::string&)> expected;
  };
  auto refusal = [](const std::string& bad) { return "invalid app id: " + bad + "|-1"; };
  const std::string refused = "NSURLErrorDomain|-1004";  // nothing listens on port 9
  auto options = [&](const std::string& bad) {
    return ZMValue{{ZM_KEY_GAME_PACKAGE_APP_ID, bad},
                   {ZM_KEY_GAME_PACKAGE_VERSION, "1.0"},
                   {ZM_KEY_GAME_PACKAGE_PATH, package},
                   {ZM_KEY_GAME_PACKAGE_URL, "http://127.0.0.1:9/p.zip"}};
  };
  const std::vector<Operation> operations = {
      {"checkGameVersion",
       [&](const std::string& bad) {
         auto listener = std::make_shared<CheckRecorder>();
         t.runtime->checkGameVersion(options(bad), listener);
         return listener;
       },
       [&](const std::string&) {
         return std::vector<std::string>{
             "onCheckVersionStart",
             "onCheckVersionFailure:Error: version is not the same as local version|-1"};
       }},
      {"downloadGamePackage",
       [&](const std::string& bad) {
         auto listener = std::make_shared<DownloadRecorder>();
         t.runtime->downloadGamePackage(options(bad), listener);
         return listener;
       },
       [&](const std::string& bad) {
         // Only a separator could take the package file out of the cache; other names are
         // fetched, and fail like any other address that refuses.
         if (bad.find_first_of(std::string("/\0", 2)) == std::string::npos) {
           return std::vector<std::string>{"onDownloadStart", "onDownloadFailure:" + refused};
         }
         return std::vector<std::string>{"onDownloadStart", "onDownloadFailure:" + refusal(bad)};
       }},
      {"installGamePackage",
       [&](const std::string& bad) {
         auto listener = std::make_shared<InstallRecorder>();
         t.runtime->installGamePackage(options(bad), listener);
         return listener;
       },
       [&](const std::string& bad) {
         return std::vector<std::string>{
             "onInstallStart", "onInstallFailure:" + (bad.empty() ? "missing install option: "
                                                                    "ZM_KEY_GAME_PACKAGE_APP_ID|-1"
                                                                  : refusal(bad))};
       }},
      {"getGameConfig",
       [&](const std::string& bad) {
         LogCapture log;
         auto config = t.runtime->getGameConfig(options(bad));
         auto events = std::make_shared<EventLog>();
         for (auto& line : log.lines()) events->add(line);
         if (config) events->add("a configuration");
         return events;
       },
       [&](const std::string&) { return std::vector<std::string>{}; }},
      {"setGameData",
       [&](const std::string& bad) {
         auto listener = std::make_shared<DataRecorder>();
         t.runtime->setGameData(bad, {{"extend", "x"}, {"auth_camera", 1}}, listener);
         return listener;
       },
       [&](const std::string& bad) {
         return std::vector<std::string>{"onGameDataSetFailure:" + refusal(bad)};
       }},
      {"removeGameList",
       [&](const std::string& bad) {
         auto listener = std::make_shared<RemoveRecorder>();
         t.runtime->removeGameList({"g1", bad}, listener);
         return listener;
       },
       [&](const std::string& bad) {
         return std::vector<std::string>{"onRemoveFailure:" + refusal(bad),
                                         "onRemoveSuccess:(null)"};
       }},
      {"runGame",
       [&](const std::string& bad) {
         auto listener = std::make_shared<RunRecorder>();
         t.runtime->runGame(viewController, bad, {{ZM_KEY_RUN_OPT_VERSION, "1.0"}}, listener);
         return listener;
       },
       [&](const std::string& bad) {
         return std::vector<std::string>{"onRunFailure:" + refusal(bad)};
       }},
  };

  const std::vector<std::string> badIds = {"", ".", "..", "a/b", "../x", std::string("g1\0x", 4)};
  struct Heard {
    std::string what;
    std::shared_ptr<EventLog> log;
    std::vector<std::string> expected;
  };
  std::vector<Heard> heard;
  for (const auto& operation : operations) {
    for (const auto& bad : badIds) {
      const std::string what = operation.name + " with \"" + bad + "\" (" +
                               std::to_string(bad.size()) + " bytes)";
      SCOPED_TRACE(what);
      heard.push_back({what, operation.run(bad), operation.expected(bad)});
      const auto& h = heard.back();
      EXPECT_TRUE(RunUntil([&] { return h.log->size() >= h.expected.size(); }));
      EXPECT_EQ(h.log->events(), h.expected);
      EXPECT_EQ(Snapshot(t.root()), before);
    }
  }
  // Nothing was left running to call back or write later.
  DrainMainQueue();
  for (const auto& h : heard) EXPECT_EQ(h.log->events(), h.expected) << h.what;
  EXPECT_EQ(Snapshot(t.root()), before);

  // No record was made under a bad id, so the user's records can still all be removed.
  EXPECT_EQ(list(), ZMValue::array({item("g1", "kept")}));
  auto listener = removeAll();
  EXPECT_EQ(listener->events(),
            (std::vector<std::string>{"onRemoveStart:g1|kept", "onRemoveFinish:g1|kept",
                                      "onRemoveSuccess:[g1]"}));
  EXPECT_FALSE(Exists(t.app() + "/g1"));
  EXPECT_EQ(ReadFile(t.root() + "/sentinel"), "next to the roots");
  EXPECT_EQ(ReadFile(t.app() + "/a/b/keep"), "inside a root");
}

TEST_F(ZMGameRuntimeRecords, TwoUsersShareAppFilesButEachSeesAndRemovesOnlyTheirRecords) {
  ASSERT_TRUE(installWithExtend("g1", "u1-ext"));
  ASSERT_TRUE(t.installGame("solo", "1.0"));
  makeUserDirs("u1", "g1");
  t.switchUser("u2");
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  ASSERT_TRUE(t.installGame("other", "3.0"));
  makeUserDirs("u2", "g1");

  EXPECT_EQ(list(), ZMValue::array({item("g1", nullptr), item("other", nullptr)}));
  EXPECT_EQ(setData("g1", {{"extend", "u2-ext"}, {"auth_camera", 1}}),
            std::vector<std::string>{"onGameDataSetSuccess"});
  EXPECT_EQ(record("u2", "g1")->extend, "u2-ext");
  EXPECT_EQ(record("u2", "g1")->auth_camera, 1);
  EXPECT_EQ(record("u1", "g1")->extend, "u1-ext") << "u1's record is not u2's";
  EXPECT_FALSE(record("u1", "g1")->auth_camera);
  EXPECT_EQ(store().getPeopleCount("g1"), 2);

  t.switchUser("u1");
  EXPECT_EQ(list(), ZMValue::array({item("g1", "u1-ext"), item("solo", nullptr)}));
  auto listener = removeAll();
  EXPECT_EQ(listener->events(),
            (std::vector<std::string>{"onRemoveStart:g1|u1-ext", "onRemoveFinish:g1|u1-ext",
                                      "onRemoveStart:solo|(null)", "onRemoveFinish:solo|(null)",
                                      "onRemoveSuccess:[g1,solo]"}));
  EXPECT_EQ(list(), ZMValue::array());
  EXPECT_TRUE(Exists(t.app() + "/g1/1.0/game.config.json")) << "u2 still has g1";
  EXPECT_FALSE(Exists(t.app() + "/solo"));
  EXPECT_FALSE(Exists(t.cache() + "/u1_g1"));
  EXPECT_FALSE(Exists(t.user() + "/u1_g1"));
  EXPECT_EQ(ReadFile(t.user() + "/u2_g1/data/d.bin"), "d");
  EXPECT_EQ(record("u2", "g1")->extend, "u2-ext");

  t.switchUser("u2");
  EXPECT_EQ(list(), ZMValue::array({item("g1", "u2-ext"), item("other", nullptr)}));
  listener = removeAll();
  EXPECT_EQ(listener->last(), "onRemoveSuccess:[g1,other]");
  EXPECT_FALSE(Exists(t.app() + "/g1"));
  EXPECT_FALSE(Exists(t.app() + "/other"));
  EXPECT_FALSE(Exists(t.user() + "/u2_g1"));
  EXPECT_EQ(store().getPeopleCount("g1"), 0);
  EXPECT_EQ(list(), ZMValue::array());
  EXPECT_EQ(ListDir(t.app()), std::vector<std::string>{});
}

}  // namespace
