#include <gtest/gtest.h>

#include <thread>

#include "PluginFlows.h"
#include "plugin/ZMPluginUnzipPackageTask.h"
#include "support/TestZip.h"

namespace {

using Events = std::vector<std::string>;

// The reference engine noting what it is asked to unzip or, with `hold`, keeping the request for
// the test to answer.
struct Engine : MerinGameHandle {
  Events unzips;
  bool hold = false;
  std::shared_ptr<ZMUnzipGamePackageListener> held;
  void unzipFile(const std::string& zip, const std::string& dir,
                 std::shared_ptr<ZMUnzipGamePackageListener> listener) override {
    unzips.push_back(zip + " -> " + dir);
    hold ? void(held = std::move(listener)) : MerinGameHandle::unzipFile(zip, dir, listener);
  }
};

struct Install : PluginFlows {
  std::shared_ptr<Engine> engine = std::make_shared<Engine>();
  Install() { ZMGameHandle::setInstance(engine); }
};

}  // namespace

TEST(ZMPluginInstallPackageManager, AsksHostsInOrderThenDownloadsUnpacksAndRecordsTheHash) {
  auto t = std::make_unique<Install>();
  MakeZip(t->dir / "zip", {{"lib/x.so", "X"}});
  const std::string zip = ReadFile(t->dir / "zip"), hash = t->publish("b", zip);
  WriteFile(t->config, R"({"updateHash":"u","hash":"old"})");
  WriteFile(t->plugin + "/old_only.js", "an earlier install's file");

  const auto host = t->install({"a", "b"});
  EXPECT_EQ(host->events(), Events{"success:p"});  // a answers code 500
  EXPECT_EQ(t->service.log(), (Events{"a url", "b url", "GET p.zip"}));
  EXPECT_GT(host->progressCalls, 0);
  EXPECT_EQ(host->distinctThreads(), std::set{std::this_thread::get_id()});
  // The package under a private name, into a staged directory beside the plug-in's, which then
  // replaces it whole.
  ASSERT_EQ(t->engine->unzips.size(), 1u);
  EXPECT_TRUE(t->engine->unzips[0].starts_with(t->cache + "/" + hash + "_p_1.0.zip.unzip-"));
  EXPECT_NE(t->engine->unzips[0].find(" -> " + t->root + "/.p_1.0.staging-"), std::string::npos);
  EXPECT_EQ(ListDir(t->root), (Events{"p_1.0", "p_1.0.detail.json"}));
  EXPECT_EQ(ListDir(t->plugin), Events{"lib"});
  EXPECT_EQ(ReadFile(t->plugin + "/lib/x.so"), "X");
  EXPECT_EQ(ListDir(t->cache), Events{}) << "the package is deleted once unpacked";
  EXPECT_EQ(ReadFile(t->config), "{\n  \"updateHash\" : \"u\",\n  \"hash\" : \"" + hash + "\"\n}");
  EXPECT_EQ(t->group->sizeForTesting(), 0u) << "the finished run is let go";

  // Only the query moves on to the next host; a failed download or unpack ends the install.
  // Replies of hosts a and b ("lists:<package>" names the package), what the service saw, and how
  // the one failure begins.
  struct Row {
    std::string a, b;
    Events log;
    std::string failure;
  } rows[] = {
      {R"({"code":404})", "not json", {"a url", "b url"}, "get plugin url error (null)|0"},
      {"not json", R"({"code":404})", {"a url", "b url"}, "get plugin url error 404|0"},
      {"", "", {}, "null"},  // no host at all, so no error to pass on
      {"lists:", "", {"a url", "GET p.zip"}, "NSNetServicesErrorDomain|404"},
      {"lists:corrupt", "", {"a url", "GET p.zip"}, ""},
  };
  for (const auto& row : rows) {
    t.reset();  // its engine leaves the slot as it goes
    t = std::make_unique<Install>();
    t->service.answer("a", row.a);
    t->service.answer("b", row.b);
    if (row.a.starts_with("lists:")) t->publish("a", row.a.substr(6));
    const auto events = t->install(row.log.empty() ? Events{} : Events{"a", "b"})->events();
    EXPECT_EQ(t->service.log(), row.log);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(events[0].starts_with("failure:p|" + row.failure)) << events[0];
    EXPECT_FALSE(Exists(t->plugin) || Exists(t->config));
    EXPECT_EQ(ListDir(t->cache), Events{});
    EXPECT_EQ(t->group->sizeForTesting(), 0u);
  }

  // Cancelled while the engine unpacks: the unpack still cleans up, the host hears nothing.
  t.reset();
  t = std::make_unique<Install>();
  t->engine->hold = true;
  t->publish("a", zip);
  const auto unheard = t->install({"a"}, false);
  ASSERT_TRUE(RunUntil([&] { return t->engine->held != nullptr; }));
  t->installer->cancel();
  std::thread([held = std::move(t->engine->held)] { held->onUnzipSucceed(); }).join();
  DrainMainQueue();
  EXPECT_EQ(unheard->events(), Events{});
  EXPECT_EQ(ListDir(t->cache), Events{});
  EXPECT_EQ(t->group->sizeForTesting(), 0u);
}

