#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "merin/MerinGameHandle.h"
#include "plugin/ZMPluginCheckPackageManager.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"
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

// Plug-in "p" 1.0 installed under a fresh root, its config naming a prefetched package "h".
struct PluginCheck : ::testing::Test {
  TempDir dir;
  const std::string cache = dir / "cache", plugin = dir / "plugin/p_1.0";
  const std::string config = plugin + ".detail.json", package = cache + "/h_p_1.0.zip";
  const ZMValue info = {{"provider", "p"}, {"version", "1.0"}};
  std::shared_ptr<PluginCheckRecorder> host = std::make_shared<PluginCheckRecorder>();

  PluginCheck() {
    fs::create_directories(cache);
    WriteFile(plugin + "/old.txt", "O");
    WriteFile(config, R"({"hash":"old","updateHash":"h","keep":"x"})");
    MerinGameHandle::install();
  }
  ~PluginCheck() override { ZMGameHandle::setInstance(nullptr); }
  std::shared_ptr<ZMPluginCheckPackageManager> manager() {
    return std::make_shared<ZMPluginCheckPackageManager>(cache, plugin, host);
  }
  // Runs one check to its end: what the host heard, all of it on this (the main) thread.
  Events check() {
    auto worker = manager();  // kept to the end: a dropped worker reports nothing
    worker->execute("p", "1.0", info);
    // A lost package's failure is followed by a success: wait past it.
    EXPECT_TRUE(RunUntil([&] { return host->size() > 0 && host->last() != kLost[0]; }));
    DrainMainQueue();
    EXPECT_EQ(host->distinctThreads(), std::set{std::this_thread::get_id()});
    return std::exchange(host, std::make_shared<PluginCheckRecorder>())->events();
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
  const std::pair<std::string, std::function<void(const std::string&)>> cases[] = {
      {"install update plugin error: Error Domain=NSCocoaErrorDomain",
       [&](const std::string& dest) {  // unpacks, but the config cannot be replaced
         fs::create_directories(dest);
         fs::remove(config);
         fs::create_directory(config);
       }},
  };
  for (const auto& [line, effect] : cases) {
    fs::create_directories(plugin);
    WriteFile(config, R"({"updateHash":"h"})");
    WriteFile(package, "zip");
    engine->effect = effect;
    LogCapture log;
    EXPECT_EQ(check(), kLost) << line;
    EXPECT_EQ(log.startingWith(line).size(), 1u) << line;
    EXPECT_FALSE(Exists(plugin) || Exists(config) || Exists(package) || Exists(cache + "/p_1.0"));
  }
}

TEST_F(ZMPluginCheckPackageManager, CancelSilencesEverything) {
  MakeZip(package, {{"new.txt", "N"}});
  auto worker = manager();
  worker->execute("p", "1.0", info);
  worker->cancel();
  ASSERT_TRUE(RunUntil([&] { return !Exists(package); })) << "the unpack itself runs to its end";
  DrainMainQueue();
  EXPECT_TRUE(host->events().empty());
  EXPECT_EQ(ListDir(plugin), Events{"old.txt"}) << "nothing is moved after cancel";
}

}  // namespace
