#include "platform/ZMURLSession.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "support/TestHttpServer.h"
#include "support/TestSupport.h"
#include "tavo/ZMMainQueue.h"
#include "tavo/ZMSystemDirectories.h"

using namespace std::chrono_literals;

namespace {

// Records a session's delegate callbacks, checking that each arrives on the main queue.
struct Recorder : ZMURLSessionDelegate {
  struct Progress {
    int64_t written, total, expected;
  };
  std::vector<std::string> events;
  std::vector<Progress> progress;
  std::optional<ZMError> error;
  bool completed = false;
  bool offMainThread = false;
  std::string location;
  std::string contentAtFinish;
  long statusAtFinish = 0;
  std::string keepAt;  // moves the finished file here when set
  std::function<void(ZMURLSessionTask&)> onFirstProgress;

  void didWriteData(ZMURLSession&, ZMURLSessionTask& task, int64_t written, int64_t total,
                    int64_t expected) override {
    offMainThread |= !ZMMainQueue::isMainThread();
    events.push_back("progress");
    progress.push_back({written, total, expected});
    if (onFirstProgress) std::exchange(onFirstProgress, nullptr)(task);
  }
  void didFinishDownloadingToLocation(ZMURLSession&, ZMURLSessionTask& task,
                                      const std::string& path) override {
    offMainThread |= !ZMMainQueue::isMainThread();
    events.push_back("finish");
    location = path;
    contentAtFinish = ReadFile(path);
    statusAtFinish = task.response() ? task.response()->statusCode : 0;
    if (!keepAt.empty()) std::rename(path.c_str(), keepAt.c_str());
  }
  void didCompleteWithError(ZMURLSession&, ZMURLSessionTask&,
                            const std::optional<ZMError>& e) override {
    offMainThread |= !ZMMainQueue::isMainThread();
    events.push_back(e ? "complete:" + std::to_string(e->code) : "complete");
    error = e;
    completed = true;
  }
  // "progress" runs collapsed to one entry.
  std::vector<std::string> collapsed() const {
    std::vector<std::string> out;
    for (const auto& e : events) {
      if (out.empty() || out.back() != e) out.push_back(e);
    }
    return out;
  }
};

struct DataResult {
  bool done = false;
  std::optional<std::string> data;
  std::optional<ZMHTTPURLResponse> response;
  std::optional<ZMError> error;
};

ZMURLSessionConfiguration withTimeout(double seconds) {
  auto configuration = ZMURLSessionConfiguration::defaultSessionConfiguration();
  configuration.timeoutIntervalForRequest = seconds;
  return configuration;
}

// Runs one data task on the shared session and waits for its completion.
DataResult Fetch(ZMURLRequest request) {
  auto result = std::make_shared<DataResult>();
  auto task = ZMURLSession::sharedSession()->dataTask(
      std::move(request), [result](const auto& data, const auto& response, const auto& error) {
        result->done = true;
        result->data = data;
        result->response = response;
        result->error = error;
      });
  task->resume();
  EXPECT_TRUE(RunUntil([&] { return result->done; }));
  return *result;
}

std::string FailingURL(const ZMError& error) {
  return error.userInfo ? error.userInfo->value("NSErrorFailingURLStringKey", "") : "";
}

// A handler whose body declares `size` bytes, sends the first `sent`, then either stalls until
// the server stops or (stall = false) closes the connection.
TestHttpServer::Handler PartialBody(TestHttpServer& server, std::size_t size, std::size_t sent,
                                    bool stall) {
  return [&server, size, sent, stall](const httplib::Request&, httplib::Response& res) {
    res.set_content_provider(size, "application/octet-stream",
                             [&server, sent, stall](size_t offset, size_t, httplib::DataSink& sink) {
                               if (offset < sent) {
                                 const std::string part = PatternBody(sent);
                                 sink.write(part.data() + offset, sent - offset);
                                 return true;
                               }
                               if (stall) server.pause(10s);
                               return false;
                             });
  };
}

class ZMURLSessionTest : public ::testing::Test {
 protected:
  ScopedSystemDirectories dirs;
};

}  // namespace

