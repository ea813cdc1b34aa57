#include "protocol/ZMSingleThreadFileDownloader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "protocol/ZMPartialDownload.h"
#include "protocol/ZMURLSession.h"
#include "support/TestHttpServer.h"
#include "support/TestListeners.h"
#include "support/TestRangeServer.h"
#include "support/TestSupport.h"
#include "tavo/ZMFileUtils.h"

using namespace std::chrono_literals;

namespace {

class ZMSingleThreadFileDownloaderTest : public ::testing::Test {
 protected:
  void TearDown() override {
    ZMSingleThreadFileDownloader::setTimeoutIntervalForTesting(0);
    ZMSingleThreadFileDownloader::setResumeDelayForTesting(0);
  }

  std::shared_ptr<ZMSingleThreadFileDownloader> downloader(const std::string& url,
                                                           std::shared_ptr<FileRecorder> listener) {
    return std::make_shared<ZMSingleThreadFileDownloader>(savePath, url, "tag-1", listener);
  }

  // Downloads `url` to the save path and waits for the end; then checks that exactly one
  // terminal callback came, on the main thread like every other, and that no temporary file is
  // left.
  std::shared_ptr<FileRecorder> download(const std::string& url, bool cancelMidway = false,
                                         int64_t resumeAttempts = 0) {
    auto recorder = std::make_shared<FileRecorder>();
    auto running = last = downloader(url, recorder);
    running->setResume(resumeAttempts, package, "md5-of-the-package");
    if (cancelMidway) recorder->onFirstProgress = [&] { running->cancel(); };
    running->start();
    EXPECT_EQ(recorder->events(), std::vector<std::string>{"start:tag-1"});  // synchronous
    EXPECT_TRUE(RunUntil([&] { return recorder->ends > 0; })) << url;
    DrainMainQueue();
    EXPECT_EQ(recorder->ends, 1) << url;
    EXPECT_EQ(recorder->distinctThreads(), std::set{std::this_thread::get_id()});
    EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{}) << url;
    return recorder;
  }

  ScopedSystemDirectories dirs;
  std::shared_ptr<ZMSingleThreadFileDownloader> last;  // the last download()'s
  std::string savePath = dirs.root() / "game.zgp";
  std::string package = dirs.root() / "cache.zgp";  // a resumed download's bytes go beside it
};

}  // namespace

TEST_F(ZMSingleThreadFileDownloaderTest, Status200OntoAFreePathSucceeds) {
  const std::string body = PatternBody(2 << 20), unsized = PatternBody(300000);
  TestHttpServer server;
  server.Get("/pkg", [&](const auto&, auto& res) { res.set_content(body, "application/zip"); });
  // The redirect sets a cookie that its target requires.
  server.Get("/moved", [](const auto&, auto& res) {
    res.set_header("Set-Cookie", "hop=1; Path=/");
    res.set_redirect("/file");
    res.set_content("redirect body", "text/plain");
  });
  server.Get("/file", [&](const auto& req, auto& res) {
    if (req.get_header_value("Cookie") != "hop=1") res.status = 403;
    res.set_content(body, "application/zip");
  });
  server.Get("/chunked", [&](const auto&, auto& res) {  // no length
    res.set_chunked_content_provider("application/octet-stream", [&](size_t offset, auto& sink) {
      if (offset == 0) return sink.write(unsized.data(), unsized.size());
      sink.done();
      return true;
    });
  });
  server.start();

  auto recorder = download(server.url("/moved"));
  EXPECT_EQ(recorder->runs(),
            (std::vector<std::string>{"start:tag-1", "progress", "success:" + savePath}));
  const int64_t size = static_cast<int64_t>(body.size());
  EXPECT_EQ(recorder->progress.back(), std::make_pair(size, size));
  EXPECT_TRUE(ReadFile(savePath) == body);  // the redirect's own body is not kept
  // The digest made while writing is the file's, so verifying never reads the file again.
  EXPECT_EQ(last->fileMD5(), ZMFileUtils::getFileMD5(savePath));
  std::remove(savePath.c_str());

  // A temporary file that cannot be written ends the download: the process may not write files
  // beyond 64 KiB meanwhile.
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  const auto previous = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit limited{64 << 10, saved.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limited), 0);
  recorder = download(server.url("/pkg"));
  ::setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, previous);
  EXPECT_EQ(Describe(*recorder->error),
            std::string(kZMURLErrorDomain) + "|" + std::to_string(kZMURLErrorCannotWriteToFile));
  EXPECT_FALSE(Exists(savePath));

  // Without a length, progress says -1 for the total.
  recorder = download(server.url("/chunked"));
  EXPECT_EQ(recorder->last(), "success:" + savePath);
  EXPECT_EQ(recorder->progress.back(), std::make_pair(int64_t{300000}, int64_t{-1}));

  // A file at the save path is never overwritten.
  recorder = download(server.url("/pkg"));
  EXPECT_EQ(recorder->last(), "failure:-1|move file fail");
  EXPECT_EQ(Describe(*recorder->error), "NSCocoaErrorDomain|516");  // file exists
  EXPECT_TRUE(ReadFile(savePath) == unsized);

  // A listener released before the end hears nothing (it is held weakly); the download goes on.
  std::remove(savePath.c_str());
  recorder = std::make_shared<FileRecorder>();
  auto unheard = downloader(server.url("/pkg"), recorder);
  unheard->start();
  const std::weak_ptr<FileRecorder> released = std::exchange(recorder, nullptr);
  EXPECT_TRUE(released.expired());
  ASSERT_TRUE(RunUntil([&] { return Exists(savePath); }));
  DrainMainQueue();
  EXPECT_TRUE(ReadFile(savePath) == body);
}

