#include <gtest/gtest.h>

#include "plugin/ZMPluginManager.h"
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
