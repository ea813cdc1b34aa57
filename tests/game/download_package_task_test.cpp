#include "game/ZMGameDownloadPackageTask.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/TestHttpServer.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"
#include "tavo/ZMOptionKeys.h"

namespace {

constexpr const char* kV1 = "package-v1";
constexpr const char* kV1Hash = "b7fea727ecee9a81752f74fb6d980021";
constexpr const char* kV2 = "package-v2";
constexpr const char* kV2Hash = "97317d434eb0a3749a284f3c36eabc95";

// Keeps the whole error: its user info matters too.
struct HostRecorder : DownloadRecorder {
  std::optional<ZMError> error;
  void onDownloadFailure(const ZMError& e) override {
    error = e;
    DownloadRecorder::onDownloadFailure(e);
  }
  bool ended() const {
    return last().starts_with("onDownloadSuccess:") || last().starts_with("onDownloadFailure:");
  }
};

ZMValue Options(std::optional<std::string> hash) {
  ZMValue options = {{ZM_KEY_GAME_PACKAGE_APP_ID, "app.1"}, {ZM_KEY_GAME_PACKAGE_VERSION, "1.0"}};
  if (hash) options[ZM_KEY_GAME_PACKAGE_HASH] = *hash;
  return options;
}

class ZMGameDownloadPackageTaskTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // "/pkg" serves v1 on the first request and v2 on every later one.
    server.Get("/pkg", [this](const auto&, auto& res) {
      res.set_content(served.fetch_add(1) == 0 ? kV1 : kV2, "application/zip");
    });
    server.Get("/v1", [](const auto&, auto& res) { res.set_content(kV1, "application/zip"); });
    server.Get("/missing", [](const auto&, auto& res) { res.status = 404; });
    server.Get("/stall", PartialBody(server, 1 << 20, 10, true));
    server.start();
  }

  void run(const std::string& path, std::optional<std::string> hash) {
    auto task = std::make_shared<ZMGameDownloadPackageTask>(recorder, savePath, server.url(path));
    task->execute(Options(std::move(hash)));
    EXPECT_TRUE(RunUntil([&] { return recorder->ended(); }));
    DrainMainQueue();
  }
  std::vector<std::string> succeeded() const {
    return {"onDownloadProgress", "onDownloadSuccess:" + savePath};
  }

  ScopedSystemDirectories dirs;
  std::string savePath = dirs.root() / "app.1.1.0.zgp";
  std::shared_ptr<HostRecorder> recorder = std::make_shared<HostRecorder>();
  std::atomic<int> served{0};
  TestHttpServer server;
};

}  // namespace

TEST_F(ZMGameDownloadPackageTaskTest, MissingOrEmptyHashSkipsTheCheck) {
  for (std::optional<std::string> hash : {std::optional<std::string>(), std::optional<std::string>("")}) {
    recorder = std::make_shared<HostRecorder>();
    WriteFile(savePath, "stale");  // removed when the task is made, so the download can land
    run("/v1", hash);
    EXPECT_EQ(recorder->runs(), succeeded());
    EXPECT_EQ(ReadFile(savePath), kV1);
  }
  EXPECT_EQ(server.requestCount(), 2u);  // one download each
}

TEST_F(ZMGameDownloadPackageTaskTest, DigestIsComparedExactly) {
  // The same digest in upper case is a mismatch: two downloads, then the hash failure.
  run("/v1", "B7FEA727ECEE9A81752F74FB6D980021");
  EXPECT_EQ(recorder->runs(), (std::vector<std::string>{
                                 "onDownloadProgress",
                                 "onDownloadFailure:package hash check failure|0"}));
  EXPECT_FALSE(recorder->error->userInfo);
  EXPECT_EQ(server.requestCount(), 2u);
  EXPECT_FALSE(Exists(savePath));
}

TEST_F(ZMGameDownloadPackageTaskTest, MismatchThenMatchSucceedsWithoutTellingTheHost) {
  run("/pkg", kV2Hash);  // v1 first (mismatch), then v2
  EXPECT_EQ(recorder->runs(), succeeded());
  EXPECT_EQ(ReadFile(savePath), kV2);
  EXPECT_EQ(server.requestCount(), 2u);
}

TEST_F(ZMGameDownloadPackageTaskTest, TransferFailureIsForwardedOnce) {
  run("/missing", kV1Hash);
  EXPECT_EQ(recorder->size(), 1u) << "the failure alone";
  EXPECT_EQ(*recorder->error, ZMError(kZMNetServicesErrorDomain, 404, ZMValue::object()));
  EXPECT_EQ(server.requestCount(), 1u);  // a transfer failure is not repeated
}

TEST_F(ZMGameDownloadPackageTaskTest, CancelIsSilent) {
  auto task = std::make_shared<ZMGameDownloadPackageTask>(recorder, savePath, server.url("/stall"));
  task->execute(Options(kV1Hash));
  ASSERT_TRUE(RunUntil([&] { return recorder->size() > 0; }));  // progress: under way
  task->cancel();
  EXPECT_EQ(task->downloader(), nullptr);
  DrainMainQueue();
  const auto cancelled = std::exchange(recorder, std::make_shared<HostRecorder>());
  EXPECT_EQ(cancelled->runs(), std::vector<std::string>{"onDownloadProgress"});
  EXPECT_FALSE(Exists(savePath));

  // The network thread ends the cancelled transfer before it begins a later one, and the main
  // queue runs in order: once a later download has ended, so has the cancelled one, unheard.
  run("/v1", kV1Hash);
  EXPECT_EQ(recorder->runs(), succeeded());
  EXPECT_EQ(cancelled->runs(), std::vector<std::string>{"onDownloadProgress"});
  EXPECT_EQ(ListDir(dirs.temporary()), std::vector<std::string>{});
}
