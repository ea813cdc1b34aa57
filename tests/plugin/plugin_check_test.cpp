#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "merin/MerinGameHandle.h"
#include "plugin/ZMPluginCheckPackageManager.h"
#include "plugin/ZMPluginCheckVersionTask.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"
#include "support/TestZip.h"
#include "util/ZMTaskGroup.h"

namespace {

namespace fs = std::filesystem;
using Events = std::vector<std::string>;
const Events kOk = {"success:p"}, kNoConfig = {"failure:p|Error:plugin config no exist.|0"},
             kLost = {"failure:p|Error:plugin package no exist.|0", "success:p"};

// An engine whose unzip only applies `effect` to the destination and then reports success.
struct FakeUnzipEngine : ZMGameHandle {
  std::function<void(const std::string&)> effect;
  void setOnGameQueryExitListener(std::weak_ptr<ZMOnGameQueryExitListener>) override {}
  void setOnGamePermissionListener(std::shared_ptr<ZMCorePermissionListener>) override {}
  void runGame(std::weak_ptr<void>, const std::string&, const ZMValue&,
               std::weak_ptr<ZMCoreRunListener>) override {}
  void exitGame(const std::string&, std::weak_ptr<ZMCoreExitListener>) override {}
  std::optional<std::string> getAppId() override { return {}; }
  void done() override {}
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
    fs::create_directories(plugin);
    WriteFile(plugin + "/old.txt", "O");
    WriteFile(config, R"({"hash":"old","updateHash":"h","keep":"x"})");
    MerinGameHandle::install();
  }
  ~PluginCheck() override { ZMGameHandle::setInstance(nullptr); }
  std::shared_ptr<ZMPluginCheckPackageManager> manager() {
    return std::make_shared<ZMPluginCheckPackageManager>(cache, plugin, host);
  }
  // Runs one check (a bare task's or a new manager's) to its end: what the host heard, all of it
  // on this (the main) thread.
  Events check(bool bare = false) {
    auto task = std::make_shared<ZMPluginCheckVersionTask>(info, host);
    auto worker = manager();  // both kept to the end: a dropped worker reports nothing
    bare ? task->execute(plugin) : worker->execute("p", "1.0", info);
    EXPECT_TRUE(RunUntil([&] { return host->size() > 0; }));
    DrainMainQueue();
    EXPECT_EQ(host->distinctThreads(), std::set{std::this_thread::get_id()});
    return std::exchange(host, std::make_shared<PluginCheckRecorder>())->events();
  }
};

using ZMPluginCheckVersionTask = PluginCheck;
using ZMPluginCheckPackageManager = PluginCheck;

TEST_F(ZMPluginCheckVersionTask, PassesOnlyWithBothHalvesAndDeletesAHalfLeftAlone) {
  EXPECT_EQ(check(true), kOk);
  fs::remove(config);
  EXPECT_EQ(check(true), kNoConfig);
  EXPECT_FALSE(Exists(plugin));
  WriteFile(config, "{}");
  EXPECT_EQ(check(true), kLost) << "both outcomes, failure first";
  EXPECT_FALSE(Exists(config));
}

TEST_F(ZMPluginCheckPackageManager, PrefetchedPackageIsInstalledThroughTheStagingDirectory) {
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
}

TEST_F(ZMPluginCheckPackageManager, FailedMoveOrConfigWriteIsLoggedAndTheInstallIsLost) {
  auto engine = std::make_shared<FakeUnzipEngine>();
  ZMGameHandle::setInstance(engine);
  const std::pair<std::string, std::function<void(const std::string&)>> cases[] = {
      {"move file fail: Error Domain=NSCocoaErrorDomain", [](const std::string&) {}},
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
    const auto lines = log.startingWith(line.substr(0, line.find(':') + 1));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with(line)) << lines[0];
    EXPECT_FALSE(Exists(plugin) || Exists(config) || Exists(package) || Exists(cache + "/p_1.0"));
  }
}

TEST_F(ZMPluginCheckPackageManager, CancelOrItsGroupEndingSilencesEverything) {
  MakeZip(package, {{"new.txt", "N"}});
  auto worker = manager();
  worker->execute("p", "1.0", info);
  worker->cancel();
  ASSERT_TRUE(RunUntil([&] { return !Exists(package); })) << "the unpack itself runs to its end";
  auto task = std::make_shared<::ZMPluginCheckVersionTask>(info, host);
  task->execute(plugin);
  task->cancel();
  DrainMainQueue();
  EXPECT_TRUE(host->events().empty());
  EXPECT_EQ(ListDir(plugin), Events{"old.txt"}) << "nothing is moved after cancel";

  // Ending the task group that holds the manager silences the check it has started.
  auto group = std::make_shared<ZMTaskGroup>();
  group->add(worker = manager());
  worker->execute("p", "1.0", info);
  group->end();
  DrainMainQueue();
  EXPECT_TRUE(host->events().empty());
}

}  // namespace