TEST_F(ZMSingleThreadFileDownloaderTest, EveryOtherEndIsOneFailureAndNoFile) {
  ZMSingleThreadFileDownloader::setTimeoutIntervalForTesting(2);
  TestHttpServer server;
  server.Get(R"(/status/(\d+))", [](const auto& req, auto& res) {
    res.status = std::stoi(req.matches[1]);
    if (res.status != 204) res.set_content("body", "text/plain");
  });
  server.Get("/stall-head", [&](const auto&, auto& res) {
    server.pause(10s);
    res.set_content("late", "text/plain");
  });
  server.Get("/stall-body", PartialBody(server, 200000, 50000, true));
  server.Get("/short", PartialBody(server, 200000, 50000, false));
  server.Get("/drip", Drip(server, std::string(100000, 'x'), 100ms));
  server.start();
  using Reply = TestRangeServer::Reply;
  const auto always = [](Reply reply) { return std::function([reply](int) { return reply; }); };
  TestRangeServer resetting(PatternBody(200000), always({.cutAt = 50000, .reset = true}));
  // A length past 64 bits, which the transfer alone would take as no length at all.
  TestRangeServer overflowing(PatternBody(50000), always({.length = "99999999999999999999999"}));
  // A 304 may declare the length its resource would have; it never has a body.
  TestRangeServer notModified("", always({.status = "304 Not Modified", .length = "100"}));
  TestRangeServer noContent("", always({.status = "204 No Content", .length = "100"}));
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

  struct Case {
    std::string url;
    std::string failure;     // code|message, as the listener hears it
    std::string error;       // domain|code of the error passed along
    std::string cause = "";  // in the error's debug description
    int64_t received = 0;    // bytes heard as progress before the failure; -1: not checked
  };
  const std::string url = kZMURLErrorDomain, status = kZMNetServicesErrorDomain;
  for (const Case& c : std::vector<Case>{
           // Only 200 succeeds: a status error carries the status, in the listener's code too.
           {server.url("/status/404"), "404|404", status + "|404", "", 4},
           {server.url("/status/204"), "204|204", status + "|204"},
           {notModified.url(), "304|304", status + "|304"},
           {noContent.url(), "204|204", status + "|204"},
           {server.url("/status/206"), "206|206", status + "|206", "", 4},
           // Transfer errors carry the response's status, or 0 when none came. -1004 cannot
           // connect, -1000 bad URL, -1001 timed out (idle), -1005 connection lost.
           {"http://127.0.0.1:9/pkg", "0|download fail", url + "|-1004"},
           {"not a url", "0|download fail", url + "|-1000"},
           // -1002 unsupported scheme, -1200 TLS failed, -1202 untrusted certificate.
           {"ftp://127.0.0.1/file", "0|download fail", url + "|-1002"},
           {"https://127.0.0.1:" + std::to_string(plain.port()) + "/", "0|download fail",
            url + "|-1200"},
           {untrusted.url("/"), "0|download fail", url + "|-1202"},
           {server.url("/stall-head"), "0|download fail", url + "|-1001"},
           {server.url("/stall-body"), "200|download fail", url + "|-1001", "", 50000},
           // Never idle, but far too slow to ever finish.
           {server.url("/drip"), "200|download fail", url + "|-1001", "slower than 1024 bytes/s",
            -1},
           {server.url("/short"), "200|download fail", url + "|-1005", "bytes remaining", 50000},
           // A reset may discard what the peer sent last.
           {resetting.url(), "200|download fail", url + "|-1005", "reset by peer", -1},
           {overflowing.url(), "200|download fail", url + "|-1011", "declared Content-Length",
            50000},
       }) {
    auto recorder = download(c.url);
    EXPECT_EQ(recorder->last(), "failure:" + c.failure) << c.url;
    EXPECT_EQ(Describe(*recorder->error), c.error) << c.url;
    EXPECT_NE(recorder->error->userInfo->value("NSDebugDescription", "").find(c.cause),
              std::string::npos)
        << recorder->error->userInfo->dump();
    EXPECT_FALSE(Exists(savePath)) << c.url;
    if (c.error.starts_with(url)) {
      EXPECT_EQ(recorder->error->userInfo->value("NSErrorFailingURLStringKey", ""), c.url);
    }
    if (c.received >= 0) {
      EXPECT_EQ(recorder->progress.empty() ? 0 : recorder->progress.back().first, c.received)
          << c.url;
    }
  }
  EXPECT_EQ(plain.requestCount() + untrusted.requestCount(), 0u);
}

