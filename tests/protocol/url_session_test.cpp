#include "protocol/ZMPartialDownload.h"
#include "protocol/ZMURLSession.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "support/TestHttpServer.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"
#include "tavo/ZMFileUtils.h"

using namespace std::chrono_literals;

namespace {

struct Recorder : ZMURLSessionDelegate, EventLog {
  std::vector<std::array<int64_t, 3>> progress;  // written, total, expected
  std::optional<ZMError> error;
  std::string location, contentAtFinish;
  std::shared_ptr<ZMURLSessionTask> task;

  void didWriteData(ZMURLSession&, ZMURLSessionTask&, int64_t written, int64_t total,
                    int64_t expected) override {
    progress.push_back({written, total, expected});
    note("progress");
  }
  std::optional<std::string> md5AtFinish, fileMD5AtFinish;

  void didFinishDownloadingToLocation(ZMURLSession&, ZMURLSessionTask& current,
                                      const std::string& path) override {
    location = path;
    contentAtFinish = ReadFile(path);
    md5AtFinish = current.downloadedMD5();
    fileMD5AtFinish = ZMFileUtils::getFileMD5(path);
    note("finish");
  }
  void didCompleteWithError(ZMURLSession&, ZMURLSessionTask&,
                            const std::optional<ZMError>& e) override {
    error = e;
    e ? note("complete", e->code) : note("complete");
  }
};

// Runs one download on a fresh session and waits for its completion; every callback comes on the
// main thread.
std::shared_ptr<Recorder> Download(const std::string& url, double timeout = 60) {
  auto recorder = std::make_shared<Recorder>();
  auto configuration = ZMURLSessionConfiguration::defaultSessionConfiguration();
  configuration.timeoutIntervalForRequest = timeout;
  auto session = ZMURLSession::sessionWithConfiguration(configuration, recorder);
  ZMURLRequest request(url);
  request.setValue("tavo", "X-Client");
  recorder->task = session->downloadTask(std::move(request));
  recorder->task->resume();
  EXPECT_TRUE(RunUntil([&] { return recorder->last().starts_with("complete"); })) << url;
  EXPECT_EQ(recorder->distinctThreads(), std::set{std::this_thread::get_id()}) << url;
  return recorder;
}

class ZMURLSessionTest : public ::testing::Test {
 protected:
  ScopedSystemDirectories dirs;
};

}  // namespace

TEST_F(ZMURLSessionTest, DownloadFollowsRedirectsWithCookiesThroughATemporaryFile) {
  const std::string body = PatternBody(3 << 20);
  TestHttpServer server;
  // The redirect sets a cookie that the target requires, beside the request's own header.
  server.Get("/moved", [](const auto&, auto& res) {
    res.set_header("Set-Cookie", "hop=1; Path=/");
    res.set_redirect("/file");
    res.set_content("redirect body", "text/plain");
  });
  server.Get("/file", [&](const auto& req, auto& res) {
    if (req.get_header_value("Cookie") != "hop=1" || req.get_header_value("X-Client") != "tavo") {
      res.status = 403;
    }
    res.set_content(body, "application/zip");
  });
  server.start();

  auto recorder = Download(server.url("/moved"));
  EXPECT_EQ(recorder->runs(), (std::vector<std::string>{"progress", "finish", "complete"}));
  int64_t sum = 0;
  for (const auto& [written, total, expected] : recorder->progress) {
    EXPECT_EQ(total, sum += written);
    EXPECT_EQ(expected, static_cast<int64_t>(body.size()));
  }
  EXPECT_EQ(sum, static_cast<int64_t>(body.size()));
  EXPECT_TRUE(recorder->contentAtFinish == body);  // the redirect's own body is not kept
  // The digest made while writing is the file's, so verifying never reads the file again.
  EXPECT_EQ(recorder->md5AtFinish, recorder->fileMD5AtFinish);
  EXPECT_EQ(recorder->location.rfind(dirs.temporary() + "/", 0), 0u) << recorder->location;
  EXPECT_FALSE(Exists(recorder->location));  // removed once the callback returned
  EXPECT_EQ(recorder->task->response()->statusCode, 200);

  // A temporary file that cannot be written ends the task without finishing: the process may not
  // write files beyond 64 KiB while the download runs.
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  const auto previous = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit limited{64 << 10, saved.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limited), 0);
  recorder = Download(server.url("/moved"));
  ::setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, previous);
  EXPECT_EQ(recorder->last(), "complete:" + std::to_string(kZMURLErrorCannotWriteToFile));
  EXPECT_EQ(std::ranges::count(recorder->events(), "finish"), 0);
  EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{});
}

