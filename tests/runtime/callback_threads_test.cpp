#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <set>

#include "merin/MerinGameHandle.h"
#include "support/TestHttpServer.h"
#include "support/TestRuntime.h"
#include "support/TestSupport.h"
#include "support/TestZip.h"

namespace {

using Key = std::pair<std::string, std::string>;  // operation, callback

// The names a table cell quotes: "`a`, `b`" holds a and b.
std::vector<std::string> Quoted(const std::string& cell) {
  std::vector<std::string> names;
  size_t open = cell.find('`');
  while (open != std::string::npos) {
    const size_t close = cell.find('`', open + 1);
    if (close == std::string::npos) break;
    names.push_back(cell.substr(open + 1, close - open - 1));
    open = cell.find('`', close + 1);
  }
  return names;
}

// The host guide's callback table: for each operation and callback, the threads it may arrive
// on ("caller", "main queue", "engine").
std::map<Key, std::set<std::string>> ReadCallbackTable() {
  std::ifstream guide(TAVO_SOURCE_DIR "/docs/host-guide.md");
  std::map<Key, std::set<std::string>> table;
  std::string line;
  while (std::getline(guide, line) && !line.starts_with("| Operation | Callbacks | Thread |")) {
  }
  std::getline(guide, line);  // |---|
  while (std::getline(guide, line) && line.starts_with("|")) {
    std::vector<std::string> cells;
    for (size_t at = 1, next; (next = line.find('|', at)) != std::string::npos; at = next + 1) {
      cells.push_back(line.substr(at, next - at));
    }
    std::set<std::string> threads;
    const std::string where = cells.at(2).substr(1, cells.at(2).size() - 2);
    for (size_t at = 0, next = 0; next != std::string::npos; at = next + 4) {
      next = where.find(" or ", at);
      threads.insert(where.substr(at, next - at));
    }
    for (const auto& op : Quoted(cells[0])) {
      for (const auto& callback : Quoted(cells.at(1))) table[{op, callback}] = threads;
    }
  }
  return table;
}

// Every callback heard, with the thread it came on: the engine's (any thread but the main
// one), the caller's (the main thread inside the operation's call) or the main queue's.
class Observer {
 public:
  std::atomic<bool> inCall{false};

  // A listener callback for std::function of any signature that notes `callback` of the
  // operation being called.
  auto on(const char* callback) {
    return [this, op = op_, callback](auto&&...) {
      const char* thread = !ZMMainQueue::isMainThread() ? "engine"
                           : inCall                     ? "caller"
                                                        : "main queue";
      std::lock_guard lock(mutex_);
      heard_.push_back({{op, callback}, thread});
    };
  }
  // Calls the operation `op` in `body`.
  template <typename Body>
  void call(const char* op, Body body) {
    op_ = op;
    inCall = true;
    body();
    inCall = false;
  }
  size_t count(const char* op, const char* callback) const {
    std::lock_guard lock(mutex_);
    return std::count_if(heard_.begin(), heard_.end(), [&](const auto& h) {
      return h.first == Key{op, callback};
    });
  }
  bool heard(const char* op, const char* callback) const { return count(op, callback) > 0; }
  std::vector<std::pair<Key, std::string>> all() const {
    std::lock_guard lock(mutex_);
    return heard_;
  }

