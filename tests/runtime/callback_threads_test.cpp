// How callbacks reach a host: on the threads the host guide names, through adapters and futures.
#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <sstream>

#include "merin/MerinGameHandle.h"
#include "support/TestHttpServer.h"
#include "support/TestRuntime.h"
#include "support/TestZip.h"
#include "tavo/ZMFutures.h"

namespace {

using Key = std::pair<std::string, std::string>;  // operation, callback
const ZMValue kInfo = {{"provider", "p"}, {"version", "1.0"}};
const ZMError kError("boom", 7);

// The names a table cell quotes: "`a`, `b`" holds a and b.
std::vector<std::string> Quoted(const std::string& cell) {
  std::vector<std::string> names;
  std::istringstream in(cell);
  for (std::string name; std::getline(in, name, '`') && std::getline(in, name, '`');) {
    names.push_back(name);
  }
  return names;
}

// The host guide's table: the threads ("caller", "main queue", "engine") each callback may come on.
std::map<Key, std::set<std::string>> ReadCallbackTable() {
  std::ifstream guide(TAVO_SOURCE_DIR "/docs/host-guide.md");
  std::map<Key, std::set<std::string>> table;
  std::string line;
  while (std::getline(guide, line) && !line.starts_with("| Operation | Callbacks | Thread |")) {
  }
  std::getline(guide, line);  // |---|
  while (std::getline(guide, line) && line.starts_with("|")) {
    std::vector<std::string> cells;
    std::istringstream row(line.substr(1));
    for (std::string cell; std::getline(row, cell, '|');) cells.push_back(cell);
    std::set<std::string> threads;
    for (const char* thread : {"caller", "main queue", "engine"}) {
      if (cells.at(2).find(thread) != std::string::npos) threads.insert(thread);
    }
    for (const auto& op : Quoted(cells[0])) {
      for (const auto& callback : Quoted(cells.at(1))) table[{op, callback}] = threads;
    }
  }
  return table;
}

// Each call, its recorder and how many callbacks it had heard by its return: those on the main
// thread came on the caller's, later ones on the main queue's, any on another on the engine's.
struct Calls {
  std::vector<std::tuple<std::string, std::shared_ptr<EventLog>, size_t>> all;
  // Calls `op` with a fresh recorder and, unless `until` is empty, waits for that callback.
  template <typename Recorder, typename Body>
  void call(const char* op, const std::string& until, Body body) {
    auto recorder = std::make_shared<Recorder>();
    body(recorder);
    all.emplace_back(op, recorder, recorder->size());
    EXPECT_TRUE(until.empty() || RunUntil([&] {
                  return std::ranges::any_of(recorder->events(), [&](const std::string& e) {
                    return e.starts_with(until);
                  });
                }))
        << op << " " << until;
  }
};

TEST(CallbackThreads, EachCallbackArrivesOnTheThreadTheHostGuideNames) {
  const auto table = ReadCallbackTable();
  TestRuntime t;
  Calls c;
  for (const char* user : {"../u", "u1"}) {
    c.call<InitRecorder>("initRuntime", "",
                         [&](auto l) { ZMZimoGame::initRuntime(user, t.options(), l); });
  }
  auto runtime = t.runtime = std::dynamic_pointer_cast<ZMGameRuntime>(ZMZimoGame::getRuntime());

  // Packages: download (refused, then from a server), install (failing, then from the
  // download), check (a newer check would silence an earlier one).
  const std::string package = t.root() + "/g.zip";
  MakeGamePackage(package, R"({"deviceOrientation":"portrait"})");
  TestHttpServer server;
  server.Get("/g.zip", [&](const auto&, auto& res) { res.set_content(ReadFile(package), "x"); });
  server.start();
  const ZMValue game = {{ZM_KEY_GAME_PACKAGE_APP_ID, "g"}, {ZM_KEY_GAME_PACKAGE_VERSION, "1"}};
  const auto with = [&](const ZMValue& more) {
    ZMValue options = game;
    return options.update(more), options;
  };
  for (const char* appId : {"a/b", "g"}) {
    const ZMValue options = with({{ZM_KEY_GAME_PACKAGE_APP_ID, appId},
                                  {ZM_KEY_GAME_PACKAGE_URL, server.url("/g.zip")},
                                  {ZM_KEY_GAME_PACKAGE_HASH, *ZMFileUtils::getFileMD5(package)}});
    c.call<DownloadRecorder>("downloadGamePackage",
                             *appId == 'g' ? "onDownloadSuccess" : "onDownloadFailure",
                             [&](auto l) { runtime->downloadGamePackage(options, l); });
  }
  for (const ZMValue& options :
       {game, with({{ZM_KEY_GAME_PACKAGE_PATH, runtime->getAppPackageDownloadPath("g", "1")}})}) {
    c.call<InstallRecorder>("installGamePackage",
                            options == game ? "onInstallFailure" : "onInstallSuccess",
                            [&](auto l) { runtime->installGamePackage(options, l); });
  }
  for (const char* version : {"2", "1"}) {
    const ZMValue options = with({{ZM_KEY_GAME_PACKAGE_VERSION, version}});
    c.call<CheckRecorder>("checkGameVersion",
                          *version == '2' ? "onCheckVersionFailure" : "onCheckVersionSuccess",
                          [&](auto l) { runtime->checkGameVersion(options, l); });
  }

  // Launch (refused, then run), quit request, and exit with the reference engine and with none.
  for (const ZMValue& options : {ZMValue::object(), ZMValue{{ZM_KEY_RUN_OPT_VERSION, "1"}}}) {
    c.call<RunRecorder>("runGame", options.empty() ? "onRunFailure" : "onRunSuccess",
                        [&](auto l) { runtime->runGame(nullptr, "g", options, l); });
  }
  c.call<QueryExitRecorder>("setGameQueryExitListener", "onQueryExit", [&](auto l) {
    runtime->setGameQueryExitListener(l);
    std::dynamic_pointer_cast<MerinGameHandle>(ZMGameHandle::getInstance())->requestQuit(1);
  });
  // The engine ends the game, then answers that none runs; without an engine exitGame refuses.
  for (const char* outcome : {"onGameExitSuccess", "onGameExitFailure"}) {
    c.call<ExitRecorder>("exitGame", outcome, [&](auto l) { runtime->exitGame("g", l); });
  }
  c.call<ExitRecorder>("exitGame", "", [&](auto l) {
    auto engine = ZMGameHandle::getInstance();
    ZMGameHandle::setInstance(nullptr);
    runtime->exitGame("g", l);
    ZMGameHandle::setInstance(engine);
  });

  // Records and the cache sweep.
  c.call<DataRecorder>("setGameData", "", [&](auto l) {
    runtime->setGameData("g", {{"extend", "x"}}, l);
  });
  c.call<ListRecorder>("listGame", "", [&](auto l) { runtime->listGame(l); });
  WriteFile(t.cache() + "/old.zgp", "x");
  SetAgeSeconds(t.cache() + "/old.zgp", 3600);
  for (const ZMValue& options :
       {ZMValue::object(), ZMValue{{ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY, {"zgp"}},
                                   {ZM_KEY_CHECK_FILE_KEEP_TIME, 1}}}) {
    c.call<SweepRecorder>("checkFileAvailability",
                          options.empty() ? "onCheckFailure" : "onCheckSuccess",
                          [&](auto l) { runtime->checkFileAvailability(options, l); });
  }
  c.call<RemoveRecorder>("removeGameList", "onRemoveSuccess",
                         [&](auto l) { runtime->removeGameList({"g"}, l); });

  // Plug-ins: refused at once, failing later (no service host), and one installed by hand.
  auto plugins = runtime->getManager("plugin_manager", ZMValue::object());
  plugins->setPluginServiceHosts({});
  for (const ZMValue& each : {ZMValue::object(), kInfo}) {
    c.call<PluginCheckRecorder>("checkPluginVersion", "failure",
                                [&](auto l) { plugins->checkPluginVersion(each, l); });
    c.call<PluginInstallRecorder>("installPlugin", "failure",
                                  [&](auto l) { plugins->installPlugin(each, l); });
  }
  WriteFile(t.plugin() + "/p_1.0/main.js", "x");
  WriteFile(t.plugin() + "/p_1.0.detail.json", R"({"hash":"h"})");
  c.call<PluginCheckRecorder>("checkPluginVersion", "success",
                              [&](auto l) { plugins->checkPluginVersion(kInfo, l); });
  c.call<ListRecorder>("listPlugin", "onListGameSuccess", [&](auto l) { plugins->listPlugin(l); });
  c.call<PluginRemoveRecorder>("removePluginList", "success", [&](auto l) {
    plugins->removePluginList(ZMValue::array({kInfo}), l);
  });
  DrainMainQueue();

  std::set<std::string> operations, exercised;
  for (const auto& [key, threads] : table) operations.insert(key.first);
  for (const auto& [op, log, duringCall] : c.all) {
    const auto events = log->events();
    const auto threads = log->threads();
    for (size_t i = 0; i < events.size(); ++i) {
      // The plug-in recorders note short names ("start", "success"): the operation's callback in
      // the table whose name holds the word.
      std::string name = events[i].substr(0, events[i].find(':'));
      if (!name.starts_with("on")) {
        const std::string word = char(std::toupper(name[0])) + name.substr(1);
        for (const auto& [key, where] : table) {
          if (key.first == op && key.second.find(word) != std::string::npos) name = key.second;
        }
      }
      const std::string thread = threads[i] != std::this_thread::get_id() ? "engine"
                                 : i < duringCall                         ? "caller"
                                                                          : "main queue";
      const auto row = table.find({op, name});
      ASSERT_NE(row, table.end()) << op << " " << name << " is not in the table";
      EXPECT_TRUE(row->second.count(thread)) << op << " " << name << " came on the " << thread;
      exercised.insert(op);
    }
  }
  operations.erase("removeGameAll");  // removeGameList's run
  EXPECT_EQ(exercised, operations);
}

// What the adapter's lambdas heard, as "callback:args".
using Heard = std::vector<std::string>;

std::string Show(const std::optional<ZMError>& error) { return error ? Describe(*error) : "null"; }
template <typename T>
std::string Show(const std::shared_ptr<T>& pointer) {
  return pointer ? "ptr" : "nullptr";
}
template <typename T>
std::string Show(const T& value) {
  return Describe(value);
}

// Each callback of each interface called as libtavo would: what reached the lambdas,
// "name:arg|arg".
TEST(ListenerAdapters, EachAdapterRelaysEveryCallbackOfItsInterface) {
  Heard h;
  const auto n = [&h](const char* name) {
    return [&h, name](const auto&... args) {
      h.push_back(name);
      ((h.back() += (h.back() == name ? ":" : "|") + Show(args)), ...);
    };
  };
  const auto heard = [&h] { return std::exchange(h, {}); };
  const auto start = n("start"), ok = n("ok"), no = n("no"), finish = n("finish");
  const auto prog = n("progress"), retry = n("retry");

  auto i = tavo::initListener({.onSuccess = ok, .onFailure = no});
  i->onInitializeSuccess(nullptr), i->onInitializeFailure(ZMException("init fail", "x"));
  EXPECT_EQ(heard(), (Heard{"ok:nullptr", "no:init fail|x"}));
  auto r = tavo::runListener({.onHandleCreate = n("handle"), .onSuccess = ok, .onFailure = no});
  r->onGameHandleCreate(nullptr), r->onRunSuccess(), r->onRunFailure(kError);
  EXPECT_EQ(heard(), (Heard{"handle:nullptr", "ok", "no:boom|7"}));
  auto e = tavo::exitListener({.onSuccess = ok, .onFailure = no});
  e->onGameExitSuccess(), e->onGameExitFailure(kError);
  EXPECT_EQ(heard(), (Heard{"ok", "no:boom|7"}));
  auto q = tavo::queryExitListener(n("quit"));
  q->onQueryExit("g", 5), q->release();
  EXPECT_EQ(heard(), (Heard{"quit:g|5"}));
  auto c = tavo::checkVersionListener({.onStart = start, .onSuccess = ok, .onFailure = no});
  c->onCheckVersionStart(1), c->onCheckVersionSuccess(), c->onCheckVersionFailure(kError);
  EXPECT_EQ(heard(), (Heard{"start:1", "ok", "no:boom|7"}));
  auto d = tavo::downloadListener(
      {.onStart = start, .onProgress = prog, .onRetry = retry, .onSuccess = ok, .onFailure = no});
  d->onDownloadStart(), d->onDownloadProgress(1, 2), d->onDownloadRetry(3);
  d->onDownloadSuccess("/f"), d->onDownloadFailure(kError);
  EXPECT_EQ(heard(), (Heard{"start", "progress:1|2", "retry:3", "ok:/f", "no:boom|7"}));
  auto in = tavo::installListener({.onStart = start, .onSuccess = ok, .onFailure = no});
  in->onInstallStart(), in->onInstallSuccess(), in->onInstallFailure(kError);
  EXPECT_EQ(heard(), (Heard{"start", "ok", "no:boom|7"}));
  auto rm = tavo::removeListener(
      {.onStart = start, .onFinish = finish, .onSuccess = ok, .onFailure = no});
  rm->onRemoveStart("g", std::nullopt), rm->onRemoveFinish("g", "x"), rm->onRemoveFailure(kError);
  rm->onRemoveSuccess(std::vector<std::string>{"g"});
  EXPECT_EQ(heard(), (Heard{"start:g|(null)", "finish:g|x", "no:boom|7", "ok:[g]"}));
  auto s = tavo::sweepListener(
      {.onStart = start, .onProgress = n("rm"), .onSuccess = ok, .onFailure = no});
  s->onCheckStart(), s->onCheckProgress("/f"), s->onCheckSuccess(), s->onCheckFailure(kError);
  EXPECT_EQ(heard(), (Heard{"start", "rm:/f", "ok", "no:boom|7"}));
  auto l = tavo::listListener({.onSuccess = ok, .onFailure = no});
  l->onListGameSuccess(ZMValue::array()), l->onListGameFailure(kError);
  EXPECT_EQ(heard(), (Heard{"ok:[]", "no:boom|7"}));
  auto data = tavo::gameDataListener({.onSuccess = ok, .onFailure = no});
  data->onGameDataSetSuccess(), data->onGameDataSetFailure(kError);
  EXPECT_EQ(heard(), (Heard{"ok", "no:boom|7"}));
  auto pc = tavo::pluginCheckListener({.onStart = start, .onSuccess = ok, .onFailure = no});
  pc->onCheckPluginVersionStart(1), pc->onCheckPluginSuccess(2);
  pc->onCheckPluginFailure(3, kError);
  EXPECT_EQ(heard(), (Heard{"start:1", "ok:2", "no:3|boom|7"}));
  auto pi = tavo::pluginInstallListener(
      {.onStart = start, .onProgress = prog, .onRetry = retry, .onSuccess = ok, .onFailure = no});
  pi->onPluginInstallStart(1), pi->onPluginDownloadProgress(2, 3, 4);
  pi->onPluginDownloadRetry(5, 6), pi->onPluginInstallSuccess(7);
  pi->onPluginInstallFailure(8, kError), pi->onPluginInstallFailure(9, {});
  EXPECT_EQ(heard(),
            (Heard{"start:1", "progress:2|3|4", "retry:5|6", "ok:7", "no:8|boom|7", "no:9|null"}));
  auto pr = tavo::pluginRemoveListener(
      {.onStart = start, .onFinish = finish, .onSuccess = ok, .onFailure = no});
  pr->onPluginRemoveStart(1), pr->onPluginRemoveFinish(2), pr->onPluginRemoveSuccess(3);
  pr->onPluginRemoveFailure(kError);
  EXPECT_EQ(heard(), (Heard{"start:1", "finish:2", "ok:3", "no:boom|7"}));
  DrainMainQueue();  // lets the adapters go
}

// The adapters below are passed as temporaries: libtavo holds them weakly, so only their hold
// on themselves brings the final callback, from the main queue and from the engine's thread.
TEST(ListenerAdapters, ATemporaryAdapterHearsItsFinalCallbackAndIsThenFreed) {
  TestRuntime t;
  ASSERT_TRUE(t.installGame("g", "1"));
  std::vector<std::weak_ptr<void>> adapters;
  const auto temporary = [&](auto adapter) { return adapters.push_back(adapter), adapter; };
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
  const auto game = [&](const char* version) {
    return ZMValue{{ZM_KEY_GAME_PACKAGE_APP_ID, "g"},
                   {ZM_KEY_GAME_PACKAGE_VERSION, version},
                   {ZM_KEY_GAME_PACKAGE_PATH, package}};
  };
  auto plugins = t.runtime->getManager("plugin_manager", ZMValue::object());
  plugins->setPluginServiceHosts({});

  auto worker = std::async(std::launch::async, [&] {
    const auto failure = [](auto&& future) -> std::string {
      try {
        return future.get(), "none";
      } catch (const ZMError& error) {
        return error.domain;
      }
    };
    tavo::installGamePackage(t.runtime, game("1")).get();
    tavo::checkGameVersion(t.runtime, game("1")).get();
    return Heard{tavo::listGame(t.runtime).get().dump(),
                 failure(tavo::checkGameVersion(t.runtime, game("2"))),
                 ZMValue(tavo::removeGameList(t.runtime, {}).get()).dump(),
                 ZMValue(tavo::removeGameList(t.runtime, {"g"}).get()).dump(),
                 failure(tavo::installPlugin(plugins, kInfo))};
  });
  ASSERT_TRUE(RunUntil(
      [&] { return worker.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
  EXPECT_EQ(worker.get(), (Heard{R"([{"rt_game_item_app_id":"g"}])",
                                 "Error: version is not the same as local version", "[]",
                                 R"(["g"])", "no plugin service host"}));
}

}  // namespace
