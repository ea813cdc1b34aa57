#include <gtest/gtest.h>

#include <mutex>
#include <thread>

#include "merin/MerinGameHandle.h"
#include "plugin/ZMPluginInstallPackageManager.h"
#include "plugin/ZMPluginUnzipPackageTask.h"
#include "support/TestHttpServer.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"
#include "support/TestZip.h"
#include "util/ZMTaskGroup.h"

namespace {

using Events = std::vector<std::string>;

// Service hosts "/a/ced" and "/b/ced" with a reply each (`lists` one naming the package), the
// package at "/p.zip" (404 while empty), and the reference engine noting what it is asked to
// unzip, or, with `hold`, keeping the request for the test to answer.
struct Install : MerinGameHandle {
  TempDir dir;
  TestHttpServer server;
  std::mutex mutex;
  Events queries, unzips;
  std::map<std::string, std::string> replies;
  std::string package;
  bool hold = false;
  std::shared_ptr<ZMUnzipGamePackageListener> held;
  std::shared_ptr<PluginInstallRecorder> host = std::make_shared<PluginInstallRecorder>();
  std::shared_ptr<ZMTaskGroup> group = std::make_shared<ZMTaskGroup>();  // as the manager's
  std::shared_ptr<ZMPluginInstallPackageManager> manager;
  const std::string plugin = dir / "plugin/p_1.0";

  Install() {
    server.Post(R"(/(\w)/ced/runtime/plugin/url)", [this](const auto& request, auto& response) {
      std::lock_guard lock(mutex);
      queries.push_back(request.matches[1].str());
      response.set_content(replies[request.matches[1].str()], "application/json");
    });
    server.Get("/p.zip", [this](const auto&, auto& response) {
      std::lock_guard lock(mutex);
      package.empty() ? void(response.status = 404) : response.set_content(package, "x/zip");
    });
    server.start();
    ZMFileUtils::ensureDirExists(dir / "cache");  // the runtime made it long before
  }
  void unzipFile(const std::string& zip, const std::string& dir,
                 std::shared_ptr<ZMUnzipGamePackageListener> listener) override {
    std::lock_guard lock(mutex);
    unzips.push_back(zip + " -> " + dir);
    hold ? void(held = std::move(listener)) : MerinGameHandle::unzipFile(zip, dir, listener);
  }
  std::string service(const std::string& name) { return server.url("/" + name + "/ced"); }
  // The server's threads read these under the lock.
  Events asked() {
    std::lock_guard lock(mutex);
    return queries;
  }
  void answer(const std::string& name, const std::string& reply) {
    std::lock_guard lock(mutex);
    replies[name] = reply;
  }
  // Serves `body` as the package, listed by host `name` with its MD5.
  void lists(const std::string& name, const std::string& body) {
    WriteFile(dir / "p.zip", body);
    answer(name, R"({"code":200,"plugin_results":[{"plugin_id":"p","version":"1.0","hash":")" +
                     *ZMFileUtils::getFileMD5(dir / "p.zip") + R"(","url":")" +
                     server.url("/p.zip") + "\"}]}");
    std::lock_guard lock(mutex);
    package = body;
  }
  Events run(std::vector<std::string> hosts) {
    manager = std::make_shared<ZMPluginInstallPackageManager>(
        std::move(hosts), dir / "cache", plugin, "dev", "com.example.host", "1.0.0", host);
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
  MakeZip(t->dir / "p.zip", {{"lib/x.so", "X"}});
  t->lists("b", ReadFile(t->dir / "p.zip"));
  const std::string hash = *ZMFileUtils::getFileMD5(t->dir / "p.zip");
  t->answer("a", R"({"code":500})");
  WriteFile(t->plugin + ".detail.json", R"({"updateHash":"u","hash":"old"})");

  EXPECT_EQ(t->run({t->service("a"), t->service("b")}), Events{"success:p"});
  EXPECT_EQ(t->asked(), (Events{"a", "b"}));
  EXPECT_GT(t->host->progressCalls, 0);
  EXPECT_EQ(t->host->distinctThreads(), std::set{std::this_thread::get_id()});
  EXPECT_EQ(t->unzips, Events{t->dir / "cache/" + hash + "_p_1.0.zip -> " + t->plugin});
  EXPECT_EQ(ReadFile(t->plugin + "/lib/x.so"), "X");
  EXPECT_EQ(ListDir(t->dir / "cache"), Events{}) << "the package is deleted once unpacked";
  EXPECT_EQ(ReadFile(t->plugin + ".detail.json"),
            "{\n  \"updateHash\" : \"u\",\n  \"hash\" : \"" + hash + "\"\n}");
  EXPECT_EQ(t->group->sizeForTesting(), 0u) << "the finished run is let go";

  // Only the query moves on to the next host; a failed download or unpack ends the install.
  // Replies of hosts a and b ("lists" names the package), the package, the queries made, and
  // how the one callback begins.
  struct Row {
    std::string a, b, package;
    Events queries;
    std::string failure;
  } rows[] = {
      {R"({"code":404})", "not json", "", {"a", "b"}, "failure:p|get plugin url error (null)|0"},
      {"not json", R"({"code":404})", "", {"a", "b"}, "failure:p|get plugin url error 404|0"},
      {"", "", "", {}, "failure:p||0"},  // no host at all
      {"lists", "", "", {"a"}, "failure:p|NSNetServicesErrorDomain|404"},
      {"lists", "", "corrupt", {"a"}, "failure:p|"},
  };
  for (const auto& row : rows) {
    auto u = Start();
    u->answer("a", row.a);
    u->answer("b", row.b);
    if (row.a == "lists") u->lists("a", row.package);
    const auto events =
        u->run(row.queries.empty() ? Events{} : Events{u->service("a"), u->service("b")});
    EXPECT_EQ(u->asked(), row.queries);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(events[0].starts_with(row.failure)) << events[0];
    EXPECT_FALSE(Exists(u->plugin) || Exists(u->plugin + ".detail.json"));
    EXPECT_EQ(ListDir(u->dir / "cache"), Events{});
    EXPECT_EQ(u->group->sizeForTesting(), 0u);
  }

  // Cancelled while the engine unpacks: the unpack still cleans up, the host hears nothing.
  auto c = Start();
  c->hold = true;
  c->lists("a", ReadFile(t->dir / "p.zip"));
  c->run({c->service("a")});
  ASSERT_TRUE(RunUntil([&] {
    std::lock_guard lock(c->mutex);
    return c->held != nullptr;
  }));
  c->manager->cancel();
  std::thread([held = std::move(c->held)] { held->onUnzipSucceed(); }).join();
  DrainMainQueue();
  EXPECT_EQ(c->host->events(), Events{});
  EXPECT_EQ(ListDir(c->dir / "cache"), Events{});
  EXPECT_EQ(c->group->sizeForTesting(), 0u);
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
