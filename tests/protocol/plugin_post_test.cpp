// The plug-in service's query for where a plug-in's package lives, as the service receives it and
// as its listener hears the replies. (The query for newer packages is seen through the update
// prefetch, in the plug-in tests.)
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "protocol/ZMPluginProtocolPostForm.h"
#include "protocol/ZMPluginProtocolPostUrl.h"
#include "support/TestHttpServer.h"
#include "support/TestListeners.h"
#include "support/TestPluginService.h"
#include "support/TestSupport.h"

namespace {

std::string Form(const std::string& deviceId, const std::string& list) {
  return std::string("client_id=") + __watermark_sign + "&device_id=" + deviceId +
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
              Form(row.deviceId.value_or("(null)"),
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
