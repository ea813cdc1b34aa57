#include "protocol/ZMSingleThreadFileDownloader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "support/TestHttpServer.h"
#include "support/TestSupport.h"
#include "tavo/ZMMainQueue.h"

using namespace std::chrono_literals;

namespace {

// Records the downloader's callbacks into a log that outlives the recorder itself.
struct FileRecorder : ZMOnFileDownloadListener {
  std::shared_ptr<std::vector<std::string>> log = std::make_shared<std::vector<std::string>>();
  std::vector<std::pair<int64_t, int64_t>> progress;
  std::optional<ZMError> error;
  bool offMainThread = false;
  std::function<void()> onFirstProgress;

  void onDownloadStart(const std::string& tag) override { log->push_back("start:" + tag); }
  void onDownloadProgress(int64_t done, int64_t total) override {
    offMainThread |= !ZMMainQueue::isMainThread();
    if (log->empty() || log->back() != "progress") log->push_back("progress");
    progress.emplace_back(done, total);
    if (onFirstProgress) std::exchange(onFirstProgress, nullptr)();
  }
  void onDownloadSuccess(const std::string& path) override {
    offMainThread |= !ZMMainQueue::isMainThread();
    log->push_back("success:" + path);
  }
  void onDownloadFailure(int32_t code, const std::string& msg, const ZMError& e) override {
    offMainThread |= !ZMMainQueue::isMainThread();
    log->push_back("failure:" + std::to_string(code) + "|" + msg);
    error = e;
  }
  void onDownloadCancel() override {
    offMainThread |= !ZMMainQueue::isMainThread();
    log->push_back("cancel");
  }
  void onDownloadRetry(int32_t n) override { log->push_back("retry:" + std::to_string(n)); }

  bool ended() const {
    return std::any_of(log->begin(), log->end(), [](const std::string& e) {
      return e.starts_with("success:") || e.starts_with("failure:") || e == "cancel";
    });
  }
};

TestHttpServer::Handler StalledBody(TestHttpServer& server, std::size_t sent) {
  return [&server, sent](const httplib::Request&, httplib::Response& res) {
    res.set_content_provider(sent * 4, "application/octet-stream",
                             [&server, sent](size_t offset, size_t, httplib::DataSink& sink) {
                               if (offset < sent) {
                                 const std::string part = PatternBody(sent);
                                 sink.write(part.data() + offset, sent - offset);
                                 return true;
                               }
                               server.pause(10s);
                               return false;
                             });
  };
}

class ZMSingleThreadFileDownloaderTest : public ::testing::Test {
 protected:
  void TearDown() override { ZMSingleThreadFileDownloader::setTimeoutIntervalForTesting(0); }

  std::shared_ptr<ZMSingleThreadFileDownloader> make(const std::string& url,
                                                     const std::shared_ptr<FileRecorder>& r,
                                                     const std::string& name = "game.zgp") {
    return std::make_shared<ZMSingleThreadFileDownloader>(dirs.root() / name, url, "tag-1", r);
  }

  ScopedSystemDirectories dirs;
};

}  // namespace

TEST_F(ZMSingleThreadFileDownloaderTest, StatusOkMovesFileIntoPlace) {
  const std::string body = PatternBody(2 << 20);
  TestHttpServer server;
  server.Get("/pkg", [&](const auto&, auto& res) { res.set_content(body, "application/zip"); });
  server.start();

  auto recorder = std::make_shared<FileRecorder>();
  auto downloader = make(server.url("/pkg"), recorder);
  downloader->start();
  // onDownloadStart comes synchronously, before anything is drained.
  EXPECT_EQ(*recorder->log, std::vector<std::string>{"start:tag-1"});
  ASSERT_TRUE(RunUntil([&] { return recorder->ended(); }));
  DrainMainQueue();

  const std::string path = dirs.root() / "game.zgp";
  EXPECT_EQ(*recorder->log,
            (std::vector<std::string>{"start:tag-1", "progress", "success:" + path}));
  EXPECT_FALSE(recorder->offMainThread);
  const int64_t size = static_cast<int64_t>(body.size());
  EXPECT_EQ(recorder->progress.back(), std::make_pair(size, size));
  EXPECT_TRUE(ReadFile(path) == body);
  EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{});
  ASSERT_EQ(server.requestCount(), 1u);
  EXPECT_EQ(server.requests()[0].method, "GET");
}

