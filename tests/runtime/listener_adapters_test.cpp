#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <utility>

#include "support/TestRuntime.h"
#include "support/TestSupport.h"
#include "support/TestZip.h"
#include "tavo/ZMFutures.h"

namespace {

// What the adapter's lambdas heard, as "callback:args".
using Heard = std::vector<std::string>;

const ZMValue kInfo = {{"provider", "p"}, {"version", "1.0"}};
const ZMError kError("boom", 7);

std::string Show(const std::optional<ZMError>& error) { return error ? Describe(*error) : "null"; }
template <typename T>
std::string Show(const std::shared_ptr<T>& pointer) {
  return pointer ? "ptr" : "nullptr";
}
template <typename T>
std::string Show(const T& value) {
  return Describe(value);
}

// Calls every callback of each interface through the interface, as libtavo would, and checks
// what reached the adapter's lambdas: "name:arg|arg".
TEST(ListenerAdapters, EachAdapterRelaysEveryCallbackOfItsInterface) {
  Heard h;
  const auto n = [&h](const char* name) {
    return [&h, name](const auto&... args) {
      std::string heard = name;
      ((heard += (heard == name ? ":" : "|") + Show(args)), ...);
      h.push_back(heard);
    };
  };
  const auto heard = [&h] { return std::exchange(h, {}); };
  const auto start = n("start"), ok = n("ok"), no = n("no"), finish = n("finish");

  auto init = tavo::initListener({.onSuccess = ok, .onFailure = no});
  init->onInitializeSuccess(nullptr), init->onInitializeFailure(ZMException("init fail", "x"));
  EXPECT_EQ(heard(), (Heard{"ok:nullptr", "no:init fail|x"}));
  auto run = tavo::runListener({.onHandleCreate = n("handle"), .onSuccess = ok, .onFailure = no});
  run->onGameHandleCreate(nullptr), run->onRunSuccess(), run->onRunFailure(kError);
  EXPECT_EQ(heard(), (Heard{"handle:nullptr", "ok", "no:boom|7"}));
  auto exit = tavo::exitListener({.onSuccess = ok, .onFailure = no});
  exit->onGameExitSuccess(), exit->onGameExitFailure(kError);
  EXPECT_EQ(heard(), (Heard{"ok", "no:boom|7"}));
  auto query = tavo::queryExitListener(n("quit"));
  query->onQueryExit("g", 5), query->release();
  EXPECT_EQ(heard(), (Heard{"quit:g|5"}));
  auto check = tavo::checkVersionListener({.onStart = start, .onSuccess = ok, .onFailure = no});
  check->onCheckVersionStart(1), check->onCheckVersionSuccess();
  check->onCheckVersionFailure(kError);
  EXPECT_EQ(heard(), (Heard{"start:1", "ok", "no:boom|7"}));
  auto download = tavo::downloadListener({.onStart = start,
                                          .onProgress = n("progress"),
                                          .onRetry = n("retry"),
                                          .onSuccess = ok,
                                          .onFailure = no});
  download->onDownloadStart(), download->onDownloadProgress(1, 2), download->onDownloadRetry(3);
  download->onDownloadSuccess("/f"), download->onDownloadFailure(kError);
  EXPECT_EQ(heard(), (Heard{"start", "progress:1|2", "retry:3", "ok:/f", "no:boom|7"}));
  auto install = tavo::installListener({.onStart = start, .onSuccess = ok, .onFailure = no});
  install->onInstallStart(), install->onInstallSuccess(), install->onInstallFailure(kError);
  EXPECT_EQ(heard(), (Heard{"start", "ok", "no:boom|7"}));
  auto remove = tavo::removeListener(
      {.onStart = start, .onFinish = finish, .onSuccess = ok, .onFailure = no});
  remove->onRemoveStart("g", std::nullopt), remove->onRemoveFinish("g", "x");
  remove->onRemoveFailure(kError), remove->onRemoveSuccess(std::vector<std::string>{"g"});
  EXPECT_EQ(heard(), (Heard{"start:g|(null)", "finish:g|x", "no:boom|7", "ok:[g]"}));
  auto sweep = tavo::sweepListener(
      {.onStart = start, .onProgress = n("rm"), .onSuccess = ok, .onFailure = no});
  sweep->onCheckStart(), sweep->onCheckProgress("/f"), sweep->onCheckSuccess();
  sweep->onCheckFailure(kError);
  EXPECT_EQ(heard(), (Heard{"start", "rm:/f", "ok", "no:boom|7"}));
  auto list = tavo::listListener({.onSuccess = ok, .onFailure = no});
  list->onListGameSuccess(ZMValue::array()), list->onListGameFailure(kError);
  EXPECT_EQ(heard(), (Heard{"ok:[]", "no:boom|7"}));
  auto data = tavo::gameDataListener({.onSuccess = ok, .onFailure = no});
  data->onGameDataSetSuccess(), data->onGameDataSetFailure(kError);
  EXPECT_EQ(heard(), (Heard{"ok", "no:boom|7"}));
  auto pluginCheck =
      tavo::pluginCheckListener({.onStart = start, .onSuccess = ok, .onFailure = no});
  pluginCheck->onCheckPluginVersionStart(1), pluginCheck->onCheckPluginSuccess(2);
  pluginCheck->onCheckPluginFailure(3, kError);
  EXPECT_EQ(heard(), (Heard{"start:1", "ok:2", "no:3|boom|7"}));
  auto pluginInstall = tavo::pluginInstallListener({.onStart = start,
                                                    .onProgress = n("progress"),
                                                    .onRetry = n("retry"),
                                                    .onSuccess = ok,
                                                    .onFailure = no});
  pluginInstall->onPluginInstallStart(1), pluginInstall->onPluginDownloadProgress(2, 3, 4);
  pluginInstall->onPluginDownloadRetry(5, 6), pluginInstall->onPluginInstallSuccess(7);
  pluginInstall->onPluginInstallFailure(8, kError), pluginInstall->onPluginInstallFailure(9, {});
  EXPECT_EQ(heard(),
            (Heard{"start:1", "progress:2|3|4", "retry:5|6", "ok:7", "no:8|boom|7", "no:9|null"}));
  auto pluginRemove = tavo::pluginRemoveListener(
      {.onStart = start, .onFinish = finish, .onSuccess = ok, .onFailure = no});
  pluginRemove->onPluginRemoveStart(1), pluginRemove->onPluginRemoveFinish(2);
  pluginRemove->onPluginRemoveSuccess(3), pluginRemove->onPluginRemoveFailure(kError);
  EXPECT_EQ(heard(), (Heard{"start:1", "finish:2", "ok:3", "no:boom|7"}));
  DrainMainQueue();  // lets the adapters go
}

// The adapters below are passed as temporaries: libtavo holds them weakly, so only their hold
// on themselves brings the final callback, from the main queue and from the engine's thread.
TEST(ListenerAdapters, ATemporaryAdapterHearsItsFinalCallbackAndIsThenFreed) {
  TestRuntime t;
  ASSERT_TRUE(t.installGame("g", "1"));
  std::vector<std::weak_ptr<void>> adapters;
  const auto temporary = [&](auto adapter) {
    adapters.push_back(adapter);
    return adapter;
  };
  std::atomic<int> finals{0};
  const auto heard = [&](auto&&...) { ++finals; };

  t.runtime->checkGameVersion(
      {{ZM_KEY_GAME_PACKAGE_APP_ID, "g"}, {ZM_KEY_GAME_PACKAGE_VERSION, "1"}},
      temporary(tavo::checkVersionListener({.onSuccess = heard})));
  t.runtime->runGame(nullptr, "g", {{ZM_KEY_RUN_OPT_VERSION, "1"}},
                     temporary(tavo::runListener({.onSuccess = heard})));
  ASSERT_TRUE(RunUntil([&] { return finals == 2; }));
  t.runtime->exitGame("g", temporary(tavo::exitListener({.onSuccess = heard})));
  auto plugins = t.runtime->getManager("plugin_manager", ZMValue::object());
  plugins->setPluginServiceHosts({});
  plugins->installPlugin(kInfo, temporary(tavo::pluginInstallListener({.onFailure = heard})));
  // Reported as a failure and then as a success in one block: a config without its directory.
  WriteFile(t.plugin() + "/p_1.0.detail.json", "{}");
  Heard pair;
  plugins->checkPluginVersion(
      kInfo, temporary(tavo::pluginCheckListener(
                 {.onSuccess = [&](auto&) { pair.push_back("ok"), ++finals; },
                  .onFailure = [&](auto&, auto& x) { pair.push_back(x.domain); }})));

  ASSERT_TRUE(RunUntil([&] { return finals == 5; }));
  EXPECT_EQ(pair, (Heard{"Error:plugin package no exist.", "ok"}));
  DrainMainQueue();
  for (const auto& adapter : adapters) EXPECT_TRUE(adapter.expired());
}

// A worker thread waits on the futures while the test's main thread drains the queue.
TEST(ListenerAdapters, FuturesBringEachOutcomeToAWaitingThread) {
  TestRuntime t;
  const std::string package = t.root() + "/g.zip";
  MakeGamePackage(package, R"({"deviceOrientation":"portrait"})");
  const ZMValue game = {{ZM_KEY_GAME_PACKAGE_APP_ID, "g"}, {ZM_KEY_GAME_PACKAGE_VERSION, "1"}};
  ZMValue install = game;
  install[ZM_KEY_GAME_PACKAGE_PATH] = package;
  auto runtime = t.runtime;
  auto plugins = runtime->getManager("plugin_manager", ZMValue::object());
  plugins->setPluginServiceHosts({});

  Heard heard;
  std::atomic<bool> done{false};
  std::thread worker([&] {
    const auto failure = [](auto&& future) {
      try {
        future.get();
      } catch (const ZMError& error) {
        return error.domain;
      }
      return std::string("none");
    };
    tavo::installGamePackage(runtime, install).get();
    tavo::checkGameVersion(runtime, game).get();
    heard.push_back(tavo::listGame(runtime).get().dump());
    ZMValue other = game;
    other[ZM_KEY_GAME_PACKAGE_VERSION] = "2";
    heard.push_back(failure(tavo::checkGameVersion(runtime, other)));
    heard.push_back(ZMValue(tavo::removeGameList(runtime, {}).get()).dump());
    heard.push_back(ZMValue(tavo::removeGameList(runtime, {"g"}).get()).dump());
    heard.push_back(failure(tavo::installPlugin(plugins, kInfo)));
    done = true;
  });
  const bool finished = RunUntil([&] { return done.load(); });
  worker.join();
  ASSERT_TRUE(finished);
  EXPECT_EQ(heard, (Heard{R"([{"rt_game_item_app_id":"g"}])",
                          "Error: version is not the same as local version", "[]", R"(["g"])",
                          "no plugin service host"}));
}

}  // namespace
