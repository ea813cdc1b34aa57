#include "plugin/ZMPluginCheckUpdateManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <map>

#include "PluginFlows.h"
#include "plugin/ZMPluginManager.h"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// "a" 1.0 installed (something for the query to ask about), and a game that declares it beside a
// hostile declaration.
struct Layout : PluginFlows {
  Layout()
      : PluginFlows(R"({"plugins":{"a":{"provider":"a","version":"1.0"},)"
                    R"("x":{"provider":"../x","version":"1.0"}}})") {
    WriteFile(root + "/a_1.0/main.js", "x");
    WriteFile(configFile("a"), R"({"hash":"h0","k":1})");
  }
  std::string configFile(const std::string& id) const {
    return ZMPluginManager::getPluginConfigFile(root, id, "1.0");
  }
  ZMValue configOf(const std::string& id) const {
    return ZMFileUtils::readJSONObjectFromFile(configFile(id)).value_or(nullptr);
  }
  std::string package(const std::string& hash, const std::string& id) const {
    return ZMPluginManager::getPluginPackageDownloadPath(cache, id, "1.0", hash);
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

TEST(ZMPluginCheckUpdateManager, RecordsSafeEntriesAndDownloadsWhatTheCacheLacksOneAtATime) {
  Layout at;
  const std::string good = at.md5("pp"), url = at.service.package("p");
  // Entries that would name a file outside the root or the cache, or no file, are passed over.
  ZMValue entries =
      ZMValue::array({Entry("../../escape", good, url), Entry("a", good, url, "1.0/../../escape"),
                      Entry("a", "../../escape", url), Entry(std::string("a\0b", 3), good, url),
                      Entry("a", std::string("1\0", 2), url), Entry(7, good, url), "junk"});
  const size_t hostile = entries.size();
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
  Lines expected = {"s hash"}, hashes;
  for (const auto& row : rows) {
    std::string& hash = hashes.emplace_back(at.md5(row.id + row.id));
    if (row.id == "E") std::transform(hash.begin(), hash.end(), hash.begin(), ::toupper);
    if (!row.cached.empty())
      WriteFile(at.package(hash, row.id), row.cached == "ok" ? row.id + row.id : "junk");
    if (row.id != "gone") at.service.serve(row.id, row.id + row.id);
    entries.push_back(Entry(row.id, hash, at.service.package(row.id)));
    expected.insert(expected.end(), row.gets.begin(), row.gets.end());
  }
  at.service.lists("s", entries);
  LogCapture lines;
  auto before = at.files();
  auto manager = at.prefetch({"s"});
  ASSERT_TRUE(RunUntil([&] { return Exists(at.package(hashes.back(), "f")); }));
  DrainMainQueue();

  EXPECT_EQ(at.service.log(), expected);
  auto after = at.files();
  for (size_t i = 0; i < std::size(rows); ++i) {
    const std::string id = rows[i].id, package = at.package(hashes[i], id);
    const ZMValue config = id == "a" ? ZMValue{{"hash", "h0"}, {"k", 1}, {"updateHash", hashes[i]}}
                                     : ZMValue{{"updateHash", hashes[i]}};
    EXPECT_EQ(at.configOf(id), config) << id;  // other keys kept, in place
    EXPECT_EQ(after.contains(package) ? after[package] : "-", rows[i].kept ? id + id : "-") << id;
    for (auto* files : {&before, &after}) files->erase(package), files->erase(at.configFile(id));
  }
  EXPECT_EQ(after, before) << "nothing else is written, inside the root and cache or outside";
  EXPECT_EQ(lines.startingWith("skip plugin update entry: ").size(), hostile);
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
    const std::string hash = at.md5("pp"), package = at.package(hash, "a");
    const ZMValue entries = ZMValue::array({Entry("a", hash, at.service.package("p"))});
    at.service.serve("p", "pp");
    if (row.primary == "ok") at.service.lists("primary", entries);
    if (row.fallback == "ok") at.service.lists("fallback", entries);
    const bool downloads = row.expected.back() == "GET p";
    auto manager =
        at.prefetch({row.primary == "down" ? "http://127.0.0.1:9/ced" : "primary", "fallback"});
    ASSERT_TRUE(RunUntil([&] {
      return downloads ? Exists(package) : at.service.log().size() == row.expected.size();
    }));
    DrainMainQueue();
    EXPECT_EQ(at.service.log(), row.expected) << row.primary << "/" << row.fallback;
    EXPECT_EQ(Exists(package), downloads);
  }
}

TEST(ZMPluginCheckUpdateManager, CancelEndsTheQueryOrTheDownloadsForGood) {
  for (const std::string stall : {"hash", "p"}) {
    Layout at;
    auto& service = at.service;
    service.serve("p", "pp");
    service.lists("primary", ZMValue::array({Entry("p", at.md5("pp"), service.package("p")),
                                             Entry("q", at.md5("qq"), service.package("q"))}));
    service.stall(stall);
    const Lines expected = stall == "hash" ? Lines{"primary hash"} : Lines{"primary hash", "GET p"};
    auto manager = at.prefetch({"primary", "fallback"});
    ASSERT_TRUE(RunUntil([&] { return service.log().size() == expected.size(); }));
    manager->cancel();
    service.release();  // the reply now comes, and must change nothing
    ASSERT_TRUE(RunUntil([&] { return service.answeredAfterRelease() == 1; }));
    DrainMainQueue();
    EXPECT_EQ(service.log(), expected);            // neither the fallback nor the next package
    EXPECT_TRUE(fs::is_empty(at.cache)) << stall;  // a cut transfer is never moved into place
    EXPECT_EQ(at.configOf("p").is_object(), stall == "p");
    EXPECT_TRUE(at.configOf("q").is_null());
  }
}
