#include "game/ZMGameDownloadPackageTask.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "support/TestHttpServer.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"
#include "tavo/ZMOptionKeys.h"

namespace {

using Events = std::vector<std::string>;
constexpr const char* kV1 = "package-v1";
constexpr const char* kV1Hash = "b7fea727ecee9a81752f74fb6d980021";
constexpr const char* kV2 = "package-v2";
constexpr const char* kV2Hash = "97317d434eb0a3749a284f3c36eabc95";

class ZMGameDownloadPackageTaskTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // "/pkg" serves v1 on the first request and v2 on every later one.
    server.Get("/pkg", [this](const auto&, auto& res) {
      res.set_content(served.fetch_add(1) == 0 ? kV1 : kV2, "application/zip");
    });
    server.Get("/v1", [](const auto&, auto& res) { res.set_content(kV1, "application/zip"); });
    server.Get("/missing", [](const auto&, auto& res) { res.status = 404; });
    server.start();
  }

  // Downloads `route` to its end: what a fresh listener heard; `requests` counts its requests.
  Events run(const std::string& route, std::optional<std::string> hash) {
    const auto before = server.requestCount();
    auto recorder = std::make_shared<DownloadRecorder>();
    auto task = std::make_shared<ZMGameDownloadPackageTask>(recorder, savePath, server.url(route));
    ZMValue options = {{ZM_KEY_GAME_PACKAGE_APP_ID, "app.1"}, {ZM_KEY_GAME_PACKAGE_VERSION, "1.0"}};
    if (hash) options[ZM_KEY_GAME_PACKAGE_HASH] = *hash;
    task->execute(options);
    EXPECT_TRUE(RunUntil([&] {
      return recorder->last().starts_with("onDownloadSuccess:") ||
             recorder->last().starts_with("onDownloadFailure:");
    }));
    DrainMainQueue();
    requests = server.requestCount() - before;
    return recorder->runs();
  }

  ScopedSystemDirectories dirs;
  std::string savePath = dirs.root() / "app.1.1.0.zgp";
  const Events succeeded = {"onDownloadProgress", "onDownloadSuccess:" + savePath};
  std::size_t requests = 0;
  std::atomic<int> served{0};
  TestHttpServer server;
};

}  // namespace

TEST_F(ZMGameDownloadPackageTaskTest, TheHashIsComparedExactlyAndAMismatchIsFetchedOnceMore) {
  // An empty hash is none. (With no hash at all, ZMGameRuntimeDownload's downloads succeed.)
  WriteFile(savePath, "stale");  // removed when the task is made, so the download can land
  EXPECT_EQ(run("/v1", ""), succeeded);
  EXPECT_EQ(ReadFile(savePath), kV1);
  // v1 first (a mismatch), then v2: the host hears one success and no retry.
  EXPECT_EQ(run("/pkg", kV2Hash), succeeded);
  EXPECT_EQ(ReadFile(savePath), kV2);
  EXPECT_EQ(requests, 2u);

  // The same digest in upper case is a mismatch: two downloads, then the hash failure.
  EXPECT_EQ(run("/v1", "B7FEA727ECEE9A81752F74FB6D980021"),
            (Events{"onDownloadProgress", "onDownloadFailure:package hash check failure|0"}));
  EXPECT_EQ(requests, 2u);
  EXPECT_FALSE(Exists(savePath));

  // A transfer failure is forwarded alone and not repeated.
  EXPECT_EQ(run("/missing", kV1Hash), Events{"onDownloadFailure:NSNetServicesErrorDomain|404"});
  EXPECT_EQ(requests, 1u);
}

TEST_F(ZMGameDownloadPackageTaskTest, WithoutAListenerAnAbsentHashIsStillCompared) {
  // Nobody listens, so the missing hash is compared, never matches, and the package is fetched a
  // second time and then deleted, all unheard.
  auto task = std::make_shared<ZMGameDownloadPackageTask>(
      std::weak_ptr<ZMPackageDownloadListener>(), savePath, server.url("/v1"));
  task->execute({{ZM_KEY_GAME_PACKAGE_APP_ID, "app.1"}, {ZM_KEY_GAME_PACKAGE_VERSION, "1.0"}});
  // A transfer's temporary file exists before its request is sent, and until it is moved to the
  // save path; so this holds only once the second download has landed and been deleted.
  ASSERT_TRUE(RunUntil([&] {
    return server.requestCount() == 2 && ListDir(dirs.temporary()).empty() && !Exists(savePath);
  }));
  DrainMainQueue();
  EXPECT_EQ(server.requestCount(), 2u) << "no third attempt";
  EXPECT_FALSE(Exists(savePath));
}
