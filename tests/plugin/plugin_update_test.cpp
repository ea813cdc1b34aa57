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

// "a" 1.0 installed, for the query to ask about, declared by the game beside a hostile plug-in.
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
  std::map<std::string, std::string> files() const {  // every file below, with its bytes
    std::map<std::string, std::string> all;
    for (const auto& item : fs::recursive_directory_iterator(dir.path()))
      if (item.is_regular_file()) all[item.path()] = ReadFile(item.path());
    return all;
  }
};

}  // namespace

TEST(ZMPluginCheckUpdateManager, RecordsSafeEntriesAndDownloadsWhatTheCacheLacksOneAtATime) {
  Layout at;
  const std::string good = at.md5("pp"), url = at.service.package("p");
  // Entries that would name a file outside the root or the cache, or no file, are passed over.
  ZMValue entries =
      ZMValue::array({Entry("../../escape", good, url), Entry("a", good, url, "1.0/../../escape"),
                      Entry("a", "../../escape", url), Entry(std::string("a\0b", 3), good, url),
                      Entry("a", std::string("1\0", 2), url), Entry(7, good, url), "junk"});
  // Each plug-in, its package in the cache ("" none, "ok" intact, "bad" damaged), the fetches of
  // it, and whether it ends up kept there.
  const std::tuple<std::string, std::string, Lines, bool> rows[] = {
      {"a", "", {"GET a"}, true},        {"b", "ok", {}, true},  // intact: not fetched again
      {"gone", "", {"GET gone"}, false},                         // 404: the next one still comes
      {"d", "bad", {"GET d"}, true},     {"E", "ok", {"GET E", "GET E"}, false},  // upper case
      {"f", "", {"GET f"}, true},
  };
  Lines expected = {"s hash"}, hashes;
  for (const auto& [id, cached, gets, kept] : rows) {
    std::string& hash = hashes.emplace_back(at.md5(id + id));
    if (id == "E") std::transform(hash.begin(), hash.end(), hash.begin(), ::toupper);
    if (!cached.empty()) WriteFile(at.cachedPackage(hash, id), cached == "ok" ? id + id : "junk");
    if (id != "gone") at.service.serve(id, id + id);
    entries.push_back(Entry(id, hash, at.service.package(id)));
    expected.insert(expected.end(), gets.begin(), gets.end());
  }
  at.service.lists("s", entries);
  LogCapture lines;
  auto before = at.files();
  auto manager = at.prefetch({"s"});
  ASSERT_TRUE(RunUntil([&] { return Exists(at.cachedPackage(hashes.back(), "f")); }));
  DrainMainQueue();

  EXPECT_EQ(at.service.log(), expected);
  auto after = at.files();
  for (size_t i = 0; i < std::size(rows); ++i) {
    const auto& [id, cached, gets, kept] = rows[i];
    const std::string package = at.cachedPackage(hashes[i], id);
    const ZMValue config = id == "a" ? ZMValue{{"hash", "h0"}, {"k", 1}, {"updateHash", hashes[i]}}
                                     : ZMValue{{"updateHash", hashes[i]}};
    EXPECT_EQ(at.configOf(id), config) << id;  // other keys kept, in place
    EXPECT_EQ(after.contains(package) ? after[package] : "-", kept ? id + id : "-") << id;
    for (auto* files : {&before, &after}) files->erase(package), files->erase(at.configFile(id));
  }
  EXPECT_EQ(after, before) << "nothing else is written, inside the root and cache or outside";
  EXPECT_EQ(lines.startingWith("skip plugin update entry: ").size(), 7u) << "one per hostile entry";
}

