#include <gtest/gtest.h>

#include "PluginFlows.h"
#include "support/TestZip.h"

namespace {

namespace fs = std::filesystem;
using Events = std::vector<std::string>;
const Events kOk = {"success:p"}, kNoConfig = {"failure:p|Error:plugin config no exist.|0"},
             kLost = {"failure:p|Error:plugin package no exist.|0", "success:p"};

// An engine whose unzip only applies `effect` to the destination and then reports success.
struct FakeUnzipEngine : MerinGameHandle {
  std::function<void(const std::string&)> effect;
  void unzipFile(const std::string&, const std::string& dest,
                 std::shared_ptr<ZMUnzipGamePackageListener> listener) override {
    effect(dest);
    listener->onUnzipSucceed();
  }
};

// Plug-in "p" 1.0 installed, its config naming a prefetched package "h".
struct PluginCheck : ::testing::Test, PluginFlows {
  const std::string package = cache + "/h_p_1.0.zip";
  PluginCheck() {
    WriteFile(plugin + "/old.txt", "O");
    WriteFile(config, R"({"hash":"old","updateHash":"h","keep":"x"})");
  }
};

using ZMPluginCheckPackageManager = PluginCheck;

TEST_F(ZMPluginCheckPackageManager, InstallsAPrefetchedPackageThroughStagingAndNeedsBothHalves) {
  MakeZip(package, {{"new.txt", "N"}, {"lib/a.so", "A"}});
  WriteFile(cache + "/p_1.0/stale.txt", "S");  // an earlier run's leftover
  EXPECT_EQ(check(), kOk);
  EXPECT_EQ(ListDir(plugin), (Events{"lib", "new.txt"}));
  EXPECT_EQ(ZMValue::parse(ReadFile(config)), ZMValue::parse(R"({"hash":"h","keep":"x"})"));
  EXPECT_EQ(ListDir(cache), Events{}) << "package and staging directory are gone";

  // A package that does not unpack is deleted with its staging; the installed plug-in stays.
  WriteFile(config, R"({"updateHash":"bad"})");
  WriteFile(cache + "/bad_p_1.0.zip", "not a zip");
  EXPECT_EQ(check(), kOk);
  EXPECT_EQ(ListDir(plugin), (Events{"lib", "new.txt"}));
  EXPECT_EQ(ZMValue::parse(ReadFile(config)), ZMValue::parse(R"({"updateHash":"bad"})"));
  EXPECT_EQ(ListDir(cache), Events{});

  // Either half left alone is deleted.
  fs::remove(config);
  EXPECT_EQ(check(), kNoConfig);
  EXPECT_FALSE(Exists(plugin));
  WriteFile(config, "{}");
  EXPECT_EQ(check(), kLost) << "both outcomes, failure first";
  EXPECT_FALSE(Exists(config));
}

TEST_F(ZMPluginCheckPackageManager, AFailedConfigWriteIsLoggedAndTheInstallIsLost) {
  auto engine = std::make_shared<FakeUnzipEngine>();
  ZMGameHandle::setInstance(engine);
  WriteFile(config, R"({"updateHash":"h"})");
  WriteFile(package, "zip");
  engine->effect = [&](const std::string& dest) {  // unpacks, but the config cannot be replaced
    fs::create_directories(dest);
    fs::remove(config);
    fs::create_directory(config);
  };
  LogCapture log;
  EXPECT_EQ(check(), kLost);
  EXPECT_EQ(log.startingWith("install update plugin error: Error Domain=NSCocoaErrorDomain").size(),
            1u);
  EXPECT_FALSE(Exists(plugin) || Exists(config) || Exists(package) || Exists(cache + "/p_1.0"));
}

TEST_F(ZMPluginCheckPackageManager, CancelSilencesEverything) {
  MakeZip(package, {{"new.txt", "N"}});
  auto host = std::make_shared<PluginCheckRecorder>();
  auto worker = checker(host);
  worker->execute("p", "1.0", info);
  worker->cancel();
  ASSERT_TRUE(RunUntil([&] { return !Exists(package); })) << "the unpack itself runs to its end";
  DrainMainQueue();
  EXPECT_TRUE(host->events().empty());
  EXPECT_EQ(ListDir(plugin), Events{"old.txt"}) << "nothing is moved after cancel";
}

}  // namespace
