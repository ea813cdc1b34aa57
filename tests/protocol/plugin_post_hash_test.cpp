#include "protocol/ZMPluginProtocolPostHash.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "plugin/ZMPluginManager.h"
#include "support/TestHttpServer.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"

namespace {

// A plug-in service on 127.0.0.1 that keeps every request body and answers with the status and
// body set last.
struct HashService {
  TestHttpServer server;
  std::mutex mutex;
  std::vector<std::string> bodies;
  int status = 200;
  std::string reply = R"({"code":200,"plugin_results":[]})";

  HashService() {
    server.Post("/ced/runtime/plugin/hash",
                [this](const httplib::Request& request, httplib::Response& response) {
                  std::lock_guard lock(mutex);
                  bodies.push_back(request.body);
                  response.status = status;
                  response.set_content(reply, "application/json");
                });
    server.start();
  }
  void answer(int newStatus, std::string newReply) {
    std::lock_guard lock(mutex);
    status = newStatus;
    reply = std::move(newReply);
  }
};

struct HashRecorder : ZMPluginProtocolPostHashListener, EventLog {
  void onGetUpdatePluginList(const ZMValue& results) override { note("list", results); }
  void onPostHashFailure(const ZMError& error) override { note("fail", error); }
};

struct Config : ZMZimoGameConfig {
  template <typename... Declarations>
  explicit Config(Declarations... plugins) : list(ZMValue::array({plugins...})) {}
  ZMValue deviceOrientation() const override { return "landscape"; }
  bool showStatusBar() const override { return false; }
  ZMValue runtimeVersion() const override { return ""; }
  ZMValue subpackages() const override { return ZMValue::array(); }
  ZMValue plugins() const override { return list; }
  ZMValue list;
};

ZMValue Declare(const std::string& provider, const std::string& version) {
  return {{"provider", provider}, {"version", version}};
}

// A plug-in root where e 0.1 and a 1.0 are installed with a hash; c has an empty one, d only a
// pending update, b is not installed.
struct PluginRoot {
  TempDir dir;
  PluginRoot() {
    WriteFile(ZMPluginManager::getPluginConfigFile(dir.path(), "e", "0.1"), R"({"hash":"he"})");
    WriteFile(ZMPluginManager::getPluginConfigFile(dir.path(), "a", "1.0"),
              R"({"updateHash":"ua","hash":"ha"})");
    WriteFile(ZMPluginManager::getPluginConfigFile(dir.path(), "c", "3"), R"({"hash":""})");
    WriteFile(ZMPluginManager::getPluginConfigFile(dir.path(), "d", "4"), R"({"updateHash":"u"})");
  }
  std::shared_ptr<ZMPluginProtocolPostHash> query(const std::string& host,
                                                  const std::shared_ptr<HashRecorder>& recorder) {
    return std::make_shared<ZMPluginProtocolPostHash>(
        dir.path(), host, std::nullopt, "g&1", "com.example.host", "1.0.0", recorder,
        static_cast<ZMPluginProtocolPostHash::PluginConfigFile>(
            &ZMPluginManager::getPluginConfigFile));
  }
};

}  // namespace

TEST(ZMPluginProtocolPostHash, AsksOnlyAboutInstalledPluginsWithAHash) {
  HashService service;
  PluginRoot root;
  auto recorder = std::make_shared<HashRecorder>();
  auto query = root.query(service.server.url("/ced"), recorder);

  // Nothing installed with a hash: no request and, on purpose, no callback.
  query->execute(Config(Declare("b", "2.0"), Declare("c", "3"), Declare("d", "4")));
  query->execute(Config());
  DrainMainQueue();
  EXPECT_EQ(service.server.requestCount(), 0u);
  EXPECT_EQ(recorder->size(), 0u);

  query->execute(Config(Declare("e", "0.1"), Declare("b", "2.0"), Declare("c", "3"),
                        Declare("a", "1.0"), Declare("d", "4")));
  ASSERT_TRUE(RunUntil([&] { return recorder->size() == 1; }));
  const std::string expected =
      std::string("client_id=") + __watermark_sign +
      "&device_id=(null)&game_id=g&1&app_bundle_id=com.example.host&client_version=1.0.0"
      "&cpu_abi=" +
      ZMDevice::processorName() + "&os=iOS&os_version=" + ZMDevice::systemVersion() +
      "&plugin_list=[\n"
      "  {\n    \"plugin_id\" : \"e\",\n    \"version\" : \"0.1\",\n    \"hash\" : \"he\"\n  },\n"
      "  {\n    \"plugin_id\" : \"a\",\n    \"version\" : \"1.0\",\n    \"hash\" : \"ha\"\n  }\n]";
  std::lock_guard lock(service.mutex);
  ASSERT_EQ(service.bodies.size(), 1u);
  EXPECT_EQ(service.bodies[0], expected);
}

TEST(ZMPluginProtocolPostHash, ReportsTheListOrTheFailure) {
  HashService service;
  PluginRoot root;
  LogCapture log;
  const std::string update = R"([{"plugin_id":"a","version":"1.0","hash":"hb","url":"u"}])";
  struct Row {
    std::string host;
    int status;
    std::string reply;
    std::string event;
    std::string logLine;
  } rows[] = {
      {"/ced", 500, R"({"code":200,"plugin_results":)" + update + "}", "list:" + update, ""},
      {"/ced", 200, R"({"code":200,"plugin_results":[]})", "list:[]", ""},
      {"/ced", 200, R"({"code":"200"})", "list:null", ""},
      {"/ced", 200, R"({"code":500,"plugin_results":[]})", "fail:get plugin hash error 500|0", ""},
      {"/ced", 200, "not json", "fail:get plugin hash error (null)|0",
       "post hash request success: (null)"},
      {"", 0, "", "fail:NSURLErrorDomain|-1004",
       "post hash request error: Error Domain=NSURLErrorDomain Code=-1004 "},
  };
  for (const auto& row : rows) {
    if (!row.host.empty()) service.answer(row.status, row.reply);
    auto recorder = std::make_shared<HashRecorder>();
    auto query = root.query(
        row.host.empty() ? "http://127.0.0.1:9/ced" : service.server.url(row.host), recorder);
    query->execute(Config(Declare("a", "1.0")));
    ASSERT_TRUE(RunUntil([&] { return recorder->size() == 1; })) << row.reply;
    EXPECT_EQ(recorder->last(), row.event) << row.reply;
    const std::string line =
        row.logLine.empty() ? "post hash request success: " + row.reply : row.logLine;
    EXPECT_EQ(log.startingWith(line).size(), 1u) << line;
  }

  // A second execution cancels the first, cancel() silences the next: one report in all.
  const auto cancelled = [&] { return log.startingWith("post hash request has been canceled"); };
  service.answer(200, R"({"code":200,"plugin_results":[]})");
  auto recorder = std::make_shared<HashRecorder>();
  auto query = root.query(service.server.url("/ced"), recorder);
  query->execute(Config(Declare("a", "1.0")));
  query->execute(Config(Declare("e", "0.1")));
  ASSERT_TRUE(RunUntil([&] { return recorder->size() == 1 && cancelled().size() == 1; }));
  query->execute(Config(Declare("a", "1.0")));
  query->cancel();
  ASSERT_TRUE(RunUntil([&] { return cancelled().size() == 2; }));
  DrainMainQueue();
  EXPECT_EQ(recorder->events(), std::vector<std::string>{"list:[]"});
}