TEST_F(ZMSingleThreadFileDownloaderTest, AnyOtherStatusFails) {
  TestHttpServer server;
  for (int status : {404, 204, 206, 500}) {
    server.Get("/" + std::to_string(status), [status](const auto&, auto& res) {
      res.status = status;
      if (status != 204) res.set_content("body of " + std::to_string(status), "text/plain");
    });
  }
  server.start();

  for (int status : {404, 204, 206, 500}) {
    const std::string code = std::to_string(status);
    auto recorder = std::make_shared<FileRecorder>();
    auto downloader = make(server.url("/" + code), recorder);
    downloader->start();
    ASSERT_TRUE(RunUntil([&] { return recorder->ended(); })) << code;
    DrainMainQueue();
    const auto& log = *recorder->log;
    EXPECT_EQ(log.back(), "failure:" + code + "|" + code);
    EXPECT_EQ(std::count_if(log.begin(), log.end(),
                            [](const auto& e) { return !e.starts_with("start") && e != "progress"; }),
              1)
        << code;
    ASSERT_TRUE(recorder->error);
    EXPECT_EQ(*recorder->error, ZMError(kZMNetServicesErrorDomain, status, ZMValue::object()));
    EXPECT_FALSE(Exists(dirs.root() / "game.zgp")) << code;
    EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{}) << code;
  }
}

TEST_F(ZMSingleThreadFileDownloaderTest, MoveFailureKeepsWhatIsThere) {
  TestHttpServer server;
  server.Get("/pkg", [](const auto&, auto& res) { res.set_content("new", "text/plain"); });
  server.start();

  // A file already at the path is never overwritten.
  WriteFile(dirs.root() / "game.zgp", "old");
  auto recorder = std::make_shared<FileRecorder>();
  auto downloader = make(server.url("/pkg"), recorder);
  downloader->start();
  ASSERT_TRUE(RunUntil([&] { return recorder->ended(); }));
  EXPECT_EQ(recorder->log->back(), "failure:-1|move file fail");
  EXPECT_EQ(recorder->error->domain, kZMCocoaErrorDomain);
  EXPECT_EQ(recorder->error->code, kZMFileWriteFileExistsError);
  EXPECT_EQ(ReadFile(dirs.root() / "game.zgp"), "old");

  // Nor is a missing directory created.
  auto second = std::make_shared<FileRecorder>();
  auto nowhere = make(server.url("/pkg"), second, "absent/game.zgp");
  nowhere->start();
  ASSERT_TRUE(RunUntil([&] { return second->ended(); }));
  EXPECT_EQ(second->log->back(), "failure:-1|move file fail");
  EXPECT_FALSE(Exists(dirs.root() / "absent"));
  EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{});
}

TEST_F(ZMSingleThreadFileDownloaderTest, CancelReportsCancelAndNoFailure) {
  TestHttpServer server;
  server.Get("/stall", StalledBody(server, 64 << 10));
  server.start();

  auto recorder = std::make_shared<FileRecorder>();
  auto downloader = make(server.url("/stall"), recorder);
  recorder->onFirstProgress = [&] { downloader->cancel(); };
  downloader->start();
  ASSERT_TRUE(RunUntil([&] { return recorder->ended(); }));
  DrainMainQueue();
  EXPECT_EQ(*recorder->log, (std::vector<std::string>{"start:tag-1", "progress", "cancel"}));
  EXPECT_FALSE(recorder->offMainThread);
  EXPECT_FALSE(Exists(dirs.root() / "game.zgp"));
  EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{});

  // Cancelling a downloader that never started still ends in onDownloadCancel, and sends nothing.
  auto idle = std::make_shared<FileRecorder>();
  auto unstarted = make(server.url("/stall"), idle);
  unstarted->cancel();
  ASSERT_TRUE(RunUntil([&] { return idle->ended(); }));
  DrainMainQueue();
  EXPECT_EQ(*idle->log, std::vector<std::string>{"cancel"});
  EXPECT_EQ(server.requestCount(), 1u);
}

