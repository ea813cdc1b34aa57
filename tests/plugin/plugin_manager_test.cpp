#include "plugin/ZMPluginManager.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <tuple>

#include "PluginFlows.h"
#include "support/TestRuntime.h"

namespace {

using Events = std::vector<std::string>;

class ZMPluginManagerTest : public ::testing::Test {
 protected:
  TestRuntime t;
  std::shared_ptr<ZMPluginManager> manager() {
    return std::dynamic_pointer_cast<ZMPluginManager>(
        t.runtime->getManager("plugin_manager", ZMValue::object()));
  }
  std::shared_ptr<ListRecorder> list() {
    auto listener = std::make_shared<ListRecorder>();
    manager()->listPlugin(listener);
    EXPECT_TRUE(RunUntil([&] { return listener->size() > 0; }));
    DrainMainQueue();
    return listener;
  }
  // A plug-in directory with its config beside it, `at` below the storage root.
  void install(const std::string& at) {
    WriteFile(t.root() + "/" + at + "/main.js", "x");
    WriteFile(t.root() + "/" + at + ".detail.json", R"({"hash":"h1"})");
  }
};

TEST_F(ZMPluginManagerTest, OneManagerPerRuntimeWithServiceHostsThatNameNothingReal) {
  auto plugins = manager();
  ASSERT_TRUE(plugins);
  EXPECT_EQ(t.runtime->getManager("plugin_manager", ZMValue()), plugins) << "the same object";
  for (const std::string name : {"", "Plugin_Manager", "plugin_manager ", "plugin"})
    EXPECT_EQ(t.runtime->getManager(name, ZMValue::object()), nullptr) << name;
  for (const auto& host : plugins->pluginServiceHosts())
    EXPECT_TRUE(host.ends_with(".invalid/ced")) << host;

  // The device id: the vendor's for an empty advertising id, and null while tracking is off.
  using Id = std::optional<std::string>;
  for (const auto& [ad, id] : std::vector<std::pair<Id, Id>>{{"", ZMDevice::identifierForVendor()},
                                                             {"ad-id", "ad-id"},
                                                             {std::nullopt, std::nullopt}}) {
    ZMDevice::setAdvertisingIdentifier(ad);
    EXPECT_EQ(ZMPluginManager::_getUniqueId(), id) << ad.value_or("(null)");
  }
}

TEST_F(ZMPluginManagerTest, CheckAndInstallValidateInTheirOwnOrdersAndStayInTheRoot) {
  auto plugins = manager();
  WriteFile(t.root() + "/v_1/main.js", "x");  // what "../v" 1 would name: the check deletes it
  const std::string unsafe = "plugin provider or version is invalid|0";
  // The check refuses an empty provider before any start, the provider before the version.
  for (const auto& [info, expected] : std::vector<std::pair<ZMValue, std::string>>{
           {ZMValue(), "failure:(null)|missing info: provider|0"},
           {{{"provider", ""}, {"version", "1"}}, "failure:|missing info: provider|0"},
           {{{"provider", "p"}}, "failure:p|missing info: version|0"},
           {{{"provider", "p"}, {"version", ""}}, "failure:p|missing info: version|0"},
           {{{"provider", "../v"}, {"version", "1"}}, "failure:../v|" + unsafe}}) {
    auto listener = std::make_shared<PluginCheckRecorder>();
    plugins->checkPluginVersion(info, listener);
    EXPECT_EQ(listener->events(), Events{expected}) << info.dump();
  }
  // The install starts first and refuses only missing keys, the provider first.
  for (const auto& [info, expected] : std::vector<std::pair<ZMValue, std::string>>{
           {ZMValue::object(), "failure:(null)|missing info provider|0"},
           {{{"provider", "p"}}, "failure:p|missing info version|0"},
           {{{"provider", "../v"}, {"version", "1"}}, "failure:../v|" + unsafe}}) {
    auto listener = std::make_shared<PluginInstallRecorder>();
    plugins->installPlugin(info, listener);
    EXPECT_EQ(listener->events(), (Events{"start:" + ProviderOf(info), expected})) << info.dump();
  }
  DrainMainQueue();
  EXPECT_TRUE(Exists(t.root() + "/v_1/main.js"));
}

TEST_F(ZMPluginManagerTest, ListsDirectoriesWithASiblingConfigSplitAtTheFirstUnderscore) {
  for (const char* name : {"plugin/p_1.0", "plugin/a_b_c", "plugin/q"}) install(name);
  WriteFile(t.plugin() + "/half_1/main.js", "x");         // no config: not installed
  WriteFile(t.plugin() + "/orphan_2.detail.json", "{}");  // a config without its directory
  WriteFile(t.plugin() + "/file_3", "x");                 // a file, even with a config beside it
  WriteFile(t.plugin() + "/file_3.detail.json", "{}");
  LogCapture log;
  auto listed = list();
  EXPECT_EQ(listed->events(), Events{"onListGameSuccess"});
  const auto path = [&](const std::string& name) { return t.plugin() + "/" + name; };
  EXPECT_EQ(std::set<ZMValue>(listed->items.begin(), listed->items.end()),
            (std::set<ZMValue>{{{"provider", "a"}, {"version", "b_c"}, {"path", path("a_b_c")}},
                               {{"provider", "p"}, {"version", "1.0"}, {"path", path("p_1.0")}}}));
  EXPECT_EQ(log.lines(), Events{"q plugin dir name error"});

  std::filesystem::remove_all(t.plugin());
  EXPECT_EQ(list()->events(), Events{"onListGameFailure:plugin root dir is not exist|0"});
  WriteFile(t.plugin(), "x");  // a root that cannot be listed holds nothing
  auto replaced = std::make_shared<ListRecorder>();
  manager()->listPlugin(replaced);
  listed = list();
  EXPECT_EQ(replaced->size(), 0u) << "a newer request silences the one before";
  EXPECT_EQ(listed->events(), Events{"onListGameSuccess"});
  EXPECT_EQ(listed->items, ZMValue::array());
}

TEST_F(ZMPluginManagerTest, RemovesInOrderAndStopsAtTheFirstBadOrUnsafeItem) {
  const auto info = [](const std::string& provider, const std::string& version) {
    return ZMValue{{"provider", provider}, {"version", version}};
  };
  const ZMValue good = info("good", "1"), ghost = info("ghost", "2"), x = info("x", "1");
  const std::string empty = "failure:plugin provider or version is empty|0",
                    unsafe = "failure:plugin provider or version is invalid|0";
  const std::vector<std::tuple<ZMValue, Events, bool>> rows = {
      // A plug-in never installed counts as removed.
      {{good, ghost}, {"start:good", "finish:good", "start:ghost", "finish:ghost", "success"}, 1},
      {{good, {{"provider", "bad"}}, x}, {"start:good", "finish:good", "start:bad", empty}, 1},
      {{info("", "1"), good}, {"start:", empty}, 0},
      {ZMValue::array(), {"success"}, 0},
      {ZMValue(), {"failure:list is null|0"}, 0},
      // Names that leave the root delete nothing; at NUL, root/x_1 would be cut to root/x.
      {{info("../victim", "1"), x}, {"start:../victim", unsafe}, 0},
      {{info("sub/victim", "1"), x}, {"start:sub/victim", unsafe}, 0},
      {{info("p", "/../../victim_1"), x}, {"start:p", unsafe}, 0},
      {{info(std::string("x\0", 2), "1"), x}, {"start:" + std::string("x\0", 2), unsafe}, 0}};
  const Events installed = {"plugin/good_1", "plugin/x", "plugin/sub/victim_1", "victim_1"};
  for (const auto& [list, events, goodIsGone] : rows) {
    std::filesystem::remove_all(t.plugin());
    for (const auto& name : installed) install(name);
    std::filesystem::create_directories(t.plugin() + "/p_");
    auto removal = std::make_shared<PluginRemoveRecorder>();
    manager()->removePluginList(list, removal);
    ASSERT_TRUE(RunUntil([&] { return removal->size() == events.size(); })) << list;
    DrainMainQueue();
    EXPECT_EQ(removal->events(), events) << list;
    for (const auto& name : installed) {
      const bool gone = goodIsGone && name == "plugin/good_1";
      const std::string at = t.root() + "/" + name;
      EXPECT_EQ(Exists(at) + Exists(at + ".detail.json"), gone ? 0 : 2) << name;
    }
    if (events.back() == "success") {
      EXPECT_EQ(removal->removed, list.empty() ? ZMValue::array() : list);
    }
  }

  // A plug-in whose directory cannot be deleted ends the run, named by its directory.
  const std::string pinned = t.plugin() + "/good_1/pinned";
  WriteFile(pinned, "x");
  if (SetImmutable(pinned, true)) {
    auto stuck = std::make_shared<PluginRemoveRecorder>();
    manager()->removePluginList(ZMValue::array({good}), stuck);
    EXPECT_TRUE(RunUntil([&] { return stuck->size() == 2; }));
    EXPECT_TRUE(SetImmutable(pinned, false));
    EXPECT_EQ(stuck->events(),
              (Events{"start:good", "failure:" + t.plugin() + "/good_1 delete failure|0"}));
  }
  // A cancel reaches a removal whose start is already posted: nobody hears of it.
  auto cancelled = std::make_shared<PluginRemoveRecorder>();
  manager()->removePluginList(ZMValue::array({good}), cancelled);
  manager()->cancelPluginRequest();
  DrainMainQueue();
  EXPECT_EQ(cancelled->size(), 0u);
}

TEST_F(ZMPluginManagerTest, AfterDoneEveryRequestEndsAtOnceWithAFailure) {
  auto plugins = manager();
  plugins->done();
  const ZMValue q = {{"provider", "q"}, {"version", "2"}};
  const std::string done = "plugin manager is done|0";
  auto check = std::make_shared<PluginCheckRecorder>();
  auto installing = std::make_shared<PluginInstallRecorder>();
  auto listing = std::make_shared<ListRecorder>();
  auto removing = std::make_shared<PluginRemoveRecorder>();
  plugins->checkPluginVersion(q, check);
  plugins->installPlugin(q, installing);
  plugins->listPlugin(listing);
  plugins->removePluginList(ZMValue::array({q}), removing);
  EXPECT_EQ(check->events(), Events{"failure:q|" + done});
  EXPECT_EQ(installing->events(), (Events{"start:q", "failure:q|" + done}));
  EXPECT_EQ(listing->events(), Events{"onListGameFailure:" + done});
  EXPECT_EQ(removing->events(), Events{"failure:" + done});
}

TEST_F(ZMPluginManagerTest, ARunningGameWithPluginsPrefetchesFromTheHostsSetLast) {
  TestPluginService service;
  WriteFile(t.root() + "/pkg", "newer package");
  const std::string hash = *ZMFileUtils::getFileMD5(t.root() + "/pkg");
  service.serve("p", "newer package");
  service.lists("s", ZMValue::array({Entry("p", hash, service.package("p"), "1")}));
  install("plugin/p_1");
  ASSERT_TRUE(t.installGame("g1", "1", R"({"plugins":{"a":{"provider":"p","version":"1"}}})"));
  ASSERT_TRUE(t.installGame("g2", "1"));
  auto plugins = manager();
  plugins->setPluginServiceHosts({service.host("s")});

  // A game without plug-ins asks nothing; one with plug-ins prefetches the newer package.
  for (const char* appId : {"g2", "g1"}) {
    ZMValue options{{"rt_game_package_app_id", appId}};
    EXPECT_EQ(plugins->onGameEvent(ZMGameEventRunSuccess, options), std::nullopt);
  }
  const std::string cached = t.cache() + "/" + hash + "_p_1.zip";
  ASSERT_TRUE(RunUntil([&] { return Exists(cached); }));
  EXPECT_EQ(ReadFile(cached), "newer package");
  EXPECT_EQ(service.log(), (Events{"s hash", "GET p"}));
  EXPECT_EQ(*ZMFileUtils::readJSONObjectFromFile(t.plugin() + "/p_1.detail.json"),
            (ZMValue{{"hash", "h1"}, {"updateHash", hash}}));
}

}  // namespace