TEST_F(ZMURLSessionTest, DownloadStreamsToTemporaryFileThenDiscardsIt) {
  const std::string body = PatternBody(3 << 20);
  TestHttpServer server;
  server.Get("/file", [&](const auto&, auto& res) { res.set_content(body, "application/zip"); });
  server.Get("/missing", [](const auto&, auto& res) {
    res.status = 404;
    res.set_content("no such package", "text/plain");
  });
  server.Get("/moved", [](const auto&, auto& res) {
    res.set_redirect("/missing");
    res.set_content("redirect body", "text/plain");
  });
  server.start();

  auto recorder = std::make_shared<Recorder>();
  auto session = ZMURLSession::sessionWithConfiguration({}, recorder);
  auto task = session->downloadTask(ZMURLRequest(server.url("/file")));
  EXPECT_EQ(task->state(), ZMURLSessionTask::State::suspended);
  task->resume();
  ASSERT_TRUE(RunUntil([&] { return recorder->completed; }));

  EXPECT_FALSE(recorder->offMainThread);
  EXPECT_EQ(recorder->collapsed(), (std::vector<std::string>{"progress", "finish", "complete"}));
  int64_t sum = 0, last = 0;
  for (const auto& p : recorder->progress) {
    sum += p.written;
    EXPECT_GT(p.total, last);
    EXPECT_EQ(p.total, sum);
    EXPECT_EQ(p.expected, static_cast<int64_t>(body.size()));
    last = p.total;
  }
  EXPECT_EQ(last, static_cast<int64_t>(body.size()));
  EXPECT_TRUE(recorder->contentAtFinish == body);
  EXPECT_EQ(recorder->statusAtFinish, 200);
  EXPECT_EQ(recorder->location.rfind(dirs.temporary() + "/", 0), 0u) << recorder->location;
  EXPECT_FALSE(Exists(recorder->location));  // removed once the callback returned
  EXPECT_EQ(task->state(), ZMURLSessionTask::State::completed);
  ASSERT_TRUE(task->response());
  EXPECT_EQ(task->response()->valueForHTTPHeaderField("content-type"), "application/zip");
  EXPECT_EQ(task->response()->expectedContentLength, static_cast<int64_t>(body.size()));
  ASSERT_EQ(server.requestCount(), 1u);
  EXPECT_EQ(server.requests()[0].method, "GET");
  EXPECT_EQ(server.requests()[0].body, "");

  // Redirects are followed (only the final body is kept), and a status other than 200 is no
  // error at this level: its body is downloaded all the same.
  auto other = std::make_shared<Recorder>();
  other->keepAt = dirs.root() / "kept";
  auto otherSession = ZMURLSession::sessionWithConfiguration({}, other);
  auto moved = otherSession->downloadTask(ZMURLRequest(server.url("/moved")));
  moved->resume();
  ASSERT_TRUE(RunUntil([&] { return other->completed; }));
  EXPECT_EQ(other->collapsed(), (std::vector<std::string>{"progress", "finish", "complete"}));
  EXPECT_EQ(other->statusAtFinish, 404);
  EXPECT_EQ(moved->response()->url, server.url("/missing"));
  EXPECT_EQ(ReadFile(dirs.root() / "kept"), "no such package");  // moved by the delegate: kept
  EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{});
}

