// The plug-in service's two queries: where a plug-in's package lives (url) and which installed
// plug-ins have newer packages (hash), as the service receives them and as their listeners hear
// the replies.
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "plugin/ZMPluginConfig.h"
#include "protocol/ZMPluginProtocolPostForm.h"
#include "protocol/ZMPluginProtocolPostHash.h"
#include "protocol/ZMPluginProtocolPostUrl.h"
#include "runtime/ZMGameConfig.h"
#include "support/TestHttpServer.h"
#include "support/TestListeners.h"
#include "support/TestPluginService.h"
#include "support/TestSupport.h"

namespace {

// The form both queries send; `game` is the hash query's "&game_id=..." part.
std::string Form(const std::string& deviceId, const std::string& game, const std::string& list) {
  return std::string("client_id=") + __watermark_sign + "&device_id=" + deviceId + game +
         "&app_bundle_id=com.example.host&client_version=1.0.0&cpu_abi=" +
         ZMDevice::processorName() + "&os=iOS&os_version=" + ZMDevice::systemVersion() +
         "&plugin_list=" + list;
}
struct UrlRecorder : ZMPluginProtocolPostUrlListener, EventLog {
  void onPostUrlSuccess(const std::string& pluginId, const std::string& version,
                        const std::optional<std::string>& hash,
                        const std::optional<std::string>& url) override {
    note("success", pluginId, version, hash, url);
  }
  void onPostUrlFail(const ZMError& error) override { note("fail", error); }
};

std::shared_ptr<ZMPluginProtocolPostUrl> Query(const std::string& host,
                                               const std::shared_ptr<UrlRecorder>& recorder,
                                               std::optional<std::string> deviceId = "dev-1") {
  return std::make_shared<ZMPluginProtocolPostUrl>(host, std::move(deviceId), "com.example.host",
                                                   "1.0.0", recorder);
}

const std::string kMatch = R"({"plugin_id":"p","version":"1.0","hash":"h1","url":"u1"})",
                  kOther = R"({"plugin_id":"p","version":"2.0","hash":"h2","url":"u2"})";

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

TEST(ZMPluginProtocolPostUrl, SendsTheFormRawOnlyTheReplyCodeCountsAndCancelledRequestsStaySilent) {
  TestPluginService service;
  LogCapture log;
  const std::string list = R"("plugin_results":[)" + kMatch + "]}";
  struct Row {
    int status;  // 0: nothing listens, and `reply` is the error line logged instead
    std::string reply, event;
    std::optional<std::string> deviceId = "dev-1";
  } rows[] = {
      // "&" and "=" inside a value go out as they are.
      {200, R"({"code":"200","plugin_results":[)" + kOther + "," + kMatch + "]}",
       "success:p|1.0|h1|u1", "d&x=1"},
      {500, R"({"code":200,)" + list, "success:p|1.0|h1|u1", std::nullopt},
      {200, R"({"code":"+200",)" + list, "success:p|1.0|h1|u1"},  // a sign is read as such
      {200, "<html>busy</html>", "fail:get plugin url error (null)|0"},
      {200, R"({"code":404,)" + list, "fail:get plugin url error 404|0"},
      {200, "{" + list, "fail:get plugin url error (null)|0"},
      {200, R"({"code":200,"plugin_results":[)" + kOther + "]}", "success:p|1.0|(null)|(null)"},
      {200, R"({"code":200,"plugin_results":[]})",
       "fail:get plugin url error: empty plugin list|0"},
      {200, R"({"code":200})", "fail:get plugin url error: empty plugin list|0"},
      {0, "post url request error: Error Domain=NSURLErrorDomain Code=-1004 ",
       "fail:NSURLErrorDomain|-1004"},
  };
  std::vector<std::shared_ptr<UrlRecorder>> recorders;
  size_t sent = 0;
  for (const auto& row : rows) {
    service.answer("s", row.reply, row.status);
    auto recorder = recorders.emplace_back(std::make_shared<UrlRecorder>());
    // A trailing "/" on the host is not doubled.
    auto query = Query(row.status ? service.host("s") + "/" : "http://127.0.0.1:9/ced", recorder,
                       row.deviceId);
    query->execute("p", "1.0");
    ASSERT_TRUE(RunUntil([&] { return recorder->size() == 1; })) << row.reply;
    EXPECT_EQ(recorder->last(), row.event) << row.reply;
    EXPECT_EQ(recorder->distinctThreads(), std::set{std::this_thread::get_id()});
    // Every reply that arrives is logged, failures too; an unreadable one as (null).
    const std::string line = !row.status           ? row.reply
                             : row.reply[0] == '{' ? "post url request success: " + row.reply
                                                   : "post url request success: (null)";
    EXPECT_EQ(log.startingWith(line).size(), 1u) << line;
    const auto requests = service.requests();
    ASSERT_EQ(requests.size(), sent += row.status != 0);
    if (!row.status) continue;
    EXPECT_EQ(requests.back().body,
              Form(row.deviceId.value_or("(null)"), "",
                   "[\n  {\n    \"plugin_id\" : \"p\",\n    \"version\" : \"1.0\"\n  }\n]"));
    EXPECT_EQ(requests.back().get_header_value("Content-Type"),
              "application/x-www-form-urlencoded");
  }
  DrainMainQueue();
  for (const auto& recorder : recorders) EXPECT_EQ(recorder->size(), 1u);

  service.answer("s", R"({"code":200,"plugin_results":[)" + kMatch + "," + kOther + "]}");
  // cancel(), as a cancelled install calls it: logged, and nothing is reported.
  auto recorder = std::make_shared<UrlRecorder>();
  auto query = Query(service.host("s"), recorder);
  query->execute("p", "1.0");
  query->cancel();
  ASSERT_TRUE(RunUntil([&] { return log.contains("post url request has been canceled"); }));
  DrainMainQueue();
  EXPECT_EQ(recorder->size(), 0u);
}

TEST(ZMPluginProtocolPostUrl, AHostileReplyEndsInAFailureWithinItsBounds) {
  // A reply nested far too deep to print, bodies past the size bound (a compressed one only once
  // inflated), one that never finishes, and a large but acceptable one whose log line stays short.
  std::string deep = R"({"code":200,"plugin_results":[{"x":)";
  deep += std::string(50000, '[') + std::string(50000, ']') + "}]}";
  TempDir dir;  // 64 MiB of spaces, gzip-compressed to a few dozen KiB
  ASSERT_EQ(std::system(
                ("head -c 67108864 /dev/zero | tr '\\0' ' ' | gzip -9 > " + Quote(dir / "bomb.gz"))
                    .c_str()),
            0);
  const std::string bomb = ReadFile(dir / "bomb.gz");
  std::string many = R"({"code":200,"plugin_results":[)";
  for (int i = 0; i < 2000; ++i) many += kOther + ",";
  many += kMatch + "]}";

  TestHttpServer server;
  const auto reply = [&](const std::string& name, std::string body, std::string encoding = "") {
    server.Post("/" + name + "/ced/runtime/plugin/url",
                [body, encoding](const httplib::Request&, httplib::Response& res) {
                  if (!encoding.empty()) res.set_header("Content-Encoding", encoding);
                  res.set_content(body, "application/octet-stream");
                });
  };
  reply("deep", deep);
  reply("long", std::string(ZMPluginProtocolPostForm::kMaxReplyBytes + 1, ' '));
  reply("bomb", bomb, "gzip");
  reply("many", many);
  server.Post("/drip/ced/runtime/plugin/url", Drip(server, many, std::chrono::milliseconds(50)));
  server.start();
  ZMPluginProtocolPostForm::setReplyDeadlineForTesting(1);

  LogCapture log;
  for (const auto& [name, event] : std::vector<std::pair<std::string, std::string>>{
           {"deep", "fail:get plugin url error (null)|0"},
           {"long", "fail:NSURLErrorDomain|-1103"},
           {"bomb", "fail:NSURLErrorDomain|-1103"},
           {"drip", "fail:NSURLErrorDomain|-1001"},
           {"many", "success:p|1.0|h1|u1"},
       }) {
    auto recorder = std::make_shared<UrlRecorder>();
    auto query = Query(server.url("/" + name + "/ced"), recorder);
    query->execute("p", "1.0");
    ASSERT_TRUE(RunUntil([&] { return recorder->size() == 1; })) << name;
    EXPECT_EQ(recorder->last(), event) << name;
  }
  ZMPluginProtocolPostForm::setReplyDeadlineForTesting(0);
  for (const auto& line : log.lines()) EXPECT_LT(line.size(), 2048u) << line.substr(0, 100);
  EXPECT_EQ(log.startingWith("post url request success: (null)").size(), 1u) << "the deep one";
}

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
            Form("(null)", "&game_id=g&1",
                 "[\n"
                 "  {\n    \"plugin_id\" : \"e\",\n    \"version\" : \"0.1\",\n    \"hash\" : "
                 "\"he\"\n  },\n"
                 "  {\n    \"plugin_id\" : \"a\",\n    \"version\" : \"1.0\",\n    \"hash\" : "
                 "\"ha\"\n  }\n]"));

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

  // cancel(), as a cancelled update calls it: logged, and nothing is reported.
  recorder = std::make_shared<HashRecorder>();
  query = root.query(recorder);
  query->execute(Config({"a 1.0"}));
  query->cancel();
  ASSERT_TRUE(RunUntil([&] { return log.contains("post hash request has been canceled"); }));
  DrainMainQueue();
  EXPECT_EQ(recorder->size(), 0u);
}
