// The runtime's download front as a host sees it: onDownloadStart before the call returns, a
// second download that silently replaces the first, and a cancel after which nothing arrives.
#include <gtest/gtest.h>

#include "support/TestHttpServer.h"
#include "support/TestRuntime.h"
#include "support/TestSupport.h"

using Events = std::vector<std::string>;

TEST(ZMGameRuntimeDownload, OnlyTheLatestDownloadIsHeardAndCancelIsSilent) {
  TestRuntime t;
  const std::string body = PatternBody(300000);
  TestHttpServer server;
  server.Get("/stall", PartialBody(server, 1 << 20, 64 << 10, true));
  server.Get("/pkg", [&](const auto&, auto& res) { res.set_content(body, "application/zip"); });
  server.start();
  const auto path = [&](const std::string& appId) {
    return t.runtime->getAppPackageDownloadPath(appId, "1.0");
  };
  // Starts a download of `appId` from `route`; the start is heard before the call returns.
  const auto download = [&](const std::string& appId, const std::string& route) {
    auto listener = std::make_shared<DownloadRecorder>();
    t.runtime->downloadGamePackage(ZMValue{{ZM_KEY_GAME_PACKAGE_APP_ID, appId},
                                           {ZM_KEY_GAME_PACKAGE_VERSION, "1.0"},
                                           {ZM_KEY_GAME_PACKAGE_URL, server.url(route)}},
                                   listener);
    EXPECT_EQ(listener->events(), Events{"onDownloadStart"}) << appId;
    return listener;
  };
  const auto underWay = [](const std::shared_ptr<DownloadRecorder>& listener) {
    return RunUntil([&] { return listener->size() > 1; });  // progress
  };
  // The network thread ends a cancelled transfer before it begins a later one, and the main
  // queue runs in order: once a later download has succeeded, every earlier transfer has ended
  // (its temporary file is gone) and its end has been delivered.
  const auto succeeds = [&](const std::shared_ptr<DownloadRecorder>& listener,
                            const std::string& appId) {
    EXPECT_TRUE(RunUntil([&] { return listener->last().starts_with("onDownloadSuccess"); }));
    DrainMainQueue();
    EXPECT_EQ(listener->runs(), (Events{"onDownloadStart", "onDownloadProgress",
                                        "onDownloadSuccess:" + path(appId)}));
    EXPECT_TRUE(ReadFile(path(appId)) == body) << appId;
    EXPECT_EQ(ListDir(t.dirs.temporary()), Events{}) << appId;
  };

  // A second download cancels the first, whose listener hears nothing more.
  auto first = download("a", "/stall");
  ASSERT_TRUE(underWay(first));
  auto second = download("b", "/pkg");
  succeeds(second, "b");
  EXPECT_EQ(first->runs(), (Events{"onDownloadStart", "onDownloadProgress"}));
  EXPECT_EQ(ListDir(t.cache()), Events{"b.1.0.zgp"});  // the package cache

  // cancelGamePackageRequest during a download: nothing, ever.
  auto cancelled = download("c", "/stall");
  ASSERT_TRUE(underWay(cancelled));
  t.runtime->cancelGamePackageRequest();
  DrainMainQueue();
  EXPECT_EQ(cancelled->runs(), (Events{"onDownloadStart", "onDownloadProgress"}));
  succeeds(download("d", "/pkg"), "d");
  EXPECT_EQ(cancelled->runs(), (Events{"onDownloadStart", "onDownloadProgress"}));
  EXPECT_EQ(ListDir(t.cache()), (Events{"b.1.0.zgp", "d.1.0.zgp"}));
  EXPECT_EQ(server.requestCount(), 4u);
}