TEST_F(ZMURLSessionTest, BodyWithoutLengthReportsUnknownTotal) {
  TestHttpServer server;
  server.Get("/chunked", [](const auto&, auto& res) {
    res.set_chunked_content_provider("application/octet-stream",
                                     [](size_t offset, httplib::DataSink& sink) {
                                       if (offset >= (1u << 20)) {
                                         sink.done();
                                         return true;
                                       }
                                       const std::string part = PatternBody(64 << 10);
                                       sink.write(part.data(), part.size());
                                       return true;
                                     });
  });
  server.start();

  auto recorder = std::make_shared<Recorder>();
  auto session = ZMURLSession::sessionWithConfiguration({}, recorder);
  session->downloadTask(ZMURLRequest(server.url("/chunked")))->resume();
  ASSERT_TRUE(RunUntil([&] { return recorder->completed; }));
  EXPECT_FALSE(recorder->error);
  ASSERT_FALSE(recorder->progress.empty());
  for (const auto& p : recorder->progress) EXPECT_EQ(p.expected, -1);
  EXPECT_EQ(recorder->progress.back().total, 1 << 20);
  EXPECT_EQ(recorder->contentAtFinish.size(), 1u << 20);
}

TEST_F(ZMURLSessionTest, PostSendsBodyBytesUnchanged) {
  TestHttpServer server;
  server.Post("/runtime/plugin/url", [](const auto& req, auto& res) {
    res.status = 201;
    res.set_header("X-Reply", "yes");
    res.set_content("{\"code\":200,\"echo\":" + std::to_string(req.body.size()) + "}",
                    "application/json");
  });
  server.start();

  // Raw form text: nothing is percent-encoded on the way out.
  const std::string body = "client_id=a b&device_id=x&y=\"q\"\n[\n  {\n    \"k\" : 1\n  }\n]";
  ZMURLRequest request(server.url("/runtime/plugin/url"));
  request.httpMethod = "POST";
  request.httpBody = body;
  request.setValue("tavo", "X-Client");
  const DataResult result = Fetch(request);

  EXPECT_FALSE(result.error);
  ASSERT_TRUE(result.data);
  EXPECT_EQ(*result.data, "{\"code\":200,\"echo\":" + std::to_string(body.size()) + "}");
  ASSERT_TRUE(result.response);
  EXPECT_EQ(result.response->statusCode, 201);
  EXPECT_EQ(result.response->valueForHTTPHeaderField("x-reply"), "yes");

  ASSERT_EQ(server.requestCount(), 1u);
  const auto seen = server.requests()[0];
  EXPECT_EQ(seen.method, "POST");
  EXPECT_EQ(seen.body, body);
  EXPECT_EQ(seen.header("Content-Type"), "application/x-www-form-urlencoded");
  EXPECT_EQ(seen.header("Content-Length"), std::to_string(body.size()));
  EXPECT_EQ(seen.header("X-Client"), "tavo");
  EXPECT_EQ(seen.header("Expect"), "");
}

TEST_F(ZMURLSessionTest, TransportFailuresCarryFoundationCodes) {
  struct Case {
    std::string url;
    int64_t code;
  };
  TestHttpServer plain;  // answers a TLS handshake with plain HTTP
  plain.Get("/", [](const auto&, auto& res) { res.set_content("plain", "text/plain"); });
  plain.start();
  const std::string refused = TestHttpServer::refusedURL("/runtime/plugin/url");
  const std::vector<Case> cases = {
      {refused, kZMURLErrorCannotConnectToHost},
      {"ftp://127.0.0.1/file", kZMURLErrorUnsupportedURL},
      {"", kZMURLErrorUnsupportedURL},
      {"http://127.0.0.1:99999999/", kZMURLErrorBadURL},
      {"https://127.0.0.1:" + std::to_string(plain.port()) + "/",
       kZMURLErrorSecureConnectionFailed},
  };
  for (const auto& c : cases) {
    ZMURLRequest request(c.url);
    request.httpMethod = "POST";
    request.httpBody = "a=b";
    const DataResult result = Fetch(request);
    ASSERT_TRUE(result.error) << c.url;
    EXPECT_EQ(result.error->domain, kZMURLErrorDomain) << c.url;
    EXPECT_EQ(result.error->code, c.code) << c.url;
    EXPECT_NE(result.error->localizedDescription().find(' '), std::string::npos) << c.url;
    EXPECT_EQ(FailingURL(*result.error), c.url);
    EXPECT_FALSE(result.data) << c.url;
    EXPECT_FALSE(result.response) << c.url;
  }
  EXPECT_EQ(plain.requestCount(), 0u);
}

