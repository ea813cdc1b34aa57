#include <gtest/gtest.h>

#include <cctype>
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

// Each operation called with a recorder, and how many callbacks it had heard when the call
// returned: those that came on the main thread came on the caller's, later ones on the main
// queue's, and any on another thread on the engine's.
class Calls {
 public:
  // Calls `op` with a fresh recorder and, unless `until` is empty, waits for that callback.
  template <typename Recorder, typename Body>
  void call(const char* op, const std::string& until, Body body) {
    auto recorder = std::make_shared<Recorder>();
    body(recorder);
    calls_.push_back({op, recorder, recorder->size()});
    EXPECT_TRUE(until.empty() || RunUntil([&] {
                  const auto events = recorder->events();
                  return std::any_of(events.begin(), events.end(),
                                     [&](const std::string& e) { return e.starts_with(until); });
                }))
        << op << " " << until;
  }
  // Every callback heard: operation, callback, thread. The plug-in recorders note short names
  // ("start", "success"): the operation's callback in `table` whose name holds the word.
  template <typename Table>
  std::vector<std::pair<Key, std::string>> heard(const Table& table) const {
    std::vector<std::pair<Key, std::string>> all;
    for (const auto& [op, log, duringCall] : calls_) {
      const auto events = log->events();
      const auto threads = log->threads();
      for (size_t i = 0; i < events.size(); ++i) {
        std::string name = events[i].substr(0, events[i].find(':'));
        if (!name.starts_with("on")) {
          const std::string word = char(std::toupper(name[0])) + name.substr(1);
          for (const auto& [key, where] : table) {
            if (key.first == op && key.second.find(word) != std::string::npos) name = key.second;
          }
        }
        all.push_back({{op, name},
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

TEST(CallbackThreads, EachCallbackArrivesOnTheThreadTheHostGuideNames) {
  const auto table = ReadCallbackTable();
  ASSERT_GT(table.size(), 40u);
  TestRuntime t;
  Calls c;
  for (const char* user : {"../u", "u1"}) {
    c.call<InitRecorder>("initRuntime", "",
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
    c.call<DownloadRecorder>("downloadGamePackage",
                             *appId == 'g' ? "onDownloadSuccess" : "onDownloadFailure",
                             [&](auto l) { runtime->downloadGamePackage(options, l); });
  }
  ZMValue withPath = game;
  withPath[ZM_KEY_GAME_PACKAGE_PATH] = runtime->getAppPackageDownloadPath("g", "1");
  for (const ZMValue& options : {game, withPath}) {
    c.call<InstallRecorder>("installGamePackage",
                            options == game ? "onInstallFailure" : "onInstallSuccess",
                            [&](auto l) { runtime->installGamePackage(options, l); });
  }
  for (const char* version : {"2", "1"}) {
    ZMValue options = game;
    options[ZM_KEY_GAME_PACKAGE_VERSION] = version;
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
  const ZMValue info = {{"provider", "p"}, {"version", "1.0"}};
  for (const ZMValue& each : {ZMValue::object(), info}) {
    c.call<PluginCheckRecorder>("checkPluginVersion", "failure",
                                [&](auto l) { plugins->checkPluginVersion(each, l); });
    c.call<PluginInstallRecorder>("installPlugin", "failure",
                                  [&](auto l) { plugins->installPlugin(each, l); });
  }
  WriteFile(t.plugin() + "/p_1.0/main.js", "x");
  WriteFile(t.plugin() + "/p_1.0.detail.json", R"({"hash":"h"})");
  c.call<PluginCheckRecorder>("checkPluginVersion", "success",
                              [&](auto l) { plugins->checkPluginVersion(info, l); });
  c.call<ListRecorder>("listPlugin", "onListGameSuccess", [&](auto l) { plugins->listPlugin(l); });
  c.call<PluginRemoveRecorder>("removePluginList", "success", [&](auto l) {
    plugins->removePluginList(ZMValue::array({info}), l);
  });
  DrainMainQueue();

  std::set<std::string> operations, exercised;
  for (const auto& [key, threads] : table) operations.insert(key.first);
  for (const auto& [key, thread] : c.heard(table)) {
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
