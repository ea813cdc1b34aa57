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

// Calls every callback of each interface through the interface, as libtavo would.
TEST(ListenerAdapters, EachAdapterRelaysEveryCallbackOfItsInterface) {
  struct Case {
    const char* name;
    std::function<void(Heard&)> drive;
    Heard expected;
  };
  const auto e = [](const ZMError& error) { return Describe(error); };
  const std::vector<Case> cases = {
      {"init",
       [&](Heard& h) {
         auto a =
             tavo::initListener({.onSuccess = [&](auto r) { h.push_back(r ? "ok:r" : "ok"); },
                                 .onFailure = [&](auto& x) { h.push_back("no:" + x.name()); }});
         a->onInitializeSuccess(nullptr), a->onInitializeFailure(ZMException("init fail", "x"));
       },
       {"ok", "no:init fail"}},
      {"run",
       [&](Heard& h) {
         auto a = tavo::runListener({.onHandleCreate = [&](auto) { h.push_back("handle"); },
                                     .onSuccess = [&] { h.push_back("ok"); },
                                     .onFailure = [&](auto& x) { h.push_back("no:" + e(x)); }});
         a->onGameHandleCreate(nullptr), a->onRunSuccess(), a->onRunFailure(kError);
       },
       {"handle", "ok", "no:boom|7"}},
      {"exit",
       [&](Heard& h) {
         auto a = tavo::exitListener({.onSuccess = [&] { h.push_back("ok"); },
                                      .onFailure = [&](auto& x) { h.push_back("no:" + e(x)); }});
         a->onGameExitSuccess(), a->onGameExitFailure(kError);
       },
       {"ok", "no:boom|7"}},
      {"query exit",
       [&](Heard& h) {
         auto a = tavo::queryExitListener([&](auto& id, auto& r) { h.push_back(id + r.dump()); });
         a->onQueryExit("g", 5);
         a->release();
       },
       {"g5"}},
      {"check version",
       [&](Heard& h) {
         auto a = tavo::checkVersionListener(
             {.onStart = [&](auto& o) { h.push_back("start:" + o.dump()); },
              .onSuccess = [&] { h.push_back("ok"); },
              .onFailure = [&](auto& x) { h.push_back("no:" + e(x)); }});
         a->onCheckVersionStart(1), a->onCheckVersionSuccess(), a->onCheckVersionFailure(kError);
       },
       {"start:1", "ok", "no:boom|7"}},
      {"download",
       [&](Heard& h) {
         auto a = tavo::downloadListener(
             {.onStart = [&] { h.push_back("start"); },
              .onProgress = [&](auto d, auto t) { h.push_back(Describe(d) + "/" + Describe(t)); },
              .onRetry = [&](auto n) { h.push_back("retry:" + Describe(n)); },
              .onSuccess = [&](auto& p) { h.push_back("ok:" + p); },
              .onFailure = [&](auto& x) { h.push_back("no:" + e(x)); }});
         a->onDownloadStart(), a->onDownloadProgress(1, 2), a->onDownloadRetry(3);
         a->onDownloadSuccess("/f"), a->onDownloadFailure(kError);
       },
       {"start", "1/2", "retry:3", "ok:/f", "no:boom|7"}},
      {"install",
       [&](Heard& h) {
         auto a = tavo::installListener({.onStart = [&] { h.push_back("start"); },
                                         .onSuccess = [&] { h.push_back("ok"); },
                                         .onFailure = [&](auto& x) { h.push_back("no:" + e(x)); }});
         a->onInstallStart(), a->onInstallSuccess(), a->onInstallFailure(kError);
       },
       {"start", "ok", "no:boom|7"}},
      {"remove",
       [&](Heard& h) {
         auto a = tavo::removeListener(
             {.onStart = [&](auto& id, auto& x) { h.push_back("start:" + *id + Describe(x)); },
              .onFinish = [&](auto& id, auto& x) { h.push_back("finish:" + *id + Describe(x)); },
              .onSuccess = [&](auto& r) { h.push_back("ok:" + Describe(r)); },
              .onFailure = [&](auto& x) { h.push_back("no:" + e(x)); }});
         a->onRemoveStart("g", std::nullopt), a->onRemoveFinish("g", "x");
         a->onRemoveFailure(kError), a->onRemoveSuccess(std::vector<std::string>{"g"});
       },
       {"start:g(null)", "finish:gx", "no:boom|7", "ok:[g]"}},
      {"sweep",
       [&](Heard& h) {
         auto a = tavo::sweepListener({.onStart = [&] { h.push_back("start"); },
                                       .onProgress = [&](auto& p) { h.push_back("rm:" + p); },
                                       .onSuccess = [&] { h.push_back("ok"); },
                                       .onFailure = [&](auto& x) { h.push_back("no:" + e(x)); }});
         a->onCheckStart(), a->onCheckProgress("/f"), a->onCheckSuccess(),
             a->onCheckFailure(kError);
       },
       {"start", "rm:/f", "ok", "no:boom|7"}},
      {"list",
       [&](Heard& h) {
         auto a = tavo::listListener({.onSuccess = [&](auto& i) { h.push_back("ok:" + i.dump()); },
                                      .onFailure = [&](auto& x) { h.push_back("no:" + e(x)); }});
         a->onListGameSuccess(ZMValue::array()), a->onListGameFailure(kError);
       },
       {"ok:[]", "no:boom|7"}},
      {"game data",
       [&](Heard& h) {
         auto a =
             tavo::gameDataListener({.onSuccess = [&] { h.push_back("ok"); },
                                     .onFailure = [&](auto& x) { h.push_back("no:" + e(x)); }});
         a->onGameDataSetSuccess(), a->onGameDataSetFailure(kError);
       },
       {"ok", "no:boom|7"}},
      {"plugin check",
       [&](Heard& h) {
         auto a = tavo::pluginCheckListener(
             {.onStart = [&](auto& i) { h.push_back("start:" + ProviderOf(i)); },
              .onSuccess = [&](auto& i) { h.push_back("ok:" + ProviderOf(i)); },
              .onFailure = [&](auto& i, auto& x) { h.push_back("no:" + ProviderOf(i) + e(x)); }});
         a->onCheckPluginVersionStart(kInfo), a->onCheckPluginSuccess(kInfo);
         a->onCheckPluginFailure(kInfo, kError);
       },
       {"start:p", "ok:p", "no:pboom|7"}},
      {"plugin install",
       [&](Heard& h) {
         auto a = tavo::pluginInstallListener(
             {.onStart = [&](auto& i) { h.push_back("start:" + ProviderOf(i)); },
              .onProgress = [&](auto&, auto d,
                                auto t) { h.push_back(Describe(d) + "/" + Describe(t)); },
              .onRetry = [&](auto&, auto n) { h.push_back("retry:" + Describe(n)); },
              .onSuccess = [&](auto& i) { h.push_back("ok:" + ProviderOf(i)); },
              .onFailure = [&](auto&, auto& x) { h.push_back(x ? "no:" + e(*x) : "no:null"); }});
         a->onPluginInstallStart(kInfo), a->onPluginDownloadProgress(kInfo, 1, 2);
         a->onPluginDownloadRetry(kInfo, 3), a->onPluginInstallSuccess(kInfo);
         a->onPluginInstallFailure(kInfo, kError), a->onPluginInstallFailure(kInfo, std::nullopt);
       },
       {"start:p", "1/2", "retry:3", "ok:p", "no:boom|7", "no:null"}},
      {"plugin remove",
       [&](Heard& h) {
         auto a = tavo::pluginRemoveListener(
             {.onStart = [&](auto& i) { h.push_back("start:" + ProviderOf(i)); },
              .onFinish = [&](auto& i) { h.push_back("finish:" + ProviderOf(i)); },
              .onSuccess = [&](auto& r) { h.push_back("ok:" + r.dump()); },
              .onFailure = [&](auto& x) { h.push_back("no:" + e(x)); }});
         a->onPluginRemoveStart(kInfo), a->onPluginRemoveFinish(kInfo);
         a->onPluginRemoveSuccess(ZMValue::array()), a->onPluginRemoveFailure(kError);
       },
       {"start:p", "finish:p", "ok:[]", "no:boom|7"}},
  };
  for (const auto& c : cases) {
    Heard heard;
    c.drive(heard);
    EXPECT_EQ(heard, c.expected) << c.name;
  }
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
