#include "protocol/ZMPluginProtocolPostHash.h"

#include <gtest/gtest.h>

#include "plugin/ZMPluginConfig.h"
#include "runtime/ZMGameConfig.h"
#include "support/TestListeners.h"
#include "support/TestPluginService.h"
#include "support/TestSupport.h"

namespace {

struct HashRecorder : ZMPluginProtocolPostHashListener, EventLog {
  void onGetUpdatePluginList(const ZMValue& results) override { note("list", results); }
  void onPostHashFailure(const ZMError& error) override { note("fail", error); }
};

// A game declaring the plug-ins given as "provider version".
struct Config : ZMGameConfig {
  explicit Config(std::initializer_list<std::string> declared) {
    for (const auto& item : declared)
      list.push_back({{"provider", item.substr(0, item.find(' '))},
                      {"version", item.substr(item.find(' ') + 1)}});
  }
  ZMValue plugins() const override { return list; }
  ZMValue list = ZMValue::array();
};

// A plug-in root where e 0.1 and a 1.0 are installed with a hash; c has an empty one, d only a
// pending update, b is not installed.
struct PluginRoot {
  TempDir dir;
  TestPluginService service;
  PluginRoot() {
    WriteFile(dir / "e_0.1.detail.json", R"({"hash":"he"})");
    WriteFile(dir / "a_1.0.detail.json", R"({"updateHash":"ua","hash":"ha"})");
    WriteFile(dir / "c_3.detail.json", R"({"hash":""})");
    WriteFile(dir / "d_4.detail.json", R"({"updateHash":"u"})");
  }
  std::shared_ptr<ZMPluginProtocolPostHash> query(const std::shared_ptr<HashRecorder>& recorder,
                                                  const std::string& host = "") {
    return std::make_shared<ZMPluginProtocolPostHash>(
        dir.path(), host.empty() ? service.host("s") : host, std::nullopt, "g&1",
        "com.example.host", "1.0.0", recorder, &ZMPluginConfig::installedHash);
  }
};

}  // namespace

TEST(ZMPluginProtocolPostHash, AsksOnlyAboutInstalledPluginsWithAHashAndReportsTheReplyOnce) {
  PluginRoot root;
  LogCapture log;
  auto recorder = std::make_shared<HashRecorder>();
  auto query = root.query(recorder);

  // Nothing installed with a hash: no request and, on purpose, no callback.
  query->execute(Config({"b 2.0", "c 3", "d 4"}));
  query->execute(Config({}));
  DrainMainQueue();
  EXPECT_EQ(root.service.requests().size(), 0u);
  EXPECT_EQ(recorder->size(), 0u);

  query->execute(Config({"e 0.1", "b 2.0", "c 3", "a 1.0", "d 4"}));
  ASSERT_TRUE(RunUntil([&] { return recorder->size() == 1; }));
  const auto requests = root.service.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].body,
            std::string("client_id=") + __watermark_sign +
                "&device_id=(null)&game_id=g&1&app_bundle_id=com.example.host"
                "&client_version=1.0.0&cpu_abi=" +
                ZMDevice::processorName() + "&os=iOS&os_version=" + ZMDevice::systemVersion() +
                "&plugin_list=[\n"
                "  {\n    \"plugin_id\" : \"e\",\n    \"version\" : \"0.1\",\n    \"hash\" : "
                "\"he\"\n  },\n"
                "  {\n    \"plugin_id\" : \"a\",\n    \"version\" : \"1.0\",\n    \"hash\" : "
                "\"ha\"\n  }\n]");

  // The reply, whatever it holds, is logged and reported once.
  const std::string update = R"([{"plugin_id":"a","version":"1.0","hash":"hb","url":"u"}])";
  struct Row {
    int status;  // 0: nothing listens
    std::string reply, event, line = "";
  } rows[] = {
      {500, R"({"code":200,"plugin_results":)" + update + "}", "list:" + update},
      {200, R"({"code":200,"plugin_results":[]})", "list:[]"},
      {200, R"({"code":"200"})", "list:null"},
      {200, R"({"code":500,"plugin_results":[]})", "fail:get plugin hash error 500|0"},
      {200, "not json", "fail:get plugin hash error (null)|0", "post hash request success: (null)"},
      {0, "", "fail:NSURLErrorDomain|-1004",
       "post hash request error: Error Domain=NSURLErrorDomain Code=-1004 "},
  };
  for (const auto& row : rows) {
    root.service.answer("s", row.reply, row.status);
    recorder = std::make_shared<HashRecorder>();
    query = root.query(recorder, row.status ? "" : "http://127.0.0.1:9/ced");
    query->execute(Config({"a 1.0"}));
    ASSERT_TRUE(RunUntil([&] { return recorder->size() == 1; })) << row.reply;
    EXPECT_EQ(recorder->last(), row.event) << row.reply;
    const std::string line =
        row.line.empty() ? "post hash request success: " + row.reply : row.line;
    EXPECT_EQ(log.startingWith(line).size(), 1u) << line;
  }

  // A second execution cancels the first, cancel() silences the next: one report in all.
  const auto cancelled = [&] { return log.startingWith("post hash request has been canceled"); };
  root.service.answer("s", R"({"code":200,"plugin_results":[]})");
  recorder = std::make_shared<HashRecorder>();
  query = root.query(recorder);
  query->execute(Config({"a 1.0"}));
  query->execute(Config({"e 0.1"}));
  ASSERT_TRUE(RunUntil([&] { return recorder->size() == 1 && cancelled().size() == 1; }));
  query->execute(Config({"a 1.0"}));
  query->cancel();
  ASSERT_TRUE(RunUntil([&] { return cancelled().size() == 2; }));
  DrainMainQueue();
  EXPECT_EQ(recorder->events(), std::vector<std::string>{"list:[]"});
}