TEST_F(ZMURLSessionTest, UntrustedCertificateIsRefused) {
  WriteSelfSignedCertificate(dirs.root() / "cert.pem", dirs.root() / "key.pem");
  TestHttpServer server(dirs.root() / "cert.pem", dirs.root() / "key.pem");
  server.Get("/file", [](const auto&, auto& res) { res.set_content("secret", "text/plain"); });
  server.start();

  auto recorder = std::make_shared<Recorder>();
  auto session = ZMURLSession::sessionWithConfiguration({}, recorder);
  session->downloadTask(ZMURLRequest(server.url("/file")))->resume();
  ASSERT_TRUE(RunUntil([&] { return recorder->completed; }));
  EXPECT_EQ(recorder->events, std::vector<std::string>{"complete:-1202"});
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{});
}

TEST_F(ZMURLSessionTest, BrokenTransfersFailWithoutLeavingFiles) {
  TestHttpServer server;
  server.Get("/short", PartialBody(server, 200000, 50000, false));
  server.Get("/stall-body", PartialBody(server, 200000, 50000, true));
  server.Get("/stall-head", [&](const auto&, auto& res) {
    server.pause(10s);
    res.set_content("late", "text/plain");
  });
  server.start();
  TestHttpServer resetting;  // closes with a reset instead of a clean shutdown
  resetting.Get("/reset", PartialBody(resetting, 200000, 50000, false));
  resetting.start(true);

  struct Case {
    std::string url;
    int64_t code;
    long status;  // of the response the task saw; 0 when none arrived
  };
  const std::vector<Case> cases = {
      {server.url("/short"), kZMURLErrorNetworkConnectionLost, 200},
      {resetting.url("/reset"), kZMURLErrorNetworkConnectionLost, 200},
      {server.url("/stall-body"), kZMURLErrorTimedOut, 200},
      {server.url("/stall-head"), kZMURLErrorTimedOut, 0},
  };
  for (const auto& c : cases) {
    auto recorder = std::make_shared<Recorder>();
    auto session = ZMURLSession::sessionWithConfiguration(withTimeout(1), recorder);
    auto task = session->downloadTask(ZMURLRequest(c.url));
    const auto begun = std::chrono::steady_clock::now();
    task->resume();
    ASSERT_TRUE(RunUntil([&] { return recorder->completed; })) << c.url;
    const auto elapsed = std::chrono::steady_clock::now() - begun;
    ASSERT_TRUE(recorder->error) << c.url;
    EXPECT_EQ(recorder->error->code, c.code) << c.url;
    EXPECT_EQ(FailingURL(*recorder->error), c.url);
    EXPECT_EQ(task->response() ? task->response()->statusCode : 0, c.status) << c.url;
    const auto events = recorder->collapsed();
    EXPECT_EQ(std::count(events.begin(), events.end(), "finish"), 0) << c.url;
    EXPECT_EQ(events.back(), "complete:" + std::to_string(c.code)) << c.url;
    if (c.code == kZMURLErrorTimedOut) {
      EXPECT_GE(elapsed, 900ms) << c.url;
      EXPECT_LT(elapsed, 5s) << c.url;
    }
    EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{}) << c.url;
  }
}