TEST_F(ZMURLSessionTest, UnsupportedSchemesAndUntrustedServersFail) {
  TestHttpServer plain;  // answers a TLS handshake with plain HTTP
  plain.start();
  // A fresh self-signed certificate for 127.0.0.1: no trust store accepts it.
  ASSERT_EQ(std::system(("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
                         "-subj /CN=127.0.0.1 -days 1 -keyout " +
                         Quote(dirs.root() / "key.pem") + " -out " +
                         Quote(dirs.root() / "cert.pem") + " 2> /dev/null")
                            .c_str()),
            0);
  TestHttpServer untrusted(dirs.root() / "cert.pem", dirs.root() / "key.pem");
  untrusted.Get("/", [](const auto&, auto& res) { res.set_content("secret", "text/plain"); });
  untrusted.start();

  for (const auto& [url, code] : std::vector<std::pair<std::string, int64_t>>{
           {"ftp://127.0.0.1/file", kZMURLErrorUnsupportedURL},
           {"https://127.0.0.1:" + std::to_string(plain.port()) + "/",
            kZMURLErrorSecureConnectionFailed},
           {untrusted.url("/"), kZMURLErrorServerCertificateUntrusted},
       }) {
    auto recorder = Download(url);
    EXPECT_EQ(recorder->events(), std::vector<std::string>{"complete:" + std::to_string(code)});
    EXPECT_EQ(recorder->error->domain, kZMURLErrorDomain) << url;
    EXPECT_EQ(recorder->error->userInfo->value("NSErrorFailingURLStringKey", ""), url);
  }
  EXPECT_EQ(plain.requestCount() + untrusted.requestCount(), 0u);
}

TEST_F(ZMURLSessionTest, ASlowTransferOutlivesTheIdleTimeoutAndAStalledOneEndsWithExit) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TestHttpServer server;
  server.Get("/slow", [&](const auto&, auto& res) {
    res.set_content_provider(10000, "text/plain", [&](size_t offset, size_t, auto& sink) {
      if (offset > 0) server.pause(200ms);  // 1.8 s in all, never 1 s without a byte
      return sink.write(std::string(1000, 'x').data(), 1000);
    });
  });
  server.Get("/stall", PartialBody(server, 100000, 1000, true));
  server.start();

  // The child exits while a session (deliberately kept alive) has a transfer under way: the
  // network thread must be stopped and joined, with nothing leaked and no race reported. (The
  // child runs the test up to here, so this comes first.)
  EXPECT_EXIT(
      {
        static std::shared_ptr<ZMURLSession> kept;
        kept = ZMURLSession::sessionWithConfiguration({});
        kept->downloadTask(ZMURLRequest(server.url("/stall")))->resume();
        if (!RunUntil([&] { return server.requestCount() == 1; })) std::_Exit(3);
        // exit() skips the fixture's destructor: remove this process's directories first.
        std::filesystem::remove_all(dirs.root().path());
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");

  auto slow = Download(server.url("/slow"), 1);
  EXPECT_EQ(slow->last(), "complete");
  EXPECT_EQ(slow->contentAtFinish, std::string(10000, 'x'));
}

TEST_F(ZMURLSessionTest, OnlyDownloadFilesNobodyHoldsAreSweptAsStale) {
  const std::string tmp = dirs.temporary();
  // Temporary download files go after a minute, partial downloads kept for resuming after a day.
  for (const auto& [name, age] :
       std::vector<std::pair<std::string, double>>{{"tavo-download-dead01", 3600},
                                                   {"tavo-download-live01", 3600},
                                                   {"tavo-download-new001", 0},
                                                   {"tavo-download-toolong", 3600},
                                                   {"game.1.zgp", 3600},
                                                   {"a.zgp.partial", 90000},
                                                   {"a.zgp.partial.json", 90000},
                                                   {"b.zgp.partial", 80000},
                                                   {"b.zgp.partial.json", 90000},
                                                   {"c.zgp.partial", 90000}}) {
    WriteFile(tmp + "/" + name, "x");
    SetAgeSeconds(tmp + "/" + name, age);
  }
  // A live download holds its file's lock, as a writer in another process would.
  std::vector<int> held;
  for (const char* name : {"tavo-download-live01", "c.zgp.partial"}) {
    held.push_back(::open((tmp + "/" + name).c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(::flock(held.back(), LOCK_EX | LOCK_NB), 0);
  }
  EXPECT_EQ(ZMURLSession::removeStaleDownloads(tmp), 1);
  EXPECT_EQ(ZMPartialDownload::removeStale(tmp), 1);
  for (int fd : held) ::close(fd);
  EXPECT_EQ(ListDir(tmp),
            (std::vector<std::string>{"b.zgp.partial", "b.zgp.partial.json", "c.zgp.partial",
                                      "game.1.zgp", "tavo-download-live01", "tavo-download-new001",
                                      "tavo-download-toolong"}));
}