TEST(ZMPluginUnzipPackageTask, APackageBeyondTheLimitsIsDeletedUnopened) {
  Install t;
  const std::string zip = t.cache + "/h_p_1.0.zip";
  MakeZip(zip, {{"lib.so", std::string(4096, 'x')}});
  auto listener = std::make_shared<InstallRecorder>();
  auto task = std::make_shared<ZMPluginUnzipPackageTask>(t.plugin, "h", listener,
                                                         ZMPackageLimits{.maxUnpackedBytes = 4095});
  task->execute(zip);
  EXPECT_TRUE(RunUntil([&] { return listener->size() == 1; }));
  EXPECT_EQ(listener->last(), "onInstallFailure:package \"" + zip +
                                  "\" would unpack to 4096 bytes, more than the limit of 4095|0");
  EXPECT_TRUE(t.engine->unzips.empty()) << "the engine is never asked";
  EXPECT_FALSE(Exists(zip));
  EXPECT_FALSE(Exists(t.plugin));
}

TEST(ZMPluginUnzipPackageTask, AnUndeletablePackageIsReportedAsFailureThenSuccess) {
  Install t;
  t.engine->hold = true;
  auto listener = std::make_shared<InstallRecorder>();
  auto task = std::make_shared<ZMPluginUnzipPackageTask>(t.plugin, "h", listener);
  task->execute("/proc/self/status");  // "unpacked" below, and never deletable
  WriteFile(t.plugin + "/x", "x");
  std::thread([held = std::move(t.engine->held)] { held->onUnzipSucceed(); }).join();
  EXPECT_TRUE(RunUntil([&] { return listener->size() == 2; }));
  EXPECT_EQ(listener->events(), (Events{"onInstallFailure:deleteFile failure: /proc/self/status|0",
                                        "onInstallSuccess"}));
  EXPECT_EQ(listener->distinctThreads(), std::set{std::this_thread::get_id()});
  EXPECT_FALSE(Exists(t.plugin));
}

TEST(ZMPluginInstallPackageManager, AServiceHashThatNamesNoFileInTheCacheTouchesNothing) {
  using namespace std::string_literals;
  for (const std::string& hash : {"victim.zgp\0"s, "victim_dir\0"s, "../cache/victim.zgp"s}) {
    Install t;
    WriteFile(t.cache + "/victim.zgp", "kept");
    WriteFile(t.cache + "/victim_dir/x", "kept");
    t.service.lists("a", ZMValue::array({{{"plugin_id", "p"},
                                          {"version", "1.0"},
                                          {"hash", hash},
                                          {"url", t.service.package("p.zip")}}}));
    EXPECT_EQ(t.install({"a"})->events(), Events{"failure:p|invalid plugin hash: " + hash + "|0"});
    EXPECT_EQ(ListDir(t.cache), (Events{"victim.zgp", "victim_dir"}));
    EXPECT_EQ(t.service.log(), Events{"a url"}) << "nothing is downloaded";
  }
}
