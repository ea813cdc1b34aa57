#include <gtest/gtest.h>

#include <atomic>
#include <thread>

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

// Calls every callback of each interface through the interface, as libtavo would, and notes
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
  const ZMException exception("init fail", "x");
  const std::vector<std::string> g = {"g"};

  auto init = tavo::initListener({.onSuccess = n("ok"), .onFailure = n("no")});
  init->onInitializeSuccess(nullptr), init->onInitializeFailure(exception);
  auto run = tavo::runListener(
      {.onHandleCreate = n("handle"), .onSuccess = n("ok"), .onFailure = n("no")});
  run->onGameHandleCreate(nullptr), run->onRunSuccess(), run->onRunFailure(kError);
  auto exit = tavo::exitListener({.onSuccess = n("ok"), .onFailure = n("no")});
  exit->onGameExitSuccess(), exit->onGameExitFailure(kError);
  auto query = tavo::queryExitListener(n("quit"));
  query->onQueryExit("g", 5), query->release();
  auto check = tavo::checkVersionListener(
      {.onStart = n("start"), .onSuccess = n("ok"), .onFailure = n("no")});
  check->onCheckVersionStart(1), check->onCheckVersionSuccess(),
      check->onCheckVersionFailure(kError);
  auto download = tavo::downloadListener({.onStart = n("start"),
                                          .onProgress = n("progress"),
                                          .onRetry = n("retry"),
                                          .onSuccess = n("ok"),
                                          .onFailure = n("no")});
  download->onDownloadStart(), download->onDownloadProgress(1, 2), download->onDownloadRetry(3);
  download->onDownloadSuccess("/f"), download->onDownloadFailure(kError);
  auto install =
      tavo::installListener({.onStart = n("start"), .onSuccess = n("ok"), .onFailure = n("no")});
  install->onInstallStart(), install->onInstallSuccess(), install->onInstallFailure(kError);
  auto remove = tavo::removeListener(
      {.onStart = n("start"), .onFinish = n("finish"), .onSuccess = n("ok"), .onFailure = n("no")});
  remove->onRemoveStart("g", std::nullopt), remove->onRemoveFinish("g", "x");
  remove->onRemoveFailure(kError), remove->onRemoveSuccess(g);
  auto sweep = tavo::sweepListener(
      {.onStart = n("start"), .onProgress = n("rm"), .onSuccess = n("ok"), .onFailure = n("no")});
  sweep->onCheckStart(), sweep->onCheckProgress("/f"), sweep->onCheckSuccess();
  sweep->onCheckFailure(kError);
  auto list = tavo::listListener({.onSuccess = n("ok"), .onFailure = n("no")});
  list->onListGameSuccess(ZMValue::array()), list->onListGameFailure(kError);
  auto data = tavo::gameDataListener({.onSuccess = n("ok"), .onFailure = n("no")});
  data->onGameDataSetSuccess(), data->onGameDataSetFailure(kError);
  auto pluginCheck = tavo::pluginCheckListener(
      {.onStart = n("start"), .onSuccess = n("ok"), .onFailure = n("no")});
  pluginCheck->onCheckPluginVersionStart(1), pluginCheck->onCheckPluginSuccess(2);
  pluginCheck->onCheckPluginFailure(3, kError);
  auto pluginInstall = tavo::pluginInstallListener({.onStart = n("start"),
                                                    .onProgress = n("progress"),
                                                    .onRetry = n("retry"),
                                                    .onSuccess = n("ok"),
                                                    .onFailure = n("no")});
  pluginInstall->onPluginInstallStart(1), pluginInstall->onPluginDownloadProgress(2, 3, 4);
  pluginInstall->onPluginDownloadRetry(5, 6), pluginInstall->onPluginInstallSuccess(7);
  pluginInstall->onPluginInstallFailure(8, kError), pluginInstall->onPluginInstallFailure(9, {});
  auto pluginRemove = tavo::pluginRemoveListener(
      {.onStart = n("start"), .onFinish = n("finish"), .onSuccess = n("ok"), .onFailure = n("no")});
  pluginRemove->onPluginRemoveStart(1), pluginRemove->onPluginRemoveFinish(2);
  pluginRemove->onPluginRemoveSuccess(3), pluginRemove->onPluginRemoveFailure(kError);

  EXPECT_EQ(h, (Heard{"ok:nullptr",
                      "no:init fail|x",  // init
                      "handle:nullptr",
                      "ok",
                      "no:boom|7",  // run
                      "ok",
                      "no:boom|7",  // exit
                      "quit:g|5",   // query
                      "start:1",
                      "ok",
                      "no:boom|7",  // check
                      "start",
                      "progress:1|2",
                      "retry:3",
                      "ok:/f",
                      "no:boom|7",  // download
                      "start",
                      "ok",
                      "no:boom|7",  // install
                      "start:g|(null)",
                      "finish:g|x",
                      "no:boom|7",
                      "ok:[g]",  // remove
                      "start",
                      "rm:/f",
                      "ok",
                      "no:boom|7",  // sweep
                      "ok:[]",
                      "no:boom|7",  // list
                      "ok",
                      "no:boom|7",  // data
                      "start:1",
                      "ok:2",
                      "no:3|boom|7",  // p. check
                      "start:1",
                      "progress:2|3|4",
                      "retry:5|6",
                      "ok:7",
                      "no:8|boom|7",  // p. inst.
                      "no:9|null",    //
                      "start:1",
                      "finish:2",
                      "ok:3",
                      "no:boom|7"}));  // p. remove
  DrainMainQueue();                    // lets the adapters go
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
