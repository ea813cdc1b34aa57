#include <gtest/gtest.h>

#include <thread>

#include "merin/MerinGameHandle.h"
#include "plugin/ZMPluginInstallPackageManager.h"
#include "plugin/ZMPluginUnzipPackageTask.h"
#include "support/TestListeners.h"
#include "support/TestPluginService.h"
#include "support/TestSupport.h"
#include "support/TestZip.h"
#include "util/ZMTaskGroup.h"

namespace {

using Events = std::vector<std::string>;

// A service with hosts "a" and "b", and the reference engine noting what it is asked to unzip,
// or, with `hold`, keeping the request for the test to answer (all of it on the main queue).
struct Install : MerinGameHandle {
  TempDir dir;
  TestPluginService service;
  Events unzips;
  bool hold = false;
  std::shared_ptr<ZMUnzipGamePackageListener> held;
  std::shared_ptr<PluginInstallRecorder> host = std::make_shared<PluginInstallRecorder>();
  std::shared_ptr<ZMTaskGroup> group = std::make_shared<ZMTaskGroup>();  // as the manager's
  std::shared_ptr<ZMPluginInstallPackageManager> manager;
  const std::string plugin = dir / "plugin/p_1.0";

  Install() { ZMFileUtils::ensureDirExists(dir / "cache"); }  // the runtime made it long before
  void unzipFile(const std::string& zip, const std::string& dir,
                 std::shared_ptr<ZMUnzipGamePackageListener> listener) override {
    unzips.push_back(zip + " -> " + dir);
    hold ? void(held = std::move(listener)) : MerinGameHandle::unzipFile(zip, dir, listener);
  }
  // Host `name` lists `body` with its MD5 as the package, served unless empty.
  std::string lists(const std::string& name, const std::string& body) {
    WriteFile(dir / "p.zip", body);
    const std::string hash = *ZMFileUtils::getFileMD5(dir / "p.zip");
    if (!body.empty()) service.serve("p.zip", body);
    service.lists(name, ZMValue::array({{{"plugin_id", "p"},
                                         {"version", "1.0"},
                                         {"hash", hash},
                                         {"url", service.package("p.zip")}}}));
    return hash;
  }
  Events run(const Events& names) {
    Events hosts;
    for (const auto& name : names) hosts.push_back(service.host(name));
    manager = std::make_shared<ZMPluginInstallPackageManager>(hosts, dir / "cache", plugin, "dev",
                                                              "com.example.host", "1.0.0", host);
    group->add(manager);
    manager->execute({{"provider", "p"}, {"version", "1.0"}}, "p", "1.0");
    EXPECT_TRUE(hold || RunUntil([&] { return host->size() > 0; }));
    DrainMainQueue();
    return host->events();
  }
};

std::shared_ptr<Install> Start() {
  auto install = std::make_shared<Install>();
  ZMGameHandle::setInstance(install);
  return install;
}

}  // namespace

TEST(ZMPluginInstallPackageManager, AsksHostsInOrderThenDownloadsUnpacksAndRecordsTheHash) {
  auto t = Start();
  MakeZip(t->dir / "zip", {{"lib/x.so", "X"}});
  const std::string zip = ReadFile(t->dir / "zip"), hash = t->lists("b", zip);
  WriteFile(t->plugin + ".detail.json", R"({"updateHash":"u","hash":"old"})");
  WriteFile(t->plugin + "/old_only.js", "an earlier install's file");

  EXPECT_EQ(t->run({"a", "b"}), Events{"success:p"});  // a answers code 500
  EXPECT_EQ(t->service.log(), (Events{"a url", "b url", "GET p.zip"}));
  EXPECT_GT(t->host->progressCalls, 0);
  EXPECT_EQ(t->host->distinctThreads(), std::set{std::this_thread::get_id()});
  // The package under a private name, into a staged directory beside the plug-in's, which then
  // replaces it whole.
  ASSERT_EQ(t->unzips.size(), 1u);
  EXPECT_TRUE(t->unzips[0].starts_with(t->dir / "cache/" + hash + "_p_1.0.zip.unzip-"));
  EXPECT_NE(t->unzips[0].find(" -> " + t->dir / "plugin/.p_1.0.staging-"), std::string::npos);
  EXPECT_EQ(ListDir(t->dir / "plugin"), (Events{"p_1.0", "p_1.0.detail.json"}));
  EXPECT_EQ(ListDir(t->plugin), Events{"lib"});
  EXPECT_EQ(ReadFile(t->plugin + "/lib/x.so"), "X");
  EXPECT_EQ(ListDir(t->dir / "cache"), Events{}) << "the package is deleted once unpacked";
  EXPECT_EQ(ReadFile(t->plugin + ".detail.json"),
            "{\n  \"updateHash\" : \"u\",\n  \"hash\" : \"" + hash + "\"\n}");
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
    auto u = Start();
    u->service.answer("a", row.a);
    u->service.answer("b", row.b);
    if (row.a.starts_with("lists:")) u->lists("a", row.a.substr(6));
    const auto events = u->run(row.log.empty() ? Events{} : Events{"a", "b"});
    EXPECT_EQ(u->service.log(), row.log);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(events[0].starts_with("failure:p|" + row.failure)) << events[0];
    EXPECT_FALSE(Exists(u->plugin) || Exists(u->plugin + ".detail.json"));
    EXPECT_EQ(ListDir(u->dir / "cache"), Events{});
    EXPECT_EQ(u->group->sizeForTesting(), 0u);
  }

  // Cancelled while the engine unpacks: the unpack still cleans up, the host hears nothing.
  auto c = Start();
  c->hold = true;
  c->lists("a", zip);
  c->run({"a"});
  ASSERT_TRUE(RunUntil([&] { return c->held != nullptr; }));
  c->manager->cancel();
  std::thread([held = std::move(c->held)] { held->onUnzipSucceed(); }).join();
  DrainMainQueue();
  EXPECT_EQ(c->host->events(), Events{});
  EXPECT_EQ(ListDir(c->dir / "cache"), Events{});
  EXPECT_EQ(c->group->sizeForTesting(), 0u);
  ZMGameHandle::setInstance(nullptr);
}