TEST_F(ZMSingleThreadFileDownloaderTest, CancelReportsCancelAndNoFailure) {
  TestHttpServer server;
  server.Get("/stall", PartialBody(server, 1 << 20, 64 << 10, true));
  server.start();

  auto recorder = download(server.url("/stall"), /*cancelMidway=*/true);
  EXPECT_EQ(recorder->runs(), (std::vector<std::string>{"start:tag-1", "progress", "cancel"}));
  EXPECT_FALSE(Exists(savePath));

  // A downloader that never started still ends in onDownloadCancel, and sends nothing.
  auto idle = std::make_shared<FileRecorder>();
  auto unstarted = downloader(server.url("/stall"), idle);
  unstarted->cancel();
  ASSERT_TRUE(RunUntil([&] { return idle->ends > 0; }));
  DrainMainQueue();
  EXPECT_EQ(idle->events(), std::vector<std::string>{"cancel"});
  EXPECT_EQ(server.requestCount(), 1u);
}

TEST_F(ZMSingleThreadFileDownloaderTest, AResumedDownloadContinuesWhileTheServerAgrees) {
  ZMSingleThreadFileDownloader::setResumeDelayForTesting(0.01);
  using Reply = TestRangeServer::Reply;
  const int64_t size = 300000;
  const std::string body = PatternBody(size);
  // The requests a download makes: the first, then one resuming at each offset.
  const auto asked = [](auto... at) {
    return std::vector<std::string>{"|", ("bytes=" + std::to_string(at) + "-|\"v1\"")...};
  };
  // The first request cut at 100000 bytes, the later ones answered as `later`.
  const auto cutOnce = [](Reply later) {
    return std::function([later](int i) { return i == 0 ? Reply{.cutAt = 100000} : later; });
  };
  // The first `cuts` requests cut 70000 bytes further each, from 50000.
  const auto cutEach = [](int cuts) {
    return std::function(
        [cuts](int i) { return Reply{.cutAt = i < cuts ? 50000 + 70000 * i : -1}; });
  };
  const auto noValidator = std::function([](int) { return Reply{.cutAt = 100000, .etag = ""}; });
  struct Case {
    std::string name;
    std::function<Reply(int)> reply;
    int64_t attempts;
    std::string end;  // the terminal callback
    std::vector<std::string> requests;
    int64_t sent;       // body bytes on the wire, in all
    bool kept = false;  // the bytes stay for a later download
  };
  const std::string failed = "failure:200|download fail";
  for (const Case& c : std::vector<Case>{
           {"cut once", cutOnce({}), 3, "success", asked(100000), size},
           {"cut thrice", cutEach(3), 3, "success", asked(50000, 120000, 190000), size},
           {"attempts run out", cutEach(9), 2, "failure:206|download fail", asked(50000, 120000),
            190000, true},
           // The file changed (another ETag) or the server ignores ranges: 200, from byte 0.
           {"file changed", cutOnce({.etag = "v2"}), 3, "success", asked(100000), 100000 + size},
           {"ranges ignored", cutOnce({.ranges = false}), 3, "success", asked(100000),
            100000 + size},
           {"range refused", cutOnce({.cutAt = 0, .status = "416 Refused", .length = "0"}), 3,
            "failure:416|416", asked(100000), 100000},
           {"no validator", noValidator, 3, failed, asked(), 100000},
           {"resumption off", cutOnce({}), 0, failed, asked(), 100000},
       }) {
    TestRangeServer server(body, c.reply);
    std::remove(savePath.c_str());
    auto recorder = download(server.url(), false, c.attempts);
    EXPECT_EQ(recorder->last(), c.end == "success" ? "success:" + savePath : c.end) << c.name;
    EXPECT_EQ(server.requests(), c.requests) << c.name;
    EXPECT_EQ(server.sent(), c.sent) << c.name;
    // Progress never goes back, and a success counts the whole file.
    for (size_t i = 1; i < recorder->progress.size(); ++i) {
      EXPECT_GE(recorder->progress[i].first, recorder->progress[i - 1].first) << c.name;
    }
    if (c.end == "success") {
      EXPECT_TRUE(ReadFile(savePath) == body) << c.name;
      EXPECT_EQ(recorder->progress.back(), std::make_pair(size, size)) << c.name;
    }
    EXPECT_EQ(Exists(package + ".partial"), c.kept) << c.name;
    EXPECT_EQ(Exists(package + ".partial.json"), c.kept) << c.name;
  }

  // A cancel during the wait before a continuation ends the download at once.
  ZMSingleThreadFileDownloader::setResumeDelayForTesting(600);
  TestRangeServer slow(body, [](int) { return Reply{.cutAt = 100000}; });
  LogCapture log;
  auto recorder = std::make_shared<FileRecorder>();
  auto waiting = downloader(slow.url(), recorder);
  waiting->setResume(1, package, "md5-of-the-package");
  waiting->start();
  // (At most 30 s, however long the waits would grow.)
  ASSERT_TRUE(RunUntil(
      [&] { return !log.startingWith("download resumes at 100000 bytes in 30 s").empty(); }));
  waiting->cancel();
  ASSERT_TRUE(RunUntil([&] { return recorder->ends > 0; }));
  EXPECT_EQ(recorder->last(), "cancel");
  EXPECT_EQ(slow.requests().size(), 1u);
  EXPECT_TRUE(Exists(package + ".partial")) << "kept for a later download";
}

