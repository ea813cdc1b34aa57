#include "protocol/ZMSingleThreadFileDownloader.h"

#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "support/TestHttpServer.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"

using namespace std::chrono_literals;

namespace {

struct FileRecorder : ZMOnFileDownloadListener, EventLog {
  std::vector<std::pair<int64_t, int64_t>> progress;
  std::optional<ZMError> error;
  std::function<void()> onFirstProgress;

  void onDownloadStart(const std::string& tag) override { note("start", tag); }
  void onDownloadProgress(int64_t done, int64_t total) override {
    progress.emplace_back(done, total);
    note("progress");
    if (onFirstProgress) std::exchange(onFirstProgress, nullptr)();
  }
  void onDownloadSuccess(const std::string& path) override { note("success", path); }
  void onDownloadFailure(int32_t code, const std::string& msg, const ZMError& e) override {
    error = e;
    note("failure", int64_t{code}, msg);
  }
  void onDownloadCancel() override { note("cancel"); }
  void onDownloadRetry(int32_t n) override { note("retry", int64_t{n}); }

  // Terminal callbacks so far.
  long ends() const {
    const auto all = events();
    return std::count_if(all.begin(), all.end(), [](const std::string& e) {
      return e.starts_with("success:") || e.starts_with("failure:") || e == "cancel";
    });
  }
};

// Answers one connection with a 200 that declares `declared` bytes, sends `sent` of them and
// resets the connection (RST): a lost connection, which a clean close cannot imitate.
class ResettingServer {
 public:
  ResettingServer(std::size_t declared, std::size_t sent) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_, 1) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      std::abort();
    }
    url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/pkg";
    thread_ = std::thread([this, reply = "HTTP/1.1 200 OK\r\nContent-Length: " +
                                         std::to_string(declared) + "\r\n\r\n" +
                                         PatternBody(sent)] {
      const int connection = ::accept(listener_, nullptr, nullptr);
      if (connection < 0) return;  // woken by the destructor
      const timeval bound{10, 0};
      ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
      ::setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
      std::string request;
      char buffer[4096];
      while (request.find("\r\n\r\n") == std::string::npos) {
        const ssize_t n = ::recv(connection, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        request.append(buffer, static_cast<std::size_t>(n));
      }
      (void)!::send(connection, reply.data(), reply.size(), MSG_NOSIGNAL);
      const linger reset{1, 0};  // close() sends RST, not FIN
      ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
      ::close(connection);
    });
  }
  ~ResettingServer() {
    ::shutdown(listener_, SHUT_RDWR);
    thread_.join();
    ::close(listener_);
  }
  std::string url;

 private:
  int listener_ = -1;
  std::thread thread_;
};

class ZMSingleThreadFileDownloaderTest : public ::testing::Test {
 protected:
  void TearDown() override { ZMSingleThreadFileDownloader::setTimeoutIntervalForTesting(0); }

  // Downloads `url` to the save path and waits for the end; then checks that exactly one
  // terminal callback came and that no temporary file is left.
  std::shared_ptr<FileRecorder> download(const std::string& url) {
    auto recorder = std::make_shared<FileRecorder>();
    auto downloader = std::make_shared<ZMSingleThreadFileDownloader>(savePath, url, "tag-1",
                                                                     recorder);
    downloader->start();
    EXPECT_EQ(recorder->events(), std::vector<std::string>{"start:tag-1"});  // synchronous
    EXPECT_TRUE(RunUntil([&] { return recorder->ends() > 0; })) << url;
    DrainMainQueue();
    EXPECT_EQ(recorder->ends(), 1) << url;
    EXPECT_EQ(recorder->distinctThreads(), std::set{std::this_thread::get_id()});
    EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{}) << url;
    return recorder;
  }

  ScopedSystemDirectories dirs;
  std::string savePath = dirs.root() / "game.zgp";
};

}  // namespace