TEST(ZMPluginUnzipPackageTask, APackageBeyondTheLimitsIsDeletedUnopened) {
  auto t = Start();
  const std::string zip = t->dir / "cache/h_p_1.0.zip";
  WriteFile(zip, "");
  MakeZip(zip, {{"lib.so", std::string(4096, 'x')}});
  auto listener = std::make_shared<InstallRecorder>();
  auto task = std::make_shared<ZMPluginUnzipPackageTask>(t->plugin, "h", listener,
                                                         ZMPackageLimits{.maxUnpackedBytes = 4095});
  task->execute(zip);
  EXPECT_TRUE(RunUntil([&] { return listener->size() == 1; }));
  EXPECT_EQ(listener->last(), "onInstallFailure:package \"" + zip +
                                  "\" would unpack to 4096 bytes, more than the limit of 4095|0");
  EXPECT_TRUE(t->unzips.empty()) << "the engine is never asked";
  EXPECT_FALSE(Exists(zip));
  EXPECT_FALSE(Exists(t->plugin));
  ZMGameHandle::setInstance(nullptr);
}

TEST(ZMPluginUnzipPackageTask, AnUndeletablePackageIsReportedAsFailureThenSuccess) {
  auto t = Start();
  t->hold = true;
  auto listener = std::make_shared<InstallRecorder>();
  auto task = std::make_shared<ZMPluginUnzipPackageTask>(t->plugin, "h", listener);
  task->execute("/proc/self/status");  // "unpacked" below, and never deletable
  WriteFile(t->plugin + "/x", "x");
  std::thread([held = std::move(t->held)] { held->onUnzipSucceed(); }).join();
  EXPECT_TRUE(RunUntil([&] { return listener->size() == 2; }));
  EXPECT_EQ(listener->events(), (Events{"onInstallFailure:deleteFile failure: /proc/self/status|0",
                                        "onInstallSuccess"}));
  EXPECT_EQ(listener->distinctThreads(), std::set{std::this_thread::get_id()});
  EXPECT_FALSE(Exists(t->plugin));
  ZMGameHandle::setInstance(nullptr);
}

TEST(ZMPluginInstallPackageManager, AServiceHashThatNamesNoFileInTheCacheTouchesNothing) {
  using namespace std::string_literals;
  for (const std::string& hash : {"victim.zgp\0"s, "victim_dir\0"s, "../cache/victim.zgp"s}) {
    auto t = Start();
    WriteFile(t->dir / "cache/victim.zgp", "kept");
    WriteFile(t->dir / "cache/victim_dir/x", "kept");
    t->service.lists("a", ZMValue::array({{{"plugin_id", "p"},
                                           {"version", "1.0"},
                                           {"hash", hash},
                                           {"url", t->service.package("p.zip")}}}));
    EXPECT_EQ(t->run({"a"}), Events{"failure:p|invalid plugin hash: " + hash + "|0"});
    EXPECT_EQ(ListDir(t->dir / "cache"), (Events{"victim.zgp", "victim_dir"}));
    EXPECT_EQ(t->service.log(), Events{"a url"}) << "nothing is downloaded";
  }
  ZMGameHandle::setInstance(nullptr);
}
