#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <future>
#include <thread>

#include "merin/MerinGameHandle.h"
#include "runtime/ZMGameRuntime2.h"
#include "storage/ZMDatabaseHelper.h"
#include "support/TestRuntime.h"
#include "support/TestSupport.h"

namespace {

using Events = std::vector<std::string>;

// An engine that reports from a thread of its own as it is told (the reference engine never
// fails) and records the launches it is asked for. The test owns it; the handle that install()
// puts in the slot only forwards to it and is owned by the slot alone, as an engine's is.
class FakeEngine {
 public:
  std::optional<ZMError> runFailure;
  std::shared_future<void> gate;  // when valid, the engine reports nothing before it is ready
  // Reports that have ended: a test waits for them with RunUntil, since a report may need the
  // main queue (the record store runs there).
  std::atomic<int> reported{0};

  static std::shared_ptr<FakeEngine> install() {
    auto engine = std::make_shared<FakeEngine>();
    ZMGameHandle::setInstance(std::make_shared<Handle>(engine));
    return engine;
  }
  ~FakeEngine() { join(); }
  void join() {
    if (thread_.joinable()) thread_.join();
  }
  std::vector<ZMValue> runs() const {  // the run options of every launch, in order
    std::lock_guard lock(mutex_);
    return runs_;
  }

 private:
  struct Handle : ZMGameHandle {
    explicit Handle(std::shared_ptr<FakeEngine> engine) : e(std::move(engine)) {}
    std::shared_ptr<FakeEngine> e;
    void setOnGameQueryExitListener(std::weak_ptr<ZMOnGameQueryExitListener>) override {}
    void setOnGamePermissionListener(std::shared_ptr<ZMCorePermissionListener>) override {}
    void runGame(std::weak_ptr<void>, const std::string& appId, const ZMValue& options,
                 std::weak_ptr<ZMCoreRunListener> listener) override {
      {
        std::lock_guard lock(e->mutex_);
        e->appId_ = appId;
        e->runs_.push_back(options);
      }
      e->join();
      e->thread_ = std::thread([e = e.get(), listener] {
        if (e->gate.valid()) e->gate.wait();
        if (auto l = listener.lock()) {
          e->runFailure ? l->onRunFailure(*e->runFailure)
                        : (l->onGameViewCreated(nullptr), l->onRunSuccess());
        }
        ++e->reported;
      });
    }
    void exitGame(const std::string&, std::weak_ptr<ZMCoreExitListener>) override {}
    std::optional<std::string> getAppId() override {
      std::lock_guard lock(e->mutex_);
      return e->appId_;
    }
    void done() override { e->join(); }  // like the reference engine: waits for its callbacks
    void unzipFile(const std::string&, const std::string&,
                   std::shared_ptr<ZMUnzipGamePackageListener>) override {}  // never asked
  };

  mutable std::mutex mutex_;
  std::optional<std::string> appId_;
  std::vector<ZMValue> runs_;
  std::thread thread_;
};

class ZMGameRuntimeLaunch : public ::testing::Test {
 protected:
  TestRuntime t;
  std::shared_ptr<int> viewController = std::make_shared<int>(42);

  static ZMValue version(const ZMValue& v) { return {{ZM_KEY_RUN_OPT_VERSION, v}}; }
  // Launches g1; waits for `events` callbacks (none: returns at once).
  std::shared_ptr<RunRecorder> run(const ZMValue& options, std::size_t events = 0) {
    auto listener = std::make_shared<RunRecorder>();
    t.runtime->runGame(viewController, "g1", options, listener);
    EXPECT_TRUE(RunUntil([&] { return listener->size() >= events; }));
    return listener;
  }
  // The callbacks of a launch that fails before runGame returns.
  Events failedLaunch(const ZMValue& v) { return run(version(v))->events(); }
  std::shared_ptr<ZMAppRow> record() {
    return ZMDatabaseHelper::getInstance().getAppRowByUserId("u1", "g1");
  }
  std::string exitGame() {
    auto exit = std::make_shared<ExitRecorder>();
    t.runtime->exitGame("g1", exit);
    EXPECT_TRUE(RunUntil([&] { return exit->size() == 1; }));
    DrainMainQueue();
    EXPECT_EQ(exit->size(), 1u);
    return exit->last();
  }
  // Launches g1 1.0 on `fake`, which reports nothing until the returned promise is kept.
  std::promise<void> gatedLaunch(FakeEngine& fake, std::shared_ptr<RunRecorder>& listener) {
    std::promise<void> ready;
    fake.gate = ready.get_future().share();
    listener = run(version("1.0"));
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
      const std::string seconds = lines.size() == 1 ? lines[0].substr(step.size() + 1) : "";
      const auto dot = seconds.find('.');
      const auto digits = [&](std::size_t from, std::size_t to) {
        return from < to && std::all_of(seconds.begin() + from, seconds.begin() + to, ::isdigit);
      };
      timed += dot != std::string::npos && dot + 8 == seconds.size() && seconds.back() == 's' &&
               digits(0, dot) && digits(dot + 1, dot + 7);
    }
    return found == 0 ? "none" : timed == 3 ? "timed" : "malformed";
  }
};

