#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>

#include "plugin/ZMPluginManager.h"
#include "support/TestHttpServer.h"
#include "support/TestListeners.h"
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
};

TEST_F(ZMPluginManagerTest, OneManagerPerRuntimeWithItsRootsAndServiceHosts) {
  auto plugins = manager();
  ASSERT_TRUE(plugins);
  EXPECT_EQ(t.runtime->getManager("plugin_manager", ZMValue()), plugins) << "the same object";
  for (const std::string name : {"", "Plugin_Manager", "plugin_manager ", "plugin"}) {
    EXPECT_EQ(t.runtime->getManager(name, ZMValue::object()), nullptr) << name;
  }
  EXPECT_EQ(plugins->storagePluginPath(), t.plugin());
  EXPECT_EQ(plugins->appPackageCache(), t.cache());
  // The built-in hosts name nothing real; a host's list replaces them, in its order.
  for (const auto& host : plugins->pluginServiceHosts()) {
    EXPECT_TRUE(host.ends_with(".invalid/ced")) << host;
  }
  plugins->setPluginServiceHosts({"http://127.0.0.1:1/ced", "http://127.0.0.1:2/ced"});
  EXPECT_EQ(plugins->pluginServiceHosts(),
            (Events{"http://127.0.0.1:1/ced", "http://127.0.0.1:2/ced"}));

  // The hash comes first in a package's name; the config is a sibling of the directory.
  EXPECT_EQ(ZMPluginManager::getPluginPackageDownloadPath("/c", "p", "1.0", "abc"),
            "/c/abc_p_1.0.zip");
  EXPECT_EQ(ZMPluginManager::getPluginConfigFile("/r", "p", "1.0"), "/r/p_1.0.detail.json");
}

TEST_F(ZMPluginManagerTest, TheDeviceIdIsNullWhileTrackingIsOff) {
  ZMDevice::setAdvertisingIdentifier(std::nullopt);
  EXPECT_EQ(ZMPluginManager::_getUniqueId(), std::nullopt);
  ZMDevice::setAdvertisingIdentifier("");
  EXPECT_EQ(ZMPluginManager::_getUniqueId(), ZMDevice::identifierForVendor());
  ZMDevice::setAdvertisingIdentifier("ad-id");
  EXPECT_EQ(ZMPluginManager::_getUniqueId(), "ad-id");
  ZMDevice::setAdvertisingIdentifier(std::nullopt);
}

TEST_F(ZMPluginManagerTest, CheckAndInstallValidateInTheirOwnOrders) {
  auto plugins = manager();
  // The check refuses an empty provider before any start, the provider before the version.
  for (const auto& [info, expected] : std::vector<std::pair<ZMValue, std::string>>{
           {ZMValue(), "failure:(null)|missing info: provider|0"},
           {{{"provider", ""}, {"version", "1"}}, "failure:|missing info: provider|0"},
           {{{"provider", "p"}}, "failure:p|missing info: version|0"},
           {{{"provider", "p"}, {"version", ""}}, "failure:p|missing info: version|0"}}) {
    auto listener = std::make_shared<PluginCheckRecorder>();
    plugins->checkPluginVersion(info, listener);
    EXPECT_EQ(listener->events(), Events{expected}) << info.dump();
  }
  // The install starts first and refuses only missing keys, the provider first.
  for (const auto& [info, expected] : std::vector<std::pair<ZMValue, std::string>>{
           {ZMValue::object(), "failure:(null)|missing info provider|0"},
           {{{"provider", "p"}}, "failure:p|missing info version|0"}}) {
    auto listener = std::make_shared<PluginInstallRecorder>();
    plugins->installPlugin(info, listener);
    EXPECT_EQ(listener->events(), (Events{"start:" + ProviderOf(info), expected})) << info.dump();
  }
}

}  // namespace

namespace {

void InstallPlugin(const std::string& root, const std::string& name, const std::string& hash) {
  WriteFile(root + "/" + name + "/main.js", "x");
  WriteFile(root + "/" + name + ".detail.json", ZMValue{{"hash", hash}}.dump());
}

TEST_F(ZMPluginManagerTest, ListAndRemoveWorkOnThePluginRootAndANewRequestSilencesTheLast) {
  InstallPlugin(t.plugin(), "p_1", "h1");
  InstallPlugin(t.plugin(), "q_2", "h2");
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
}

TEST_F(ZMPluginManagerTest, ARunningGameWithPluginsPrefetchesFromTheHostsSetLast) {
  const std::string package = "newer package", hash = ZMFileUtils::getFileMD5([&] {
                                                        WriteFile(t.root() + "/pkg", package);
                                                        return t.root() + "/pkg";
                                                      }())
                                                          .value();
  TestHttpServer service;
  std::atomic<int> queries{0};
  service.Post("/ced/runtime/plugin/hash", [&](const httplib::Request&, httplib::Response& res) {
    ++queries;
    res.set_content(ZMValue{{"code", 200},
                            {"plugin_results",
                             {{{"plugin_id", "p"},
                               {"version", "1"},
                               {"hash", hash},
                               {"url", service.url("/pkg")}}}}}
                        .dump(),
                    "application/json");
  });
  service.Get("/pkg", [&](const httplib::Request&, httplib::Response& res) {
    res.set_content(package, "application/zip");
  });
  service.start();
  InstallPlugin(t.plugin(), "p_1", "h1");
  ASSERT_TRUE(t.installGame("g1", "1", R"({"plugins":{"a":{"provider":"p","version":"1"}}})"));
  ASSERT_TRUE(t.installGame("g2", "1"));
  auto plugins = manager();
  plugins->setPluginServiceHosts({service.url("/ced")});

  // A game without plug-ins asks nothing; one with plug-ins prefetches the newer package.
  for (const char* appId : {"g2", "g1"}) {
    ZMValue options{{"rt_game_package_app_id", appId}};
    EXPECT_EQ(plugins->onGameEvent(ZMGameEventRunSuccess, options), std::nullopt);
  }
  const std::string cached = t.cache() + "/" + hash + "_p_1.zip";
  ASSERT_TRUE(RunUntil([&] { return std::filesystem::exists(cached); }));
  EXPECT_EQ(ReadFile(cached), package);
  EXPECT_EQ(queries.load(), 1);
  EXPECT_EQ(*ZMFileUtils::readJSONObjectFromFile(t.plugin() + "/p_1.detail.json"),
            (ZMValue{{"hash", "h1"}, {"updateHash", hash}}));
}

}  // namespace