TEST_F(ZMSingleThreadFileDownloaderTest, StatusOkMovesFileIntoPlace) {
  const std::string body = PatternBody(2 << 20);
  TestHttpServer server;
  server.Get("/pkg", [&](const auto&, auto& res) { res.set_content(body, "application/zip"); });
  server.Get("/chunked", [](const auto&, auto& res) {  // no length
    res.set_chunked_content_provider("application/octet-stream", [](size_t offset, auto& sink) {
      if (offset == 0) return sink.write(PatternBody(300000).data(), 300000);
      sink.done();
      return true;
    });
  });
  server.start();

  auto recorder = download(server.url("/pkg"));
  EXPECT_EQ(recorder->runs(),
            (std::vector<std::string>{"start:tag-1", "progress", "success:" + savePath}));
  const int64_t size = static_cast<int64_t>(body.size());
  EXPECT_EQ(recorder->progress.back(), std::make_pair(size, size));
  EXPECT_TRUE(ReadFile(savePath) == body);

  // Without a length, every progress report says -1 for the total.
  std::remove(savePath.c_str());
  auto chunked = download(server.url("/chunked"));
  EXPECT_EQ(chunked->last(), "success:" + savePath);
  for (const auto& [done, total] : chunked->progress) EXPECT_EQ(total, -1) << done;
  EXPECT_EQ(chunked->progress.back().first, 300000);
}

TEST_F(ZMSingleThreadFileDownloaderTest, AnyOtherStatusFails) {
  TestHttpServer server;
  for (int status : {404, 204, 206}) {
    server.Get("/" + std::to_string(status), [status](const auto&, auto& res) {
      res.status = status;
      if (status != 204) res.set_content("body of " + std::to_string(status), "text/plain");
    });
  }
  server.start();

  for (int status : {404, 204, 206}) {
    const std::string code = std::to_string(status);
    auto recorder = download(server.url("/" + code));
    EXPECT_EQ(recorder->last(), "failure:" + code + "|" + code);
    EXPECT_EQ(*recorder->error, ZMError(kZMNetServicesErrorDomain, status, ZMValue::object()));
    EXPECT_FALSE(Exists(savePath)) << code;
  }
}

TEST_F(ZMSingleThreadFileDownloaderTest, ExistingFileIsNeverOverwritten) {
  TestHttpServer server;
  server.Get("/pkg", [](const auto&, auto& res) { res.set_content("new", "text/plain"); });
  server.start();

  WriteFile(savePath, "old");
  auto recorder = download(server.url("/pkg"));
  EXPECT_EQ(recorder->last(), "failure:-1|move file fail");
  EXPECT_EQ(recorder->error->domain, kZMCocoaErrorDomain);
  EXPECT_EQ(recorder->error->code, kZMFileWriteFileExistsError);
  EXPECT_EQ(ReadFile(savePath), "old");
}

TEST_F(ZMSingleThreadFileDownloaderTest, CancelReportsCancelAndNoFailure) {
  TestHttpServer server;
  server.Get("/stall", PartialBody(server, 1 << 20, 64 << 10, true));
  server.start();

  auto recorder = std::make_shared<FileRecorder>();
  auto downloader = std::make_shared<ZMSingleThreadFileDownloader>(
      savePath, server.url("/stall"), "tag-1", recorder);
  recorder->onFirstProgress = [&] { downloader->cancel(); };
  downloader->start();
  ASSERT_TRUE(RunUntil([&] { return recorder->ends() > 0; }));
  DrainMainQueue();
  EXPECT_EQ(recorder->runs(), (std::vector<std::string>{"start:tag-1", "progress", "cancel"}));
  EXPECT_FALSE(Exists(savePath));
  EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{});

  // A downloader that never started still ends in onDownloadCancel, and sends nothing.
  auto idle = std::make_shared<FileRecorder>();
  auto unstarted = std::make_shared<ZMSingleThreadFileDownloader>(
      savePath, server.url("/stall"), "tag-2", idle);
  unstarted->cancel();
  ASSERT_TRUE(RunUntil([&] { return idle->ends() > 0; }));
  DrainMainQueue();
  EXPECT_EQ(idle->events(), std::vector<std::string>{"cancel"});
  EXPECT_EQ(server.requestCount(), 1u);

  // Cancellation is told apart by its text: a -999 whose description was translated is an
  // ordinary transfer failure.
  auto translated = std::make_shared<FileRecorder>();
  auto completed = std::make_shared<ZMSingleThreadFileDownloader>(
      savePath, server.url("/stall"), "tag-3", translated);
  auto session = ZMURLSession::sessionWithConfiguration({}, completed);
  auto task = session->downloadTask(ZMURLRequest(server.url("/stall")));  // never resumed
  const ZMError error(kZMURLErrorDomain, kZMURLErrorCancelled,
                      ZMValue{{kZMLocalizedDescriptionKey, "abgebrochen"}});
  completed->didCompleteWithError(*session, *task, error);
  EXPECT_EQ(translated->events(), std::vector<std::string>{"failure:0|download fail"});
  EXPECT_EQ(translated->error, error);
}