TEST_F(ZMGameRuntimeLaunch, LaunchFailuresComeSynchronouslyWithTheirTexts) {
  for (const ZMValue& missing : {ZMValue(""), ZMValue(1)}) {  // a version that is no text
    EXPECT_EQ(failedLaunch(missing), Events{"onRunFailure:missing run option: "
                                            "ZM_KEY_RUN_OPT_VERSION|-1"});
  }
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
  ZMValue options = version("1.0");
  options[ZM_KEY_RUN_DEBUG_SHOW_GAME_LOADING_TIME_LOG] = true;
  options[ZM_KEY_RUN_OPT_EXTEND] = "first";
  auto listener = run(options, 2);
  EXPECT_EQ(listener->events(), (Events{"onGameHandleCreate", "onRunSuccess"}));
  EXPECT_EQ(listener->handle, ZMGameHandle::getInstance()) << "the host gets the handle";
  EXPECT_EQ(times(log), "timed");
  ASSERT_TRUE(record());
  EXPECT_EQ(record()->played, 1);
  EXPECT_EQ(record()->extend, "first");
  const double firstPlay = *record()->play_at_time;

  // A second run without timing and without extend: no timed lines, extend cleared, played 2.
  LogCapture quiet;
  EXPECT_EQ(run(version("1.0"), 2)->last(), "onRunSuccess");
  EXPECT_EQ(times(quiet), "none");
  EXPECT_EQ(record()->played, 2);
  EXPECT_FALSE(record()->extend);
  EXPECT_GT(*record()->play_at_time, firstPlay);

  EXPECT_EQ(exitGame(), "onGameExitSuccess");
  EXPECT_EQ(t.runtime->viewController(), nullptr);
  EXPECT_EQ(exitGame(), "onGameExitFailure:no game running|-1");

  // The option as text: true when it starts with y, Y, t or T, or reads as a non-zero number.
  for (const std::string text : {"yes", "Yes", "true", "True", "1", "2", "no", "0", ""}) {
    const bool shown = text != "no" && text != "0" && !text.empty();
    LogCapture timed;
    options = version("1.0");
    options[ZM_KEY_RUN_DEBUG_SHOW_GAME_LOADING_TIME_LOG] = text;
    EXPECT_EQ(run(options, 2)->last(), "onRunSuccess") << text;
    EXPECT_EQ(times(timed), shown ? "timed" : "none") << '"' << text << '"';
  }
}

TEST_F(ZMGameRuntimeLaunch, EnginePermissionCallsReachTheStoreAndQuitRequestsTheHost) {
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  auto listener = run(version("1.0"), 2);
  // The store waits for the main queue, so the game's calls come from another thread here.
  auto game = std::async(std::launch::async, [engine = engine()] {
    engine->grantPermissions({"camera", "location"}, {"location"});
    return std::pair(engine->queryPermission("camera"), engine->queryAllPermissions());
  });
  ASSERT_TRUE(RunUntil(
      [&] { return game.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
  const auto [camera, all] = game.get();
  EXPECT_EQ(camera, 1);
  EXPECT_EQ(all, (ZMValue{{"location", 2}, {"camera", 1}}));
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

  // The handle is released mid-launch (the slot held its only reference): the engine still
  // reports, and the host hears the launch through without a handle.
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
  EXPECT_EQ(exitGame(), "onGameExitFailure:no game running|-1");

  // With no engine at all the launch ends silently after the bridge found no handle.
  auto none = run(version("1.0"));
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
  EXPECT_TRUE(fake->runs().empty());
  std::filesystem::remove(t.plugin());

  ZMValue options = version("1.0");
  options["rt_run_opt_app_launch_options"] = {{"scene", 1001}};
  options["rt_run_debug_show_debug_view"] = true;
  options["rt_run_debug_skipped_frame_warning_limit"] = 30;
  options["rt_run_debug_show_game_loading_time_log"] = 1;
  EXPECT_EQ(run(options, 2)->events(), (Events{"onGameHandleCreate", "onRunSuccess"}));
  fake->join();
  EXPECT_TRUE(std::filesystem::is_directory(t.plugin()));

  // The engine got the host's options, the runtime's keys with the layout's paths, the debug
  // flag as a boolean, the plug-in root, and the start time in seconds since 1970.
  ASSERT_EQ(fake->runs().size(), 1u);
  ZMValue seen = fake->runs()[0];
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
