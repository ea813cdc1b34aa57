#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>

#include "merin/MerinGameHandle.h"
#include "storage/ZMDatabaseHelper.h"
#include "support/TestRuntime.h"
#include "util/ZMTaskGroup.h"

namespace {

namespace fs = std::filesystem;
using Events = std::vector<std::string>;

class ZMGameRuntimeCreate : public ::testing::Test {
 protected:
  void SetUp() override { ZMDatabaseHelper::getInstance().resetForTesting(); }
  void TearDown() override {
    if (auto runtime = ZMZimoGame::getRuntime()) runtime->done();
    ZMDatabaseHelper::getInstance().resetForTesting();
  }
  // The init's callbacks come before it returns; a runtime is held whatever they are.
  std::shared_ptr<InitRecorder> init(const std::string& user, const ZMValue& options = {}) {
    auto listener = std::make_shared<InitRecorder>();
    ZMZimoGame::initRuntime(user, options, listener);
    EXPECT_NE(ZMZimoGame::getRuntime(), nullptr);
    return listener;
  }
  ScopedSystemDirectories dirs;
};

TEST_F(ZMGameRuntimeCreate, DefaultRootsFollowSystemDirectoriesAndASecondInitEndsTheFirst) {
  const std::string uninitialized = "ZimoRuntime error: uninitialized ZimoGameRuntime";
  EXPECT_EQ(Raised([] { ZMGameRuntime::getInstance(); }), uninitialized);
  LogCapture log;
  auto first = init("u1");
  ASSERT_EQ(first->events(), Events{"onInitializeSuccess"});
  auto runtime = ZMGameRuntime::getInstance();
  EXPECT_EQ(std::dynamic_pointer_cast<ZMGameRuntime>(first->runtime), runtime);
  EXPECT_TRUE(log.contains("root->" + dirs.documents()));

  // Without a cache option the cache root is the temporary directory itself.
  const auto& layout = *runtime->layout();
  const Events roots = {layout.app, layout.user, layout.core, layout.cache};
  EXPECT_EQ(roots, (Events{dirs.caches() + "/app", dirs.caches() + "/user", dirs.caches() + "/core",
                           dirs.temporary()}));
  for (const auto& root : roots) EXPECT_TRUE(fs::is_directory(root)) << root;
  EXPECT_TRUE(fs::is_directory(dirs.caches() + "/plugin")) << "the plug-in manager's, at init";

  // A second init ends the first runtime before it builds its own: its tasks can no longer start.
  auto second = init("u2")->runtime;
  EXPECT_TRUE(runtime->tasks()->hasEnded());
  EXPECT_EQ(ZMZimoGame::getRuntime(), second);
  EXPECT_NE(second->getManager("plugin_manager", ZMValue()),
            runtime->getManager("plugin_manager", ZMValue()));
  second->done();
  EXPECT_EQ(Raised([] { ZMGameRuntime::getInstance(); }), uninitialized);
}

TEST_F(ZMGameRuntimeCreate, InitFailuresReachTheHostOnce) {
  EXPECT_EQ(init("../escape")->events(), Events{"onInitializeFailure:init fail|invalid user id"});
  EXPECT_FALSE(Exists(dirs.caches() + "/app")) << "nothing is made for a user id that is refused";
  // The core root is made by the runtime, the plug-in root by its manager at the init event.
  for (const char* key : {ZM_KEY_STORAGE_PATH_CORE, ZM_KEY_STORAGE_PATH_PLUGIN}) {
    const std::string file = dirs.root() / key;
    WriteFile(file, "x");
    EXPECT_EQ(init("u1", {{key, file}})->events(),
              Events{"onInitializeFailure:NSInvalidArgumentException|" + file + " is a file"});
  }
  fs::remove(dirs.documents() + "/zimo_client_sdk.db");
  WriteFile(dirs.documents() + "/zimo_client_sdk.db/inside", "");  // a directory, not a file
  EXPECT_EQ(init("u1")->events(), Events{"onInitializeFailure:init fail|create database error"});
  // Without a store there are no roots: a launch makes nothing relative to the working directory.
  ZMZimoGame::getRuntime()->runGame(nullptr, "g7", {{ZM_KEY_RUN_OPT_VERSION, "1"}},
                                    std::make_shared<RunRecorder>());
  EXPECT_FALSE(Exists(fs::current_path() / "g7"));
}

TEST_F(ZMGameRuntimeCreate, TrustedKeysAreMinisignPublicKeysOrNothing) {
  const std::string key = "RWTXbmITYccTYcxU4nJE9S4PtfVh1ymkczkxcT5193PZOvOWp29tk+l3";
  const std::string signatureLine =
      "RUTXbmITYccTYYO6Qh2y711Es06mecywqW3uB0X4T6e9fAKts1a4qxRHeOYTgMfOJsq6aODsLxptkHz521s2ePIZmZ"
      "YkAtwk5AA=";
  const std::string refused = "onInitializeFailure:init fail|invalid trusted key: ";
  // Keys, what the host hears (a refusal names the first entry that is no key), signing required.
  for (const auto& [keys, event, required] : std::vector<std::tuple<ZMValue, std::string, bool>>{
           {nullptr, "onInitializeSuccess", false},
           {" ", "onInitializeSuccess", false},
           {ZMValue::array(), "onInitializeSuccess", false},
           {key, "onInitializeSuccess", true},
           {ZMValue::array({"", key + "\n"}), "onInitializeSuccess", true},
           {ZMValue::array({key, key.substr(0, 55)}), refused + key.substr(0, 55), false},
           {signatureLine, refused + signatureLine, false},
           {ZMValue::array({7}), refused + "7", false},
           {ZMValue::object(), refused + "{}", false},
       }) {
    auto listener = init("u1", {{ZM_KEY_PACKAGE_TRUSTED_KEYS, keys}});
    EXPECT_EQ(listener->events(), Events{event}) << keys;
    if (auto runtime = std::dynamic_pointer_cast<ZMGameRuntime>(listener->runtime)) {
      EXPECT_EQ(runtime->layout()->packageTrust.requiresSignatures(), required) << keys;
    }
  }
}

// An engine that reports from its own thread as told (the reference engine never fails) and
// records its launches. The test owns it; the slot alone owns the handle that forwards to it, as
// an engine's. A launch joins the previous one's thread before it records: the records need no
// lock.
struct FakeEngine {
  std::optional<ZMError> runFailure;
  std::shared_future<void> gate;  // when valid, the engine reports nothing before it is ready
  // Reports ended; waited for with RunUntil, as a report may need the main queue (the store's).
  std::atomic<int> reported{0};
  std::optional<std::string> appId;
  std::vector<ZMValue> runs;  // the run options of every launch, in order
  std::thread thread;