 private:
  const char* op_ = "";
  mutable std::mutex mutex_;
  std::vector<std::pair<Key, std::string>> heard_;
};

TEST(CallbackThreads, EachCallbackArrivesOnTheThreadTheHostGuideNames) {
  const auto table = ReadCallbackTable();
  ASSERT_GT(table.size(), 40u);
  TestRuntime t;
  Observer o;
  const auto until = [&](const char* op, const char* callback) {
    EXPECT_TRUE(RunUntil([&] { return o.heard(op, callback); })) << op << " " << callback;
  };

  o.call("initRuntime", [&] {
    const auto init = [&] {
      return tavo::initListener(
          {.onSuccess = o.on("onInitializeSuccess"), .onFailure = o.on("onInitializeFailure")});
    };
    ZMZimoGame::initRuntime("../u", t.options(), init());
    ZMZimoGame::initRuntime("u1", t.options(), init());
  });
  t.runtime = std::dynamic_pointer_cast<ZMGameRuntime>(ZMZimoGame::getRuntime());
  auto runtime = t.runtime;

  // Packages: download (refused, then from a server), install (failing, then from the
  // download), check.
  const std::string package = t.root() + "/g.zip";
  MakeGamePackage(package, R"({"deviceOrientation":"portrait"})");
  char* hash = FileMD5HashCreateWithPath(package.c_str(), 0);
  const std::string md5 = hash;
  std::free(hash);
  TestHttpServer server;
  server.Get("/g.zip", [&](const auto&, auto& res) { res.set_content(ReadFile(package), "x"); });
  server.start();
  const ZMValue game = {{ZM_KEY_GAME_PACKAGE_APP_ID, "g"}, {ZM_KEY_GAME_PACKAGE_VERSION, "1"}};
  for (const char* appId : {"a/b", "g"}) {
    ZMValue options = {{ZM_KEY_GAME_PACKAGE_APP_ID, appId},
                       {ZM_KEY_GAME_PACKAGE_VERSION, "1"},
                       {ZM_KEY_GAME_PACKAGE_URL, server.url("/g.zip")},
                       {ZM_KEY_GAME_PACKAGE_HASH, md5}};
    o.call("downloadGamePackage", [&] {
      runtime->downloadGamePackage(
          options, tavo::downloadListener({.onStart = o.on("onDownloadStart"),
                                           .onProgress = o.on("onDownloadProgress"),
                                           .onRetry = o.on("onDownloadRetry"),
                                           .onSuccess = o.on("onDownloadSuccess"),
                                           .onFailure = o.on("onDownloadFailure")}));
    });
  }
  until("downloadGamePackage", "onDownloadSuccess");
  ZMValue withPath = game;
  withPath[ZM_KEY_GAME_PACKAGE_PATH] = runtime->getAppPackageDownloadPath("g", "1");
  for (const ZMValue& options : {game, withPath}) {
    o.call("installGamePackage", [&] {
      runtime->installGamePackage(options,
                                  tavo::installListener({.onStart = o.on("onInstallStart"),
                                                         .onSuccess = o.on("onInstallSuccess"),
                                                         .onFailure = o.on("onInstallFailure")}));
    });
    until("installGamePackage",
          options.contains(ZM_KEY_GAME_PACKAGE_PATH) ? "onInstallSuccess" : "onInstallFailure");
  }
  for (const char* version : {"2", "1"}) {  // a newer check would silence an earlier one
    ZMValue options = game;
    options[ZM_KEY_GAME_PACKAGE_VERSION] = version;
    o.call("checkGameVersion", [&] {
      runtime->checkGameVersion(
          options, tavo::checkVersionListener({.onStart = o.on("onCheckVersionStart"),
                                               .onSuccess = o.on("onCheckVersionSuccess"),
                                               .onFailure = o.on("onCheckVersionFailure")}));
    });
    until("checkGameVersion", *version == '2' ? "onCheckVersionFailure" : "onCheckVersionSuccess");
  }

  // Launch (refused, then run), quit request, and exit with the reference engine and with none.
  for (const ZMValue& options : {ZMValue::object(), ZMValue{{ZM_KEY_RUN_OPT_VERSION, "1"}}}) {
    o.call("runGame", [&] {
      runtime->runGame(nullptr, "g", options,
                       tavo::runListener({.onHandleCreate = o.on("onGameHandleCreate"),
                                          .onSuccess = o.on("onRunSuccess"),
                                          .onFailure = o.on("onRunFailure")}));
    });
  }
  until("runGame", "onRunSuccess");
  std::shared_ptr<tavo::QueryExitListener> query;
  o.call("setGameQueryExitListener", [&] {
    query = tavo::queryExitListener(o.on("onQueryExit"));
    runtime->setGameQueryExitListener(query);
  });
  std::dynamic_pointer_cast<MerinGameHandle>(ZMGameHandle::getInstance())->requestQuit(1);
  until("setGameQueryExitListener", "onQueryExit");
  query->release();
  const auto exit = [&] {
    o.call("exitGame", [&] {
      runtime->exitGame("g", tavo::exitListener({.onSuccess = o.on("onGameExitSuccess"),
                                                 .onFailure = o.on("onGameExitFailure")}));
    });
  };
  exit();
  until("exitGame", "onGameExitSuccess");
  exit();  // the engine answers that no game runs
  EXPECT_TRUE(RunUntil([&] { return o.count("exitGame", "onGameExitFailure") == 1; }));
  auto engine = ZMGameHandle::getInstance();
  ZMGameHandle::setInstance(nullptr);  // without an engine, exitGame refuses at once
  exit();
  ZMGameHandle::setInstance(engine);

  // Records and the cache sweep.
  o.call("setGameData", [&] {
    runtime->setGameData("g", {{"extend", "x"}},
                         tavo::gameDataListener({.onSuccess = o.on("onGameDataSetSuccess"),
                                                 .onFailure = o.on("onGameDataSetFailure")}));
  });
  o.call("listGame", [&] {
    runtime->listGame(tavo::listListener(
        {.onSuccess = o.on("onListGameSuccess"), .onFailure = o.on("onListGameFailure")}));
  });
  WriteFile(t.cache() + "/old.zgp", "x");
  SetAgeSeconds(t.cache() + "/old.zgp", 3600);
  for (const ZMValue& options :
       {ZMValue::object(), ZMValue{{ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY, {"zgp"}},
                                   {ZM_KEY_CHECK_FILE_KEEP_TIME, 1}}}) {
    o.call("checkFileAvailability", [&] {
      runtime->checkFileAvailability(options,
                                     tavo::sweepListener({.onStart = o.on("onCheckStart"),
                                                          .onProgress = o.on("onCheckProgress"),
                                                          .onSuccess = o.on("onCheckSuccess"),
                                                          .onFailure = o.on("onCheckFailure")}));
    });
    until("checkFileAvailability", options.empty() ? "onCheckFailure" : "onCheckSuccess");
  }
  o.call("removeGameList", [&] {
    runtime->removeGameList({"g"}, tavo::removeListener({.onStart = o.on("onRemoveStart"),
                                                         .onFinish = o.on("onRemoveFinish"),
                                                         .onSuccess = o.on("onRemoveSuccess"),
                                                         .onFailure = o.on("onRemoveFailure")}));
  });
  until("removeGameList", "onRemoveSuccess");

  // Plug-ins: refused at once, failing later (no service host), and one installed by hand.
  auto plugins = runtime->getManager("plugin_manager", ZMValue::object());
  plugins->setPluginServiceHosts({});
  const ZMValue info = {{"provider", "p"}, {"version", "1.0"}};
  const auto check = [&](const ZMValue& info) {
    o.call("checkPluginVersion", [&] {
      plugins->checkPluginVersion(
          info, tavo::pluginCheckListener({.onStart = o.on("onCheckPluginVersionStart"),
                                           .onSuccess = o.on("onCheckPluginSuccess"),
                                           .onFailure = o.on("onCheckPluginFailure")}));
    });
  };
  for (const ZMValue& each : {ZMValue::object(), info}) {
    check(each);
    o.call("installPlugin", [&] {
      plugins->installPlugin(
          each, tavo::pluginInstallListener({.onStart = o.on("onPluginInstallStart"),
                                             .onProgress = o.on("onPluginDownloadProgress"),
                                             .onRetry = o.on("onPluginDownloadRetry"),
                                             .onSuccess = o.on("onPluginInstallSuccess"),
                                             .onFailure = o.on("onPluginInstallFailure")}));
    });
  }
  DrainMainQueue();
  WriteFile(t.plugin() + "/p_1.0/main.js", "x");
  WriteFile(t.plugin() + "/p_1.0.detail.json", R"({"hash":"h"})");
  check(info);
  until("checkPluginVersion", "onCheckPluginSuccess");
  o.call("listPlugin", [&] {
    plugins->listPlugin(tavo::listListener(
        {.onSuccess = o.on("onListGameSuccess"), .onFailure = o.on("onListGameFailure")}));
  });
  o.call("removePluginList", [&] {
    plugins->removePluginList(
        ZMValue::array({info}),
        tavo::pluginRemoveListener({.onStart = o.on("onPluginRemoveStart"),
                                    .onFinish = o.on("onPluginRemoveFinish"),
                                    .onSuccess = o.on("onPluginRemoveSuccess"),
                                    .onFailure = o.on("onPluginRemoveFailure")}));
  });
  until("listPlugin", "onListGameSuccess");
  until("removePluginList", "onPluginRemoveSuccess");
  DrainMainQueue();

  std::set<std::string> operations, exercised;
  for (const auto& [key, threads] : table) operations.insert(key.first);
  for (const auto& [key, thread] : o.all()) {
    exercised.insert(key.first);
    const auto row = table.find(key);
    ASSERT_NE(row, table.end()) << key.first << " " << key.second << " is not in the table";
    EXPECT_TRUE(row->second.count(thread))
        << key.first << " " << key.second << " came on the " << thread << " thread";
  }
  operations.erase("removeGameAll");  // removeGameList's run
  EXPECT_EQ(exercised, operations);
}

}  // namespace