TEST(ZMPluginCheckUpdateManager, AsksOnlyAboutInstalledPluginsWithAHashInTheGamesOrder) {
  // e and a are installed with a hash, c with an empty one, d with only a pending update; b not.
  PluginFlows at(R"({"plugins":{"e":{"provider":"e","version":"0.1"},)"
                 R"("b":{"provider":"b","version":"2.0"},"c":{"provider":"c","version":"3"},)"
                 R"("a":{"provider":"a","version":"1.0"},"d":{"provider":"d","version":"4"}}})");
  WriteFile(at.root + "/e_0.1.detail.json", R"({"hash":"he"})");
  WriteFile(at.root + "/a_1.0.detail.json", R"({"updateHash":"ua","hash":"ha"})");
  WriteFile(at.root + "/c_3.detail.json", R"({"hash":""})");
  WriteFile(at.root + "/d_4.detail.json", R"({"updateHash":"u"})");
  auto manager = at.prefetch({"s"});
  ASSERT_TRUE(RunUntil([&] { return at.service.log().size() == 1; }));
  EXPECT_EQ(at.service.requests()[0].body,
            std::string("client_id=") + __watermark_sign +
                "&device_id=(null)&game_id=g&app_bundle_id=com.example.host"
                "&client_version=1.0.0&cpu_abi=" +
                ZMDevice::processorName() + "&os=iOS&os_version=" + ZMDevice::systemVersion() +
                "&plugin_list=[\n  {\n    \"plugin_id\" : \"e\",\n    \"version\" : \"0.1\",\n"
                "    \"hash\" : \"he\"\n  },\n  {\n    \"plugin_id\" : \"a\",\n"
                "    \"version\" : \"1.0\",\n    \"hash\" : \"ha\"\n  }\n]");

  // A game with none of its plug-ins installed with a hash asks nothing.
  WriteFile(at.dir / "game.config.json", R"({"plugins":{"b":{"provider":"b","version":"2.0"},)"
                                         R"("c":{"provider":"c","version":"3"},)"
                                         R"("d":{"provider":"d","version":"4"}}})");
  manager = at.prefetch({"s"});
  DrainMainQueue();
  EXPECT_EQ(at.service.log(), Lines{"s hash"});
}

TEST(ZMPluginCheckUpdateManager, ReadsAnyReplyOfThePrimaryAndAsksTheFallbackOnlyWhenItFails) {
  // The primary's reply ("ok": the package listed; "down": nothing listens), what the service sees,
  // the log of the reply ("success: " and its body by default), its status; the fallback lists the
  // package too, or with `refuse` answers code 500.
  struct Row {
    std::string primary;
    Lines expected;
    std::string line = "";
    int status = 200;
    bool refuse = false;
  } rows[] = {
      {"ok", {"primary hash", "GET p"}},
      {"ok", {"primary hash", "GET p"}, "", 500},  // only the reply's code counts
      {R"({"code":500})", {"primary hash", "fallback hash", "GET p"}},
      {"not json", {"primary hash", "fallback hash", "GET p"}, "success: (null)"},
      {"down", {"fallback hash", "GET p"}, "error: Error Domain=NSURLErrorDomain Code=-1004 "},
      {R"({"code":500})", {"primary hash", "fallback hash"}, "", 200, true},
      // A success that lists nothing, in whatever form, ends the prefetch.
      {R"({"code":"200"})", {"primary hash"}},
      {R"({"code":200,"plugin_results":[]})", {"primary hash"}},
  };
  for (const auto& row : rows) {
    Layout at;
    LogCapture log;
    const std::string hash = at.md5("pp"), package = at.cachedPackage(hash, "a");
    const ZMValue listing = {{"code", 200},
                             {"plugin_results", {Entry("a", hash, at.service.package("p"))}}};
    const std::string body = row.primary == "ok" ? listing.dump() : row.primary;
    at.service.serve("p", "pp");
    at.service.answer("primary", body, row.status);
    if (!row.refuse) at.service.answer("fallback", listing.dump());
    const bool downloads = row.expected.back() == "GET p";
    auto manager =
        at.prefetch({row.primary == "down" ? "http://127.0.0.1:9/ced" : "primary", "fallback"});
    ASSERT_TRUE(RunUntil([&] {
      return downloads ? Exists(package) : at.service.log().size() == row.expected.size();
    }));
    DrainMainQueue();
    EXPECT_EQ(at.service.log(), row.expected) << body;
    EXPECT_EQ(Exists(package), downloads);
    const std::string line =
        "post hash request " + (row.line.empty() ? "success: " + body : row.line);
    EXPECT_EQ(log.startingWith(line).size(), row.refuse ? 2u : 1u) << line;  // a refusal each
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