  static std::shared_ptr<FakeEngine> install() {
    auto engine = std::make_shared<FakeEngine>();
    ZMGameHandle::setInstance(std::make_shared<Handle>(engine));
    return engine;
  }
  ~FakeEngine() { join(); }
  void join() {
    if (thread.joinable()) thread.join();
  }

  struct Handle : ZMGameHandle {
    explicit Handle(std::shared_ptr<FakeEngine> engine) : e(std::move(engine)) {}
    std::shared_ptr<FakeEngine> e;
    void setOnGameQueryExitListener(std::weak_ptr<ZMOnGameQueryExitListener>) override {}
    void setOnGamePermissionListener(std::shared_ptr<ZMCorePermissionListener>) override {}
    void runGame(std::weak_ptr<void>, const std::string& appId, const ZMValue& options,
                 std::weak_ptr<ZMCoreRunListener> listener) override {
      e->join();
      e->appId = appId;
      e->runs.push_back(options);
      e->thread = std::thread([e = e.get(), listener] {
        if (e->gate.valid()) e->gate.wait();
        if (auto l = listener.lock()) {
          e->runFailure ? l->onRunFailure(*e->runFailure)
                        : (l->onGameViewCreated(nullptr), l->onRunSuccess());
        }
        ++e->reported;
      });
    }
    void exitGame(const std::string&, std::weak_ptr<ZMCoreExitListener>) override {}
    std::optional<std::string> getAppId() override { return e->appId; }
    void done() override { e->join(); }  // like the reference engine: waits for its callbacks
    void unzipFile(const std::string&, const std::string&,
                   std::shared_ptr<ZMUnzipGamePackageListener>) override {}  // never asked
  };
};

class ZMGameRuntimeLaunch : public ::testing::Test {
 protected:
  TestRuntime t;
  std::shared_ptr<int> viewController = std::make_shared<int>(42);

