#include "plugin/ZMPluginCheckUpdateManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>

#include "plugin/ZMPluginManager.h"
#include "runtime/ZMGameConfig.h"
#include "support/TestHttpServer.h"
#include "support/TestSupport.h"
#include "tavo/ZMFileUtils.h"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// A plug-in service on 127.0.0.1 that hosts the packages too. Requests go into the shared `log`
// in arrival order ("<name> hash", "GET <file>"); package transfers that overlap are counted.
// The route named by `stall` ("hash" or a file) hangs until release().
struct Service {
  Service(std::string who, Lines& log, std::mutex& mutex) : name(who), log(log), mutex(mutex) {
    server.Post("/ced/runtime/plugin/hash", [this](const auto&, auto& res) {
      res.set_content(record(name + " hash", "hash", false), "application/json");
    });
    server.Get("/pkg/(.*)", [this](const httplib::Request& req, httplib::Response& res) {
      const std::string file = req.matches[1];
      const bool found = record("GET " + file, file, true) == "found";
      res.status = found ? 200 : 404;
      res.set_content(found ? file + file : "", "application/zip");
    });
    server.start();
  }
  ~Service() { release(); }
  void release() {
    std::lock_guard lock(mutex);
    released = true;
    freed.notify_all();
  }
  std::string record(const std::string& line, const std::string& route, bool transfer) {
    std::unique_lock lock(mutex);
    log.push_back(line);
    if (transfer) maxActive = std::max(maxActive, ++active);
    if (stall == route) {
      freed.wait_for(lock, std::chrono::seconds(10), [&] { return released; });
      ++answeredAfterRelease;
    } else {
      lock.unlock();
      server.pause(std::chrono::milliseconds(20));  // a window in which a parallel GET would show
      lock.lock();
    }
    if (transfer) --active;
    return transfer ? (route == "gone" ? "" : "found") : reply;
  }
  std::string pkg(const std::string& file) { return server.url("/pkg/" + file); }
  void answer(const ZMValue& entries, std::string stallAt = "") {
    std::lock_guard lock(mutex);
    reply = ZMValue{{"code", 200}, {"plugin_results", entries}}.dump();
    stall = std::move(stallAt);
  }

  TestHttpServer server;
  std::string name;
  Lines& log;
  std::mutex& mutex;  // guards the log and everything below
  std::string reply = R"({"code":500})", stall;
  int active = 0, maxActive = 0, answeredAfterRelease = 0;
  bool released = false;
  std::condition_variable freed;
};

// A plug-in root and a package cache side by side, with "a" 1.0 installed (something for the
// query to ask about) and a game that declares it beside a hostile declaration.
struct Layout {
  TempDir dir;
  std::string root = dir / "home/plugin", cache = dir / "home/cache";
  Layout() {
    fs::create_directories(cache);
    WriteFile(root + "/a_1.0/main.js", "x");
    WriteFile(config("a", "1.0"), R"({"hash":"h0","k":1})");
    WriteFile(dir / "game.config.json", R"({"plugins":{"a":{"provider":"a","version":"1.0"},)"
                                        R"("x":{"provider":"../x","version":"1.0"}}})");
  }
  std::shared_ptr<ZMPluginCheckUpdateManager> start(std::vector<std::string> hosts) {
    auto manager = std::make_shared<ZMPluginCheckUpdateManager>(
        root, cache, std::move(hosts), std::nullopt, "g", "com.example.host", "1.0.0");
    manager->execute(ZMGameConfig::createGameCofingWithPath(dir / "game.config.json"));
    return manager;
  }
  std::string config(const std::string& id, const std::string& version) const {
    return ZMPluginManager::getPluginConfigFile(root, id, version);
  }
  ZMValue configOf(const std::string& id) const {
    return ZMFileUtils::readJSONObjectFromFile(config(id, "1.0")).value_or(nullptr);
  }
  std::string package(const std::string& hash, const std::string& id) const {
    return ZMPluginManager::getPluginPackageDownloadPath(cache, id, "1.0", hash);
  }
  std::string md5(const std::string& bytes) const {
    WriteFile(dir / "md5", bytes);
    return *ZMFileUtils::getFileMD5(dir / "md5");
  }
  std::map<std::string, std::string> files() const {  // every file below, with its bytes
    std::map<std::string, std::string> all;
    for (const auto& item : fs::recursive_directory_iterator(dir.path()))
      if (item.is_regular_file()) all[item.path()] = ReadFile(item.path());
    return all;
  }
};