TEST_F(ZMSingleThreadFileDownloaderTest, TransferErrorsAreDownloadFail) {
  ZMSingleThreadFileDownloader::setTimeoutIntervalForTesting(1);
  TestHttpServer server;
  server.Get("/stall-head", [&](const auto&, auto& res) {
    server.pause(10s);
    res.set_content("late", "text/plain");
  });
  server.Get("/stall-body", StalledBody(server, 64 << 10));
  server.Get("/short", [](const auto&, auto& res) {
    res.set_content_provider(100000, "application/octet-stream",
                             [](size_t offset, size_t, httplib::DataSink& sink) {
                               if (offset > 0) return false;  // 40000 of 100000 bytes
                               const std::string part = PatternBody(40000);
                               sink.write(part.data(), part.size());
                               return true;
                             });
  });
  server.start();
  TestHttpServer resetting;
  resetting.Get("/reset", [](const auto&, auto& res) {
    res.set_content_provider(100000, "application/octet-stream",
                             [](size_t offset, size_t, httplib::DataSink& sink) {
                               if (offset > 0) return false;
                               const std::string part = PatternBody(40000);
                               sink.write(part.data(), part.size());
                               return true;
                             });
  });
  resetting.start(true);

  struct Case {
    std::string url;
    int32_t code;        // reported to the listener: the status, or 0 without a response
    int64_t transport;   // the error passed along
  };
  const std::vector<Case> cases = {
      {TestHttpServer::refusedURL("/pkg"), 0, kZMURLErrorCannotConnectToHost},
      {server.url("/stall-head"), 0, kZMURLErrorTimedOut},
      {server.url("/stall-body"), 200, kZMURLErrorTimedOut},
      {server.url("/short"), 200, kZMURLErrorNetworkConnectionLost},
      {resetting.url("/reset"), 200, kZMURLErrorNetworkConnectionLost},
      {"not a url", 0, kZMURLErrorBadURL},
  };
  for (const auto& c : cases) {
    auto recorder = std::make_shared<FileRecorder>();
    auto downloader = make(c.url, recorder);
    downloader->start();
    ASSERT_TRUE(RunUntil([&] { return recorder->ended(); })) << c.url;
    DrainMainQueue();
    const auto& log = *recorder->log;
    EXPECT_EQ(log.back(), "failure:" + std::to_string(c.code) + "|download fail") << c.url;
    EXPECT_EQ(std::count_if(log.begin(), log.end(),
                            [](const auto& e) { return !e.starts_with("start") && e != "progress"; }),
              1)
        << c.url;
    EXPECT_EQ(recorder->error->domain, kZMURLErrorDomain) << c.url;
    EXPECT_EQ(recorder->error->code, c.transport) << c.url;
    EXPECT_FALSE(Exists(dirs.root() / "game.zgp")) << c.url;
    EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{}) << c.url;
  }
}

TEST_F(ZMSingleThreadFileDownloaderTest, ReleasedListenerHearsNothing) {
  const std::string body = PatternBody(4 << 20);
  TestHttpServer server;
  server.Get("/pkg", [&](const auto&, auto& res) { res.set_content(body, "application/zip"); });
  server.start();

  auto recorder = std::make_shared<FileRecorder>();
  auto log = recorder->log;
  auto downloader = make(server.url("/pkg"), recorder);
  downloader->start();
  recorder.reset();
  ASSERT_TRUE(RunUntil([&] { return Exists(dirs.root() / "game.zgp"); }));
  DrainMainQueue();
  EXPECT_EQ(*log, std::vector<std::string>{"start:tag-1"});
  EXPECT_TRUE(ReadFile(dirs.root() / "game.zgp") == body);  // the download itself went on
}

TEST_F(ZMSingleThreadFileDownloaderTest, UnknownLengthReportsMinusOne) {
  TestHttpServer server;
  server.Get("/chunked", [](const auto&, auto& res) {
    res.set_chunked_content_provider("application/zip", [](size_t offset, httplib::DataSink& sink) {
      if (offset >= 300000) {
        sink.done();
        return true;
      }
      const std::string part = PatternBody(100000);
      sink.write(part.data(), part.size());
      return true;
    });
  });
  server.start();

  auto recorder = std::make_shared<FileRecorder>();
  auto downloader = make(server.url("/chunked"), recorder);
  downloader->start();
  ASSERT_TRUE(RunUntil([&] { return recorder->ended(); }));
  EXPECT_EQ(recorder->log->back(), "success:" + dirs.root() / "game.zgp");
  ASSERT_FALSE(recorder->progress.empty());
  for (const auto& [done, total] : recorder->progress) EXPECT_EQ(total, -1) << done;
  EXPECT_EQ(recorder->progress.back().first, 300000);
}
