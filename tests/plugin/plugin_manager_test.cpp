#include "plugin/ZMPluginManager.h"

#include <gtest/gtest.h>

#include "support/TestListeners.h"
#include "support/TestPluginService.h"
#include "support/TestRuntime.h"
#include "support/TestSupport.h"
#include "tavo/ZMFileUtils.h"

namespace {

using Events = std::vector<std::string>;

class ZMPluginManagerTest : public ::testing::Test {
 protected:
  TestRuntime t;
  std::shared_ptr<ZMPluginManager> manager() {
    return std::dynamic_pointer_cast<ZMPluginManager>(
        t.runtime->getManager("plugin_manager", ZMValue::object()));
  }
  void install(const std::string& name) {
    WriteFile(t.plugin() + "/" + name + "/main.js", "x");
    WriteFile(t.plugin() + "/" + name + ".detail.json", R"({"hash":"h1"})");
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

  // The device id is null while tracking is off.
  ZMDevice::setAdvertisingIdentifier(std::nullopt);
  EXPECT_EQ(ZMPluginManager::_getUniqueId(), std::nullopt);
  ZMDevice::setAdvertisingIdentifier("");
  EXPECT_EQ(ZMPluginManager::_getUniqueId(), ZMDevice::identifierForVendor());
  ZMDevice::setAdvertisingIdentifier("ad-id");
  EXPECT_EQ(ZMPluginManager::_getUniqueId(), "ad-id");
  ZMDevice::setAdvertisingIdentifier(std::nullopt);
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

TEST_F(ZMPluginManagerTest, ListAndRemoveWorkOnThePluginRootAndANewRequestSilencesTheLast) {
  install("p_1");
  install("q_2");
  auto plugins = manager();
  auto replaced = std::make_shared<ListRecorder>(), listed = std::make_shared<ListRecorder>();
  plugins->listPlugin(replaced);
  plugins->listPlugin(listed);
  ASSERT_TRUE(RunUntil([&] { return listed->size() == 1; }));
  DrainMainQueue();
  EXPECT_EQ(replaced->size(), 0u);
  EXPECT_EQ(listed->items.size(), 2u);

  auto removal = std::make_shared<PluginRemoveRecorder>();
  plugins->removePluginList(ZMValue::array({{{"provider", "p"}, {"version", "1"}}}), removal);
  ASSERT_TRUE(RunUntil([&] { return removal->last() == "success"; }));
  EXPECT_EQ(ListDir(t.plugin()), (Events{"q_2", "q_2.detail.json"}));

  // A cancel reaches a removal whose start is already posted: nobody hears of it.
  auto cancelled = std::make_shared<PluginRemoveRecorder>();
  plugins->removePluginList(ZMValue::array({{{"provider", "q"}, {"version", "2"}}}), cancelled);
  plugins->cancelPluginRequest();
  DrainMainQueue();
  EXPECT_EQ(cancelled->size(), 0u);

  // After done(), every request still ends, at once and with a failure.
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
  const ZMValue entry = {
      {"plugin_id", "p"}, {"version", "1"}, {"hash", hash}, {"url", service.package("p")}};
  service.lists("s", ZMValue::array({entry}));
  install("p_1");
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