TEST_F(ZMURLSessionTest, SlowSteadyTransferOutlivesIdleTimeout) {
  TestHttpServer server;
  server.Get("/slow", [&](const auto&, auto& res) {
    res.set_content_provider(5000, "application/octet-stream",
                             [&](size_t offset, size_t, httplib::DataSink& sink) {
                               if (offset > 0) server.pause(400ms);
                               const std::string part(1000, 'x');
                               sink.write(part.data(), part.size());
                               return true;
                             });
  });
  server.start();

  // Five pauses of 0.4 s: two seconds in all, never a second without a byte.
  auto recorder = std::make_shared<Recorder>();
  auto session = ZMURLSession::sessionWithConfiguration(withTimeout(1), recorder);
  session->downloadTask(ZMURLRequest(server.url("/slow")))->resume();
  ASSERT_TRUE(RunUntil([&] { return recorder->completed; }));
  EXPECT_FALSE(recorder->error) << recorder->error->description();
  EXPECT_EQ(recorder->contentAtFinish, std::string(5000, 'x'));
}

TEST_F(ZMURLSessionTest, CancelCompletesWithCancelledError) {
  TestHttpServer server;
  server.Get("/stall-body", PartialBody(server, 1 << 20, 64 << 10, true));
  server.start();

  // Mid-transfer: no finish, one completion with -999 "cancelled", no file left.
  auto recorder = std::make_shared<Recorder>();
  recorder->onFirstProgress = [](ZMURLSessionTask& task) { task.cancel(); };
  auto session = ZMURLSession::sessionWithConfiguration({}, recorder);
  auto task = session->downloadTask(ZMURLRequest(server.url("/stall-body")));
  task->resume();
  ASSERT_TRUE(RunUntil([&] { return recorder->completed; }));
  EXPECT_EQ(recorder->collapsed(), (std::vector<std::string>{"progress", "complete:-999"}));
  ASSERT_TRUE(recorder->error);
  EXPECT_EQ(recorder->error->domain, kZMURLErrorDomain);
  EXPECT_EQ(recorder->error->localizedDescription(), "cancelled");
  EXPECT_EQ(FailingURL(*recorder->error), server.url("/stall-body"));
  EXPECT_EQ(task->state(), ZMURLSessionTask::State::completed);
  EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{});

  // A task that never ran completes cancelled as well, without a request.
  auto idle = std::make_shared<Recorder>();
  auto idleSession = ZMURLSession::sessionWithConfiguration({}, idle);
  idleSession->downloadTask(ZMURLRequest(server.url("/stall-body")))->cancel();
  ASSERT_TRUE(RunUntil([&] { return idle->completed; }));
  EXPECT_EQ(idle->events, std::vector<std::string>{"complete:-999"});
  EXPECT_EQ(server.requestCount(), 1u);
}

TEST_F(ZMURLSessionTest, InvalidateAndCancelEndsEveryTask) {
  TestHttpServer server;
  server.Get("/stall-body", PartialBody(server, 1 << 20, 64 << 10, true));
  server.start();

  auto recorder = std::make_shared<Recorder>();
  auto session = ZMURLSession::sessionWithConfiguration({}, recorder);
  session->downloadTask(ZMURLRequest(server.url("/stall-body")))->resume();
  session->downloadTask(ZMURLRequest(server.url("/stall-body")))->resume();
  ASSERT_TRUE(RunUntil([&] { return server.requestCount() == 2 && !recorder->progress.empty(); }));
  session->invalidateAndCancel();
  ASSERT_TRUE(RunUntil([&] {
    return std::count(recorder->events.begin(), recorder->events.end(), "complete:-999") == 2;
  }));

  // Tasks resumed on an invalidated session end at once, without a request.
  session->downloadTask(ZMURLRequest(server.url("/stall-body")))->resume();
  ASSERT_TRUE(RunUntil([&] {
    return std::count(recorder->events.begin(), recorder->events.end(), "complete:-999") == 3;
  }));
  EXPECT_EQ(server.requestCount(), 2u);
  EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{});
}

