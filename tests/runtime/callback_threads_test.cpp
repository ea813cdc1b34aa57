#include <gtest/gtest.h>

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
  for (size_t open = cell.find('`'), close; open != std::string::npos;
       open = cell.find('`', close + 1)) {
    if ((close = cell.find('`', open + 1)) == std::string::npos) break;
    names.push_back(cell.substr(open + 1, close - open - 1));
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

// The plug-in recorders note short names.
const std::map<std::string, std::string> kPluginCallbacks = {
    {"checkPluginVersion start", "onCheckPluginVersionStart"},
    {"checkPluginVersion success", "onCheckPluginSuccess"},
    {"checkPluginVersion failure", "onCheckPluginFailure"},
    {"installPlugin start", "onPluginInstallStart"},
    {"installPlugin retry", "onPluginDownloadRetry"},
    {"installPlugin success", "onPluginInstallSuccess"},
    {"installPlugin failure", "onPluginInstallFailure"},
    {"removePluginList start", "onPluginRemoveStart"},
    {"removePluginList finish", "onPluginRemoveFinish"},
    {"removePluginList success", "onPluginRemoveSuccess"},
    {"removePluginList failure", "onPluginRemoveFailure"}};

// Each operation called with a recorder, and how many callbacks it had heard when the call
// returned: those that came on the main thread came on the caller's, later ones on the main
// queue's, and any on another thread on the engine's.
class Calls {
 public:
  template <typename Recorder, typename Body>
  std::shared_ptr<Recorder> call(const char* op, Body body) {
    auto recorder = std::make_shared<Recorder>();
    body(recorder);
    calls_.push_back({op, recorder, recorder->size()});
    return recorder;
  }
  // Every callback heard: operation, callback, thread.
  std::vector<std::pair<Key, std::string>> heard() const {
    std::vector<std::pair<Key, std::string>> all;
    for (const auto& [op, log, duringCall] : calls_) {
      const auto events = log->events();
      const auto threads = log->threads();
      for (size_t i = 0; i < events.size(); ++i) {
        const std::string name = events[i].substr(0, events[i].find(':'));
        const auto plugin = kPluginCallbacks.find(op + " " + name);
        all.push_back({{op, plugin == kPluginCallbacks.end() ? name : plugin->second},
                       threads[i] != main_ ? "engine"
                       : i < duringCall    ? "caller"
                                           : "main queue"});
      }
    }
    return all;
  }

 private:
  struct Call {
    std::string op;
    std::shared_ptr<EventLog> log;
    size_t duringCall;
  };
  std::vector<Call> calls_;
  std::thread::id main_ = std::this_thread::get_id();
};

bool Hears(const std::shared_ptr<EventLog>& log, const std::string& callback) {
  return RunUntil([&] {
    const auto events = log->events();
    return std::any_of(events.begin(), events.end(),
                       [&](const std::string& event) { return event.starts_with(callback); });
  });
}

TEST(CallbackThreads, EachCallbackArrivesOnTheThreadTheHostGuideNames) {
  const auto table = ReadCallbackTable();
  ASSERT_GT(table.size(), 40u);
  TestRuntime t;
  Calls c;
  for (const char* user : {"../u", "u1"}) {
    c.call<InitRecorder>("initRuntime",
                         [&](auto l) { ZMZimoGame::initRuntime(user, t.options(), l); });
  }
  t.runtime = std::dynamic_pointer_cast<ZMGameRuntime>(ZMZimoGame::getRuntime());
  auto runtime = t.runtime;

  // Packages: download (refused, then from a server), install (failing, then from the
  // download), check (a newer check would silence an earlier one).
  const std::string package = t.root() + "/g.zip";
  MakeGamePackage(package, R"({"deviceOrientation":"portrait"})");
  TestHttpServer server;
  server.Get("/g.zip", [&](const auto&, auto& res) { res.set_content(ReadFile(package), "x"); });
  server.start();
  const ZMValue game = {{ZM_KEY_GAME_PACKAGE_APP_ID, "g"}, {ZM_KEY_GAME_PACKAGE_VERSION, "1"}};
  for (const char* appId : {"a/b", "g"}) {
    ZMValue options = game;
    options[ZM_KEY_GAME_PACKAGE_APP_ID] = appId;
    options[ZM_KEY_GAME_PACKAGE_URL] = server.url("/g.zip");
    options[ZM_KEY_GAME_PACKAGE_HASH] = *ZMFileUtils::getFileMD5(package);
    auto l = c.call<DownloadRecorder>("downloadGamePackage",
                                      [&](auto l) { runtime->downloadGamePackage(options, l); });
    EXPECT_TRUE(Hears(l, *appId == 'g' ? "onDownloadSuccess" : "onDownloadFailure"));
  }
  ZMValue withPath = game;
  withPath[ZM_KEY_GAME_PACKAGE_PATH] = runtime->getAppPackageDownloadPath("g", "1");
  for (const ZMValue& options : {game, withPath}) {
    auto l = c.call<InstallRecorder>("installGamePackage",
                                     [&](auto l) { runtime->installGamePackage(options, l); });
    EXPECT_TRUE(Hears(
        l, options.contains(ZM_KEY_GAME_PACKAGE_PATH) ? "onInstallSuccess" : "onInstallFailure"));
  }
  for (const char* version : {"2", "1"}) {
    ZMValue options = game;
    options[ZM_KEY_GAME_PACKAGE_VERSION] = version;
    auto l = c.call<CheckRecorder>("checkGameVersion",
                                   [&](auto l) { runtime->checkGameVersion(options, l); });
    EXPECT_TRUE(Hears(l, *version == '2' ? "onCheckVersionFailure" : "onCheckVersionSuccess"));
  }

  // Launch (refused, then run), quit request, and exit with the reference engine and with none.
  for (const ZMValue& options : {ZMValue::object(), ZMValue{{ZM_KEY_RUN_OPT_VERSION, "1"}}}) {
    auto l =
        c.call<RunRecorder>("runGame", [&](auto l) { runtime->runGame(nullptr, "g", options, l); });
    EXPECT_TRUE(Hears(l, options.empty() ? "onRunFailure" : "onRunSuccess"));
  }
  auto query = c.call<QueryExitRecorder>("setGameQueryExitListener",
                                         [&](auto l) { runtime->setGameQueryExitListener(l); });
  std::dynamic_pointer_cast<MerinGameHandle>(ZMGameHandle::getInstance())->requestQuit(1);
  EXPECT_TRUE(Hears(query, "onQueryExit"));
  // The engine ends the game, then answers that none runs; without an engine exitGame refuses.
  for (const char* outcome : {"onGameExitSuccess", "onGameExitFailure"}) {
    auto l = c.call<ExitRecorder>("exitGame", [&](auto l) { runtime->exitGame("g", l); });
    EXPECT_TRUE(Hears(l, outcome));
  }
  auto engine = ZMGameHandle::getInstance();
  ZMGameHandle::setInstance(nullptr);
  c.call<ExitRecorder>("exitGame", [&](auto l) { runtime->exitGame("g", l); });
  ZMGameHandle::setInstance(engine);

  // Records and the cache sweep.
  c.call<DataRecorder>("setGameData", [&](auto l) {
    runtime->setGameData("g", {{"extend", "x"}}, l);
  });
  c.call<ListRecorder>("listGame", [&](auto l) { runtime->listGame(l); });
  WriteFile(t.cache() + "/old.zgp", "x");
  SetAgeSeconds(t.cache() + "/old.zgp", 3600);
  for (const ZMValue& options :
       {ZMValue::object(), ZMValue{{ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY, {"zgp"}},
                                   {ZM_KEY_CHECK_FILE_KEEP_TIME, 1}}}) {
    auto l = c.call<SweepRecorder>("checkFileAvailability",
                                   [&](auto l) { runtime->checkFileAvailability(options, l); });
    EXPECT_TRUE(Hears(l, options.empty() ? "onCheckFailure" : "onCheckSuccess"));
  }
  auto removed =
      c.call<RemoveRecorder>("removeGameList", [&](auto l) { runtime->removeGameList({"g"}, l); });
  EXPECT_TRUE(Hears(removed, "onRemoveSuccess"));

  // Plug-ins: refused at once, failing later (no service host), and one installed by hand.
  auto plugins = runtime->getManager("plugin_manager", ZMValue::object());
  plugins->setPluginServiceHosts({});
  const ZMValue info = {{"provider", "p"}, {"version", "1.0"}};
  const auto check = [&](const ZMValue& info) {
    return c.call<PluginCheckRecorder>("checkPluginVersion",
                                       [&](auto l) { plugins->checkPluginVersion(info, l); });
  };
  for (const ZMValue& each : {ZMValue::object(), info}) {
    check(each);
    c.call<PluginInstallRecorder>("installPlugin",
                                  [&](auto l) { plugins->installPlugin(each, l); });
  }
  DrainMainQueue();
  WriteFile(t.plugin() + "/p_1.0/main.js", "x");
  WriteFile(t.plugin() + "/p_1.0.detail.json", R"({"hash":"h"})");
  EXPECT_TRUE(Hears(check(info), "success"));
  auto listed = c.call<ListRecorder>("listPlugin", [&](auto l) { plugins->listPlugin(l); });
  EXPECT_TRUE(Hears(listed, "onListGameSuccess"));
  auto gone = c.call<PluginRemoveRecorder>(
      "removePluginList", [&](auto l) { plugins->removePluginList(ZMValue::array({info}), l); });
  EXPECT_TRUE(Hears(gone, "success"));
  DrainMainQueue();

  std::set<std::string> operations, exercised;
  for (const auto& [key, threads] : table) operations.insert(key.first);
  for (const auto& [key, thread] : c.heard()) {
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