  static ZMValue version(const ZMValue& v, ZMValue more = ZMValue::object()) {
    more[ZM_KEY_RUN_OPT_VERSION] = v;
    return more;
  }
  // Launches g1; waits for `events` callbacks (none: returns at once).
  std::shared_ptr<RunRecorder> run(const ZMValue& options, std::size_t events = 2) {
    auto listener = std::make_shared<RunRecorder>();
    t.runtime->runGame(viewController, "g1", options, listener);
    EXPECT_TRUE(RunUntil([&] { return listener->size() >= events; }));
    return listener;
  }
  // The callbacks of a launch that fails before runGame returns.
  Events failedLaunch(const ZMValue& v) { return run(version(v), 0)->events(); }
  auto record() { return ZMDatabaseHelper::getInstance().getAppRowByUserId("u1", "g1"); }
  Events exitGame() {  // once the answer and anything after it have come
    auto exit = std::make_shared<ExitRecorder>();
    t.runtime->exitGame("g1", exit);
    EXPECT_TRUE(RunUntil([&] { return exit->size() == 1; }));
    DrainMainQueue();
    return exit->events();
  }
  // Launches g1 1.0 on `fake`, which reports nothing until the returned promise is kept.
  std::promise<void> gatedLaunch(FakeEngine& fake, std::shared_ptr<RunRecorder>& listener) {
    std::promise<void> ready;
    fake.gate = ready.get_future().share();
    listener = run(version("1.0"), 0);
    return ready;
  }
  static std::shared_ptr<MerinGameHandle> engine() {
    return std::dynamic_pointer_cast<MerinGameHandle>(ZMGameHandle::getInstance());
  }
  // The launch's loading-time lines: "none", or "timed" when each step is logged once as
  // "<step> <seconds, six decimals>s". (Not std::regex: GCC 12 warns inside it under sanitizers.)
  static std::string times(const LogCapture& log) {
    std::size_t found = 0, timed = 0;
    for (const std::string step :
         {"[runGame] initRuntimeCore ", "[runGame] onGameViewCreated", "[runGame] onSuccess"}) {
      const auto lines = log.startingWith(step + " ");
      found += lines.size();
      const std::string s = lines.size() == 1 ? lines[0].substr(step.size() + 1) : "";
      const auto dot = s.find('.');  // the only character but the "s" that is no digit
      timed += dot > 0 && dot != std::string::npos && dot + 8 == s.size() && s.back() == 's' &&
               std::count_if(s.begin(), s.end() - 1, ::isdigit) + 2 == std::ssize(s);
    }
    return found == 0 ? "none" : timed == 3 ? "timed" : "malformed";
  }
};

TEST_F(ZMGameRuntimeLaunch, LaunchFailuresComeSynchronouslyWithTheirTexts) {
  const Events noVersion = {"onRunFailure:missing run option: ZM_KEY_RUN_OPT_VERSION|-1"};
  for (const ZMValue& v : {ZMValue(""), ZMValue(1)}) EXPECT_EQ(failedLaunch(v), noVersion);
  EXPECT_EQ(failedLaunch(".."), Events{"onRunFailure:invalid version: ..|-1"});
  EXPECT_FALSE(Exists(t.app() + "/g1")) << "nothing is touched before the version is known";

  // A version never installed: its directory is made, empty, and the game is not installed.
  EXPECT_EQ(failedLaunch("3.0"), Events{"onRunFailure:game not installed|-1"});
  EXPECT_TRUE(Exists(t.app() + "/g1/3.0") && ListDir(t.app() + "/g1/3.0").empty());
  // A version path that is a file: the emptiness test's reason.
  WriteFile(t.app() + "/g1/2.0", "x");
  EXPECT_EQ(failedLaunch("2.0"), Events{"onRunFailure:" + t.app() + "/g1/2.0 is not directory|-1"});

  // Installed, but the user's directories cannot be made under a file.
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  for (const auto& [root, failure] : {std::pair{t.cache(), "temp dir not found"},
                                      std::pair{t.user(), "user data dir not found"}}) {
    WriteFile(root + "/u1_g1", "x");
    EXPECT_EQ(failedLaunch("1.0"), Events{"onRunFailure:" + std::string(failure) + "|-1"});
    std::filesystem::remove(root + "/u1_g1");
  }

  // A temp path that is itself a file throws out of runGame.
  std::filesystem::remove(t.cache() + "/u1_g1/tmp");
  WriteFile(t.cache() + "/u1_g1/tmp", "x");
  auto listener = std::make_shared<RunRecorder>();
  EXPECT_EQ(Raised([&] { t.runtime->runGame(viewController, "g1", version("1.0"), listener); }),
            "NSInvalidArgumentException: " + t.cache() + "/u1_g1/tmp is a file");
  EXPECT_EQ(listener->size(), 0u);
}

TEST_F(ZMGameRuntimeLaunch, RunCountsPlaysLogsTimesAndExits) {
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  LogCapture log;
  auto listener = run(version("1.0", {{ZM_KEY_RUN_DEBUG_SHOW_GAME_LOADING_TIME_LOG, true},
                                      {ZM_KEY_RUN_OPT_EXTEND, "first"}}));
  EXPECT_EQ(listener->events(), (Events{"onGameHandleCreate", "onRunSuccess"}));
  EXPECT_EQ(listener->handle, ZMGameHandle::getInstance()) << "the host gets the handle";
  EXPECT_EQ(times(log), "timed");
  ASSERT_TRUE(record());
  EXPECT_EQ(std::tuple(record()->played, record()->extend), std::tuple(1, "first"));
  const double firstPlay = *record()->play_at_time;

  // A second run without timing and without extend: no timed lines, extend cleared, played 2.
  LogCapture quiet;
  EXPECT_EQ(run(version("1.0"))->last(), "onRunSuccess");
  EXPECT_EQ(times(quiet), "none");
  EXPECT_EQ(std::tuple(record()->played, record()->extend), std::tuple(2, std::nullopt));
  EXPECT_GT(*record()->play_at_time, firstPlay);

  EXPECT_EQ(exitGame(), Events{"onGameExitSuccess"});
  EXPECT_EQ(t.runtime->viewController(), nullptr);
  EXPECT_EQ(exitGame(), Events{"onGameExitFailure:no game running|-1"});

  // The option as text: true when it starts with y, Y, t or T, or reads as a non-zero number.
  for (const std::string text : {"yes", "Yes", "true", "True", "1", "2", "no", "0", ""}) {
    const bool shown = text != "no" && text != "0" && !text.empty();
    LogCapture timed;
    run(version("1.0", {{ZM_KEY_RUN_DEBUG_SHOW_GAME_LOADING_TIME_LOG, text}}));
    EXPECT_EQ(times(timed), shown ? "timed" : "none") << '"' << text << '"';
  }
}

TEST_F(ZMGameRuntimeLaunch, EnginePermissionCallsReachTheStoreAndQuitRequestsTheHost) {
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  auto listener = run(version("1.0"));
  // The store waits for the main queue, so the game's calls come from another thread here.
  auto game = std::async(std::launch::async, [engine = engine()] {
    engine->grantPermissions({"camera", "location"}, {"location"});
    return ZMValue::array(
        {engine->queryPermission("camera").value_or(-1), engine->queryAllPermissions()});
  });
  ASSERT_TRUE(RunUntil(
      [&] { return game.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
  EXPECT_EQ(game.get(), ZMValue::array({1, {{"location", 2}, {"camera", 1}}}));
  EXPECT_EQ(record()->auth_location, 2);

  auto query = std::make_shared<QueryExitRecorder>();
  t.runtime->setGameQueryExitListener(query);
  engine()->requestQuit({{"reason", "back"}});
  ASSERT_TRUE(RunUntil([&] { return query->size() == 1; }));
  EXPECT_EQ(query->last(), R"(onQueryExit:g1|{"reason":"back"})");
  EXPECT_TRUE(engine()->isRunning()) << "the host decides";

  // What the host throws, the library's own error type too, is logged on the engine's thread.
  query->raise = ZMError("host refused", 4);
  LogCapture log;
  engine()->requestQuit(ZMValue());
  EXPECT_TRUE(RunUntil([&] { return log.contains(query->raise->description()); }));
  EXPECT_TRUE(engine()->isRunning());

  // Nobody to ask: the runtime ends the game itself, silently.
  query.reset();
  engine()->requestQuit(ZMValue());
  ASSERT_TRUE(RunUntil([&] { return !engine()->isRunning(); }));
  EXPECT_EQ(listener->size(), 2u);
}

// What an engine reports from its own thread, and when, on a fake engine that can fail.
TEST_F(ZMGameRuntimeLaunch, EngineReportsAreRelayedWhateverHappensMeanwhile) {
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  auto fake = FakeEngine::install();
  fake->runFailure = ZMError("engine exploded", 7);
  auto listener = run(version("1.0"), 1);
  fake->join();
  EXPECT_EQ(listener->events(), Events{"onRunFailure:engine exploded|7"});
  EXPECT_NE(listener->threads()[0], std::this_thread::get_id());
  EXPECT_FALSE(record()->played);

  // A play is not counted once the host's listener is gone.
  fake->runFailure.reset();
  auto ready = gatedLaunch(*fake, listener);
  listener.reset();
  const int reported = fake->reported;
  ready.set_value();
  ASSERT_TRUE(RunUntil([&] { return fake->reported > reported; }));
  EXPECT_FALSE(record()->played);

  // The handle released mid-launch (the slot held the only one): the host still hears it through.
  ready = gatedLaunch(*fake, listener);
  std::weak_ptr<ZMGameHandle> handle = ZMGameHandle::getInstance();
  ZMGameHandle::setInstance(nullptr);
  ASSERT_TRUE(handle.expired());
  ready.set_value();
  ASSERT_TRUE(RunUntil([&] { return listener->size() == 2; }));
  fake->join();
  EXPECT_EQ(listener->events(), (Events{"onGameHandleCreate", "onRunSuccess"}));
  EXPECT_EQ(listener->handle, nullptr);
  EXPECT_EQ(record()->played, 1);
  EXPECT_EQ(exitGame(), Events{"onGameExitFailure:no game running|-1"});

  // With no engine at all the launch ends silently after the bridge found no handle.
  auto none = run(version("1.0"), 0);
  DrainMainQueue();
  EXPECT_EQ(none->size(), 0u);

  // onRunSuccess counts the play in the record store, which waits for the main queue, while
  // done() on the main thread waits for the engine's callbacks to end.
  fake = FakeEngine::install();
  gatedLaunch(*fake, listener).set_value();
  t.runtime->done();
  EXPECT_EQ(listener->events(), (Events{"onGameHandleCreate", "onRunSuccess"}));
  EXPECT_EQ(record()->played, 2);
}

TEST_F(ZMGameRuntimeLaunch, ThePluginRootTravelsWithTheRunOptionsAndTheEngineGetsEveryOne) {
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  auto fake = FakeEngine::install();

  // A plug-in root that cannot be made fails the launch before the engine is asked.
  std::filesystem::remove_all(t.plugin());
  WriteFile(t.plugin(), "a file where the root belongs");
  EXPECT_EQ(failedLaunch("1.0"), Events{"onRunFailure:" + t.plugin() + " not found|0"});
  EXPECT_TRUE(fake->runs.empty());
  std::filesystem::remove(t.plugin());

  const ZMValue options = version("1.0", {{"rt_run_opt_app_launch_options", {{"scene", 1001}}},
                                          {"rt_run_debug_show_debug_view", true},
                                          {"rt_run_debug_skipped_frame_warning_limit", 30},
                                          {"rt_run_debug_show_game_loading_time_log", 1}});
  EXPECT_EQ(run(options)->events(), (Events{"onGameHandleCreate", "onRunSuccess"}));
  fake->join();
  EXPECT_TRUE(std::filesystem::is_directory(t.plugin()));

  // The engine got the host's options, the runtime's keys with the layout's paths, the debug
  // flag as a boolean, the plug-in root, and the start time in seconds since 1970.
  ASSERT_EQ(fake->runs.size(), 1u);
  ZMValue seen = fake->runs[0];
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  EXPECT_NEAR(seen["_rt_game_loading_start_time"].get<double>(),
              std::chrono::duration<double>(now).count(), 60);
  seen.erase("_rt_game_loading_start_time");
  const std::string user = t.user() + "/u1_g1";
  ZMValue expected = options;
  expected.update({{"rt_run_debug_show_game_loading_time_log", true},
                   {"_rt_file_user_data_path", user + "/data"},
                   {"_rt_file_app_package_path", t.app() + "/g1/1.0"},
                   {"_rt_file_user_temp_path", t.cache() + "/u1_g1/tmp"},
                   {"_rt_file_app_detail_path", t.app() + "/g1/detail.json"},
                   {"_rt_local_storage_path", user + "/local_storage.db"},
                   {"rt_runtime_local_storage_path", user + "/rt_local_storage.db"},
                   {"rt_user_id", "u1"},
                   {"_rt_file_plugin_package_path", t.plugin()}});
  auto unordered = [](const ZMValue& value) { return nlohmann::json::parse(value.dump()); };
  EXPECT_EQ(unordered(seen), unordered(expected));
}

}  // namespace