TEST_F(ZMURLSessionTest, DroppedSessionOrDelegateHearsNothing) {
  TestHttpServer server;
  server.Get("/stall-body", PartialBody(server, 1 << 20, 64 << 10, true));
  server.Get("/file", [](const auto&, auto& res) { res.set_content("data", "text/plain"); });
  server.start();

  // The session goes away mid-transfer: the transfer ends, its file goes, nothing is delivered.
  auto recorder = std::make_shared<Recorder>();
  auto session = ZMURLSession::sessionWithConfiguration({}, recorder);
  auto running = session->downloadTask(ZMURLRequest(server.url("/stall-body")));
  running->resume();
  std::weak_ptr<ZMURLSessionTask> task = std::exchange(running, nullptr);
  ASSERT_TRUE(RunUntil([&] { return !recorder->progress.empty(); }));
  const auto heard = recorder->events.size();
  session.reset();
  ASSERT_TRUE(RunUntil([&] { return task.expired(); }));
  DrainMainQueue();
  EXPECT_EQ(recorder->events.size(), heard);
  EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{});

  // The delegate goes away: the session finishes the download quietly and discards the file.
  auto gone = std::make_shared<Recorder>();
  auto quiet = ZMURLSession::sessionWithConfiguration({}, gone);
  auto quietRunning = quiet->downloadTask(ZMURLRequest(server.url("/file")));
  quietRunning->resume();
  std::weak_ptr<ZMURLSessionTask> quietTask = std::exchange(quietRunning, nullptr);
  gone.reset();
  ASSERT_TRUE(RunUntil([&] { return quietTask.expired(); }));
  EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{});
}

TEST_F(ZMURLSessionTest, TemporaryFileProblemsAreFileErrors) {
  TestHttpServer server;
  const std::string body = PatternBody(1 << 20);
  server.Get("/file", [&](const auto&, auto& res) { res.set_content(body, "text/plain"); });
  server.start();

  // Writing fails half-way (the process may not write files over 64 KiB).
  {
    auto recorder = std::make_shared<Recorder>();
    auto session = ZMURLSession::sessionWithConfiguration({}, recorder);
    auto task = session->downloadTask(ZMURLRequest(server.url("/file")));
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limited = saved;
    limited.rlim_cur = 64 << 10;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limited), 0);
    task->resume();
    const bool done = RunUntil([&] { return recorder->completed; });
    ::setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, previous);
    ASSERT_TRUE(done);
    ASSERT_TRUE(recorder->error);
    EXPECT_EQ(recorder->error->code, kZMURLErrorCannotWriteToFile);
    EXPECT_EQ(std::count(recorder->events.begin(), recorder->events.end(), "finish"), 0);
    EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{});
  }
  // The temporary directory cannot be created.
  {
    ZMSystemDirectories::setTemporaryDirectory(dirs.root() / "missing/tmp");
    auto recorder = std::make_shared<Recorder>();
    auto session = ZMURLSession::sessionWithConfiguration({}, recorder);
    session->downloadTask(ZMURLRequest(server.url("/file")))->resume();
    ASSERT_TRUE(RunUntil([&] { return recorder->completed; }));
    EXPECT_EQ(recorder->events, std::vector<std::string>{"complete:-3000"});
  }
  EXPECT_EQ(server.requestCount(), 1u);
}

TEST_F(ZMURLSessionTest, ProcessExitsCleanlyWithTransferInFlight) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TestHttpServer server;
  server.Get("/stall-body", PartialBody(server, 1 << 20, 64 << 10, true));
  server.start();
  // The child exits while a session (deliberately kept alive) has a transfer under way; the
  // network thread must be stopped and joined cleanly, with nothing leaked.
  EXPECT_EXIT(
      {
        static std::shared_ptr<ZMURLSession> kept;
        kept = ZMURLSession::sessionWithConfiguration({});
        kept->downloadTask(ZMURLRequest(server.url("/stall-body")))->resume();
        if (!RunUntil([&] { return server.requestCount() == 1; })) std::_Exit(3);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}