TEST_F(ZMSingleThreadFileDownloaderTest, ASlowDownloadOutlivesTheIdleTimeoutAndAStalledOneExit) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  ZMSingleThreadFileDownloader::setTimeoutIntervalForTesting(1);
  TestHttpServer server;
  server.Get("/slow", [&](const auto&, auto& res) {
    res.set_content_provider(10000, "text/plain", [&](size_t offset, size_t, auto& sink) {
      if (offset > 0) server.pause(200ms);  // 1.8 s in all, never 1 s without a byte
      return sink.write(std::string(1000, 'x').data(), 1000);
    });
  });
  server.Get("/stall", PartialBody(server, 100000, 1000, true));
  server.start();

  // The child exits while a download (deliberately kept alive) is under way: the network thread
  // must be stopped and joined, with nothing leaked and no race reported. (The child runs the
  // test up to here, so this comes first.)
  EXPECT_EXIT(
      {
        static auto listener = std::make_shared<FileRecorder>();
        static auto kept = downloader(server.url("/stall"), listener);
        kept->start();
        if (!RunUntil([&] { return server.requestCount() == 1; })) std::_Exit(3);
        // exit() skips the fixture's destructor: remove this process's directories first.
        std::filesystem::remove_all(dirs.root().path());
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");

  EXPECT_EQ(download(server.url("/slow"))->last(), "success:" + savePath);
  EXPECT_EQ(ReadFile(savePath), std::string(10000, 'x'));
}

TEST(ZMURLSession, OnlyDownloadFilesNobodyHoldsAreSweptAsStale) {
  TempDir dir;
  const std::string tmp = dir.path();
  // Temporary download files go after a minute, partial downloads kept for resuming after a day.
  const std::vector<std::pair<std::string, double>> files = {
      {"tavo-download-dead01", 3600}, {"tavo-download-live01", 3600},
      {"tavo-download-new001", 0},    {"tavo-download-toolong", 3600},
      {"game.1.zgp", 3600},           {"a.zgp.partial", 90000},
      {"a.zgp.partial.json", 90000},  {"b.zgp.partial", 80000},
      {"b.zgp.partial.json", 90000},  {"c.zgp.partial", 90000}};
  for (const auto& [name, age] : files) {
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