ZMValue Entry(const ZMValue& id, const std::string& hash, const std::string& url,
              const std::string& version = "1.0") {
  return {{"plugin_id", id}, {"version", version}, {"hash", hash}, {"url", url}};
}

}  // namespace

TEST(ZMPluginCheckUpdateManager, RecordsEveryEntryAndDownloadsWhatTheCacheLacksOneAtATime) {
  Layout at;
  Lines log;
  std::mutex mutex;
  Service service("s", log, mutex);
  struct Row {
    std::string id, cached;  // cached: "" none, "ok" intact, "bad" damaged
    Lines gets;
    bool kept;
  } rows[] = {
      {"a", "", {"GET a"}, true},        {"b", "ok", {}, true},  // intact: not fetched again
      {"gone", "", {"GET gone"}, false},                         // 404: the next one still comes
      {"d", "bad", {"GET d"}, true},     {"E", "ok", {"GET E", "GET E"}, false},  // upper case
      {"f", "", {"GET f"}, true},
  };
  ZMValue entries = ZMValue::array();
  Lines expected = {"s hash"};
  for (const auto& row : rows) {
    std::string hash = at.md5(row.id + row.id);
    if (row.id == "E") std::transform(hash.begin(), hash.end(), hash.begin(), ::toupper);
    if (!row.cached.empty())
      WriteFile(at.package(hash, row.id), row.cached == "ok" ? row.id + row.id : "junk");
    entries.push_back(Entry(row.id, hash, service.pkg(row.id)));
    expected.insert(expected.end(), row.gets.begin(), row.gets.end());
  }
  service.answer(entries);
  auto manager = at.start({service.server.url("/ced")});
  ASSERT_TRUE(
      RunUntil([&] { return Exists(at.package(entries[5]["hash"].get<std::string>(), "f")); }));
  DrainMainQueue();

  std::lock_guard lock(mutex);
  EXPECT_EQ(log, expected);
  EXPECT_EQ(service.maxActive, 1);
  for (size_t i = 0; i < std::size(rows); ++i) {
    const std::string id = rows[i].id, hash = entries[i]["hash"], package = at.package(hash, id);
    const ZMValue config = id == "a" ? ZMValue{{"hash", "h0"}, {"k", 1}, {"updateHash", hash}}
                                     : ZMValue{{"updateHash", hash}};
    EXPECT_EQ(at.configOf(id), config) << id;  // other keys kept, in place
    EXPECT_EQ(Exists(package) ? ReadFile(package) : "-", rows[i].kept ? id + id : "-") << id;
  }
}