TEST_F(ZMSingleThreadFileDownloaderTest, TransferErrorsAreDownloadFail) {
  ZMSingleThreadFileDownloader::setTimeoutIntervalForTesting(1);
  TestHttpServer server;
  server.Get("/stall-head", [&](const auto&, auto& res) {
    server.pause(10s);
    res.set_content("late", "text/plain");
  });
  server.Get("/stall-body", PartialBody(server, 200000, 50000, true));
  server.Get("/short", PartialBody(server, 200000, 50000, false));
  server.start();
  ResettingServer resetting(200000, 50000);

  struct Case {
    std::string url;
    int32_t code;       // for the listener: the status, or 0 without a response
    int64_t transport;  // the error passed along
    std::string cause;  // in the error's debug description
  };
  for (const Case& c : std::vector<Case>{
           {"http://127.0.0.1:9/pkg", 0, kZMURLErrorCannotConnectToHost, ""},
           {server.url("/stall-head"), 0, kZMURLErrorTimedOut, ""},
           {server.url("/stall-body"), 200, kZMURLErrorTimedOut, ""},
           {server.url("/short"), 200, kZMURLErrorNetworkConnectionLost, "bytes remaining"},
           {resetting.url, 200, kZMURLErrorNetworkConnectionLost, "reset by peer"},
           {"not a url", 0, kZMURLErrorBadURL, ""},
       }) {
    auto recorder = download(c.url);
    EXPECT_EQ(recorder->last(), "failure:" + std::to_string(c.code) + "|download fail");
    EXPECT_EQ(recorder->error->domain, kZMURLErrorDomain) << c.url;
    EXPECT_EQ(recorder->error->code, c.transport) << c.url;
    EXPECT_NE(recorder->error->userInfo->value("NSDebugDescription", "").find(c.cause),
              std::string::npos)
        << recorder->error->userInfo->dump();
    EXPECT_FALSE(Exists(savePath)) << c.url;
  }
}

TEST_F(ZMSingleThreadFileDownloaderTest, ReleasedListenerHearsNothing) {
  const std::string body = PatternBody(4 << 20);
  TestHttpServer server;
  server.Get("/pkg", [&](const auto&, auto& res) { res.set_content(body, "application/zip"); });
  server.start();

  auto recorder = std::make_shared<FileRecorder>();
  const std::weak_ptr<FileRecorder> released = recorder;
  auto downloader = std::make_shared<ZMSingleThreadFileDownloader>(savePath, server.url("/pkg"),
                                                                   "tag-1", recorder);
  downloader->start();
  recorder.reset();
  EXPECT_TRUE(released.expired()) << "the downloader holds its listener weakly";
  ASSERT_TRUE(RunUntil([&] { return Exists(savePath); }));
  DrainMainQueue();
  EXPECT_TRUE(ReadFile(savePath) == body);  // the download itself went on
}
