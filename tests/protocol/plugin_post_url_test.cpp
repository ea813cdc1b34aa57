#include "protocol/ZMPluginProtocolPostUrl.h"

#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/TestHttpServer.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"

namespace {

// A plug-in service on 127.0.0.1 that keeps every request and answers with the status and body
// set last.
struct UrlService {
  TestHttpServer server;
  std::mutex mutex;
  std::vector<httplib::Request> requests;
  int status = 200;
  std::string reply;

  UrlService() {
    server.Post("/ced/runtime/plugin/url",
                [this](const httplib::Request& request, httplib::Response& response) {
                  std::lock_guard lock(mutex);
                  requests.push_back(request);
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

const std::string kMatch = R"({"plugin_id":"p","version":"1.0","hash":"h1","url":"u1"})";

}  // namespace

TEST(ZMPluginProtocolPostUrl, SendsTheFormBodyRawAndReportsOnTheMainThread) {
  UrlService service;
  service.answer(200, R"({"code":200,"plugin_results":[)" + kMatch + "]}");
  const std::string tail = "&cpu_abi=" + ZMDevice::processorName() +
                           "&os=iOS&os_version=" + ZMDevice::systemVersion() +
                           "&plugin_list=[\n  {\n    \"plugin_id\" : \"p\",\n    \"version\" : "
                           "\"1.0\"\n  }\n]";
  const std::string client = std::string("client_id=") + __watermark_sign;
  struct Row {
    std::string host;
    std::optional<std::string> deviceId;
    std::string body;
  } rows[] = {
      // "&" and "=" inside a value go out as they are; a trailing "/" on the host is not doubled.
      {service.server.url("/ced/"), "d&x=1",
       client + "&device_id=d&x=1&app_bundle_id=com.example.host&client_version=1.0.0" + tail},
      {service.server.url("/ced"), std::nullopt,
       client + "&device_id=(null)&app_bundle_id=com.example.host&client_version=1.0.0" + tail},
  };
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    auto recorder = std::make_shared<UrlRecorder>();
    auto query = Query(rows[i].host, recorder, rows[i].deviceId);
    query->execute("p", "1.0");
    ASSERT_TRUE(RunUntil([&] { return recorder->size() == 1; })) << i;
    EXPECT_EQ(recorder->events(), std::vector<std::string>{"success:p|1.0|h1|u1"}) << i;
    EXPECT_EQ(recorder->distinctThreads(), std::set{std::this_thread::get_id()});
    std::lock_guard lock(service.mutex);
    ASSERT_EQ(service.requests.size(), i + 1);
    EXPECT_EQ(service.requests[i].body, rows[i].body) << i;
    EXPECT_EQ(service.requests[i].get_header_value("Content-Type"),
              "application/x-www-form-urlencoded");
  }
}

TEST(ZMPluginProtocolPostUrl, OnlyTheReplyCodeCounts) {
  UrlService service;
  LogCapture log;
  const std::string other = R"({"plugin_id":"p","version":"2.0","hash":"h2","url":"u2"})";
  struct Row {
    int status;
    std::string reply;
    std::string event;
  } rows[] = {
      {200, R"({"code":"200","plugin_results":[)" + other + "," + kMatch + "]}",
       "success:p|1.0|h1|u1"},
      {500, R"({"code":200,"plugin_results":[)" + kMatch + "]}", "success:p|1.0|h1|u1"},
      {200, "<html>busy</html>", "fail:get plugin url error (null)|0"},
      {200, R"({"code":404,"plugin_results":[)" + kMatch + "]}", "fail:get plugin url error 404|0"},
      {200, R"({"plugin_results":[)" + kMatch + "]}", "fail:get plugin url error (null)|0"},
      {200, R"({"code":200,"plugin_results":[)" + other + "]}", "success:p|1.0|(null)|(null)"},
      {200, R"({"code":200,"plugin_results":[]})",
       "fail:get plugin url error: empty plugin list|0"},
      {200, R"({"code":200})", "fail:get plugin url error: empty plugin list|0"},
  };
  std::vector<std::shared_ptr<UrlRecorder>> recorders;
  for (const auto& row : rows) {
    service.answer(row.status, row.reply);
    auto recorder = recorders.emplace_back(std::make_shared<UrlRecorder>());
    auto query = Query(service.server.url("/ced"), recorder);
    query->execute("p", "1.0");
    ASSERT_TRUE(RunUntil([&] { return recorder->size() == 1; })) << row.reply;
    EXPECT_EQ(recorder->last(), row.event) << row.reply;
    // Every reply that arrives is logged, failures too; an unreadable one as (null).
    const bool json = row.reply.front() == '{';
    EXPECT_TRUE(log.contains("post url request success: " + (json ? row.reply : "(null)")));
  }
  DrainMainQueue();
  for (const auto& recorder : recorders) EXPECT_EQ(recorder->size(), 1u);
}

TEST(ZMPluginProtocolPostUrl, CancelledOrAbandonedRequestsStaySilent) {
  UrlService service;
  service.answer(200, R"({"code":200,"plugin_results":[)" + kMatch +
                          R"(,{"plugin_id":"p","version":"2.0","hash":"h2","url":"u2"}]})");
  LogCapture log;
  const auto cancelled = [&] { return log.startingWith("post url request has been canceled"); };

  // A second execution cancels the first: one cancellation line, only the second reported.
  auto recorder = std::make_shared<UrlRecorder>();
  auto query = Query(service.server.url("/ced"), recorder);
  query->execute("p", "1.0");
  query->execute("p", "2.0");
  ASSERT_TRUE(RunUntil([&] { return recorder->size() == 1 && cancelled().size() == 1; }));
  DrainMainQueue();
  EXPECT_EQ(recorder->events(), std::vector<std::string>{"success:p|2.0|h2|u2"});
  EXPECT_EQ(cancelled().size(), 1u);

  // cancel(): the cancellation is logged, nothing is reported.
  query->execute("p", "1.0");
  query->cancel();
  ASSERT_TRUE(RunUntil([&] { return cancelled().size() == 2; }));
  // A released query: its request still runs, its reply goes nowhere.
  auto released = std::make_shared<UrlRecorder>();
  Query(service.server.url("/ced"), released)->execute("p", "1.0");
  DrainMainQueue();
  EXPECT_EQ(recorder->size(), 1u);
  EXPECT_EQ(released->size(), 0u);

  // A refused connection is the transport error itself, logged.
  auto refused = std::make_shared<UrlRecorder>();
  auto unreachable = Query("http://127.0.0.1:9/ced", refused);
  unreachable->execute("p", "1.0");
  ASSERT_TRUE(RunUntil([&] { return refused->size() == 1; }));
  EXPECT_EQ(refused->last(), "fail:NSURLErrorDomain|-1004");
  EXPECT_EQ(
      log.startingWith("post url request error: Error Domain=NSURLErrorDomain Code=-1004 ").size(),
      1u);
}