TEST(ZMPluginCheckUpdateManager, AsksTheFallbackOnlyAfterThePrimaryFails) {
  struct Row {
    std::string primary, fallback;  // "ok", "refuse" (code 500) or "down"
    Lines expected;
  } rows[] = {
      {"ok", "ok", {"primary hash", "GET p"}},
      {"refuse", "ok", {"primary hash", "fallback hash", "GET p"}},
      {"down", "ok", {"fallback hash", "GET p"}},
      {"refuse", "refuse", {"primary hash", "fallback hash"}},
  };
  for (const auto& row : rows) {
    Layout at;
    Lines log;
    std::mutex mutex;
    Service primary("primary", log, mutex), fallback("fallback", log, mutex);
    const std::string hash = at.md5("pp"), package = at.package(hash, "a");
    if (row.primary == "ok") primary.answer(ZMValue::array({Entry("a", hash, primary.pkg("p"))}));
    if (row.fallback == "ok")
      fallback.answer(ZMValue::array({Entry("a", hash, fallback.pkg("p"))}));
    if (row.primary == "down") primary.server.stop();
    const bool downloads = row.expected.back() == "GET p";
    auto manager = at.start({primary.server.url("/ced"), fallback.server.url("/ced")});
    ASSERT_TRUE(RunUntil([&] {
      std::lock_guard lock(mutex);
      return downloads ? Exists(package) : log.size() == row.expected.size();
    }));
    DrainMainQueue();
    std::lock_guard lock(mutex);
    EXPECT_EQ(log, row.expected) << row.primary << "/" << row.fallback;
    EXPECT_EQ(Exists(package), downloads);
  }
}

TEST(ZMPluginCheckUpdateManager, HostileNamesWriteNothingOutsideTheRootOrTheCache) {
  Layout at;
  Lines log;
  std::mutex mutex;
  Service service("s", log, mutex);
  const std::string good = at.md5("pp"), url = service.pkg("p");
  const ZMValue entries =
      ZMValue::array({Entry("../../escape", good, url), Entry("a", good, url, "1.0/../../escape"),
                      Entry("a", good, url, "."), Entry("a", "../../escape", url),
                      Entry(std::string("a\0b", 3), good, url), Entry("..", good, url),
                      Entry("a", std::string("1\0", 2), url), Entry(7, good, url), "junk",
                      Entry("ok", good, url)});
  service.answer(entries);
  LogCapture lines;
  auto before = at.files();
  auto manager = at.start({service.server.url("/ced")});
  ASSERT_TRUE(RunUntil([&] { return Exists(at.package(good, "ok")); }));
  DrainMainQueue();

  auto after = at.files();
  EXPECT_EQ(after[at.package(good, "ok")], "pp");
  after.erase(at.package(good, "ok"));
  EXPECT_EQ(at.configOf("ok"), (ZMValue{{"updateHash", good}}));
  after.erase(at.config("ok", "1.0"));
  EXPECT_EQ(after, before);
  EXPECT_EQ(lines.startingWith("skip plugin update entry: ").size(), entries.size() - 1);
  std::lock_guard lock(mutex);
  EXPECT_EQ(log, (Lines{"s hash", "GET p"}));
}

TEST(ZMPluginCheckUpdateManager, CancelEndsTheQueryOrTheDownloadsForGood) {
  for (const std::string stall : {"hash", "p"}) {
    Layout at;
    Lines log;
    std::mutex mutex;
    Service primary("primary", log, mutex), fallback("fallback", log, mutex);
    primary.answer(ZMValue::array({Entry("p", at.md5("pp"), primary.pkg("p")),
                                   Entry("q", at.md5("qq"), primary.pkg("q"))}),
                   stall);
    const Lines expected = stall == "hash" ? Lines{"primary hash"} : Lines{"primary hash", "GET p"};
    auto manager = at.start({primary.server.url("/ced"), fallback.server.url("/ced")});
    ASSERT_TRUE(RunUntil([&] {
      std::lock_guard lock(mutex);
      return log.size() == expected.size();
    }));
    manager->cancel();
    primary.release();  // the reply now comes, and must change nothing
    ASSERT_TRUE(RunUntil([&] {
      std::lock_guard lock(mutex);
      return primary.answeredAfterRelease == 1;
    }));
    DrainMainQueue();
    std::lock_guard lock(mutex);
    EXPECT_EQ(log, expected);                      // neither the fallback nor the next package
    EXPECT_TRUE(fs::is_empty(at.cache)) << stall;  // a cut transfer is never moved into place
    EXPECT_EQ(at.configOf("p").is_object(), stall == "p");
    EXPECT_TRUE(at.configOf("q").is_null());
  }
}
