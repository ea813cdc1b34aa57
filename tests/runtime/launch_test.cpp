#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "merin/MerinGameHandle.h"
#include "storage/ZMDatabaseHelper.h"
#include "support/TestRuntime.h"
#include "support/TestSupport.h"

namespace {

class ZMGameRuntimeLaunch : public ::testing::Test {
 protected:
  TestRuntime t;
  std::shared_ptr<int> viewController = std::make_shared<int>(42);

  static ZMValue version(const std::string& v) { return {{ZM_KEY_RUN_OPT_VERSION, v}}; }
  std::shared_ptr<RunRecorder> run(const std::string& appId, const ZMValue& options,
                                   std::size_t events) {
    auto listener = std::make_shared<RunRecorder>();
    t.runtime->runGame(viewController, appId, options, listener);
    EXPECT_TRUE(RunUntil([&] { return listener->size() >= events; }));
    return listener;
  }
  std::shared_ptr<ZMAppRow> record(const std::string& appId) {
    return ZMDatabaseHelper::getInstance().getAppRowByUserId("u1", appId);
  }
  std::string exitGame(const std::string& appId) {
    auto exit = std::make_shared<ExitRecorder>();
    t.runtime->exitGame(appId, exit);
    EXPECT_TRUE(RunUntil([&] { return exit->size() == 1; }));
    DrainMainQueue();
    EXPECT_EQ(exit->size(), 1u);
    return exit->last();
  }
  static std::shared_ptr<MerinGameHandle> engine() {
    return std::dynamic_pointer_cast<MerinGameHandle>(ZMGameHandle::getInstance());
  }
};

TEST_F(ZMGameRuntimeLaunch, ValidationFailuresComeSynchronouslyWithTheirTexts) {
  LogCapture log;
  auto listener = std::make_shared<RunRecorder>();
  t.runtime->runGame(viewController, "g1", version(""), listener);
  EXPECT_EQ(listener->events(),
            std::vector<std::string>{"onRunFailure:missing run option: ZM_KEY_RUN_OPT_VERSION|-1"});
  EXPECT_FALSE(Exists(t.app() + "/g1")) << "nothing is touched before the version is known";
  EXPECT_TRUE(log.contains("[runGame] begin ..."));

  // A version never installed: its directory is made, empty, and the game is not installed.
  listener = std::make_shared<RunRecorder>();
  t.runtime->runGame(viewController, "g1", version("3.0"), listener);
  EXPECT_EQ(listener->events(), std::vector<std::string>{"onRunFailure:game not installed|-1"});
  EXPECT_TRUE(Exists(t.app() + "/g1/3.0"));
  EXPECT_TRUE(ListDir(t.app() + "/g1/3.0").empty());
}

TEST_F(ZMGameRuntimeLaunch, RunCountsPlaysLogsTimesAndExits) {
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  LogCapture log;
  ZMValue options = version("1.0");
  options[ZM_KEY_RUN_DEBUG_SHOW_GAME_LOADING_TIME_LOG] = true;
  options[ZM_KEY_RUN_OPT_EXTEND] = "first";
  auto listener = run("g1", options, 2);
  EXPECT_EQ(listener->events(), (std::vector<std::string>{"onGameHandleCreate", "onRunSuccess"}));
  EXPECT_EQ(listener->handle, ZMGameHandle::getInstance()) << "the host gets the handle";
  // The engine's callbacks are relayed on the engine's thread.
  EXPECT_NE(listener->threads()[0], std::this_thread::get_id());
  auto timed = [&](const std::string& prefix) {
    auto lines = log.startingWith(prefix);
    return lines.size() == 1 && lines[0].size() > prefix.size() + 1 && lines[0].back() == 's';
  };
  EXPECT_TRUE(timed("[runGame] initRuntimeCore  "));
  EXPECT_TRUE(timed("[runGame] onGameViewCreated "));
  EXPECT_TRUE(timed("[runGame] onSuccess "));
  ASSERT_TRUE(record("g1"));
  EXPECT_EQ(record("g1")->played, 1);
  EXPECT_EQ(record("g1")->extend, "first");
  const double firstPlay = *record("g1")->play_at_time;

  // The engine saw every run option the runtime adds.
  ASSERT_TRUE(engine() && engine()->getView());
  EXPECT_EQ(engine()->getView()->orientation, "portrait");

  // A second run without timing and without extend: no timed lines, extend cleared, played 2.
  auto quiet = LogCapture();
  auto second = run("g1", version("1.0"), 2);
  EXPECT_EQ(second->last(), "onRunSuccess");
  EXPECT_TRUE(quiet.startingWith("[runGame] onSuccess").empty());
  EXPECT_TRUE(quiet.contains("[runGame] begin ..."));
  EXPECT_EQ(record("g1")->played, 2);
  EXPECT_FALSE(record("g1")->extend);
  EXPECT_GT(*record("g1")->play_at_time, firstPlay);

  EXPECT_EQ(exitGame("g1"), "onGameExitSuccess");
  EXPECT_EQ(t.runtime->viewController(), nullptr);
  EXPECT_EQ(exitGame("g1"), "onGameExitFailure:no game running|-1");
}

TEST_F(ZMGameRuntimeLaunch, QuitRequestGoesToTheHostOrEndsTheGame) {
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  auto listener = run("g1", version("1.0"), 2);

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

TEST_F(ZMGameRuntimeLaunch, EnginePermissionCallsReachTheUsersStore) {
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  auto engine = this->engine();
  run("g1", version("1.0"), 2);
  // The store waits for the main queue, so the game's calls come from another thread here.
  std::optional<int64_t> camera;
  ZMValue all;
  std::atomic<bool> finished = false;
  std::thread game([&] {
    engine->grantPermissions({"camera", "location"}, {"location"});
    camera = engine->queryPermission("camera");
    all = engine->queryAllPermissions();
    finished = true;
  });
  while (!finished) RunUntil([&] { return finished.load(); }, std::chrono::milliseconds(50));
  game.join();
  EXPECT_EQ(camera, 1);
  EXPECT_EQ(all, (ZMValue{{"location", 2}, {"camera", 1}}));
  EXPECT_EQ(record("g1")->auth_location, 2);
}

TEST_F(ZMGameRuntimeLaunch, TempDirectoryThatIsAFileThrowsOutOfRunGame) {
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  WriteFile(t.cache() + "/u1_g1/tmp", "not a directory");
  auto listener = std::make_shared<RunRecorder>();
  EXPECT_EQ(Raised([&] { t.runtime->runGame(viewController, "g1", version("1.0"), listener); }),
            "NSInvalidArgumentException: " + t.cache() + "/u1_g1/tmp is a file");
  EXPECT_EQ(listener->size(), 0u);
  EXPECT_EQ(t.runtime->appId(), "g1") << "the launch state is stored before anything fails";
}

// An engine that fails in the ways the reference engine does not, calling back from its own
// thread.
class FakeEngine : public ZMGameHandle {
 public:
  std::optional<ZMError> runFailure, exitFailure;
  bool vanishBeforeView = false;
  std::optional<std::string> ranAppId;
  std::shared_future<void> gate;  // when valid, the engine reports nothing before it is ready

  void setOnGameQueryExitListener(std::weak_ptr<ZMOnGameQueryExitListener>) override {}
  void setOnGamePermissionListener(std::shared_ptr<ZMCorePermissionListener>) override {}
  void runGame(std::weak_ptr<void>, const std::string& appId, const ZMValue&,
               std::weak_ptr<ZMCoreRunListener> listener) override {
    ranAppId = appId;
    join();
    thread_ = std::thread([this, listener] {
      if (gate.valid()) gate.wait();
      auto l = listener.lock();
      if (!l) return;
      if (vanishBeforeView) ZMGameHandle::setInstance(nullptr);
      if (runFailure) return l->onRunFailure(*runFailure);
      l->onGameViewCreated(nullptr);
      l->onRunSuccess();
    });
  }
  void exitGame(const std::string&, std::weak_ptr<ZMCoreExitListener> listener) override {
    join();
    thread_ = std::thread([this, listener] {
      if (auto l = listener.lock()) exitFailure ? l->onCoreExitFailure(*exitFailure) : l->onCoreExitSuccess();
    });
  }
  std::optional<std::string> getAppId() override { return ranAppId; }
  void done() override { join(); }  // like the reference engine: waits for its callbacks
  void unzipFile(const std::string&, const std::string&,
                 std::shared_ptr<ZMUnzipGamePackageListener> l) override {
    l->onUnzipFailed("fake");
  }
  void join() {
    if (thread_.joinable()) thread_.join();
  }
  ~FakeEngine() override { join(); }

 private:
  std::thread thread_;
};

TEST_F(ZMGameRuntimeLaunch, EngineFailuresAreRelayedFromTheEnginesThread) {
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  auto fake = std::make_shared<FakeEngine>();
  ZMGameHandle::setInstance(fake);
  fake->runFailure = ZMError("engine exploded", 7);
  auto listener = run("g1", version("1.0"), 1);
  fake->join();
  EXPECT_EQ(listener->events(), std::vector<std::string>{"onRunFailure:engine exploded|7"});
  EXPECT_NE(listener->threads()[0], std::this_thread::get_id());
  EXPECT_FALSE(record("g1")->played);

  fake->exitFailure = ZMError("cannot leave", 3);
  EXPECT_EQ(exitGame("g1"), "onGameExitFailure:cannot leave|3");

  // A handle that leaves the slot mid-launch: the host still hears the launch through.
  fake->runFailure.reset();
  fake->vanishBeforeView = true;
  listener = run("g1", version("1.0"), 2);
  fake->join();
  EXPECT_EQ(listener->events(), (std::vector<std::string>{"onGameHandleCreate", "onRunSuccess"}));
  EXPECT_EQ(record("g1")->played, 1);

  // With no engine at all the launch ends silently after the bridge found no handle.
  auto none = std::make_shared<RunRecorder>();
  t.runtime->runGame(viewController, "g1", version("1.0"), none);
  DrainMainQueue();
  EXPECT_EQ(none->size(), 0u);
  auto exit = std::make_shared<ExitRecorder>();
  t.runtime->exitGame("g1", exit);
  EXPECT_EQ(exit->events(), std::vector<std::string>{"onGameExitFailure:no game running|-1"});
}

// Launches g1 1.0 on a fake engine that reports nothing until `ready` is set.
std::shared_ptr<FakeEngine> GatedLaunch(TestRuntime& t, std::shared_ptr<void> viewController,
                                        std::promise<void>& ready,
                                        const std::shared_ptr<RunRecorder>& listener) {
  EXPECT_TRUE(t.installGame("g1", "1.0"));
  auto fake = std::make_shared<FakeEngine>();
  ZMGameHandle::setInstance(fake);
  fake->gate = ready.get_future().share();
  t.runtime->runGame(std::move(viewController), "g1", {{ZM_KEY_RUN_OPT_VERSION, "1.0"}}, listener);
  return fake;
}

TEST_F(ZMGameRuntimeLaunch, PlayIsNotCountedOnceTheHostListenerIsGone) {
  std::promise<void> ready;
  auto listener = std::make_shared<RunRecorder>();
  auto fake = GatedLaunch(t, viewController, ready, listener);
  listener.reset();
  ready.set_value();
  fake->join();
  DrainMainQueue();
  EXPECT_FALSE(record("g1")->played) << "the install's record, never played";
}

TEST_F(ZMGameRuntimeLaunch, DoneOnTheMainThreadWhileTheEngineWaitsForIt) {
  std::promise<void> ready;
  auto listener = std::make_shared<RunRecorder>();
  GatedLaunch(t, viewController, ready, listener);
  // onRunSuccess counts the play in the record store, which waits for the main queue, while
  // done() on the main thread waits for the engine's callbacks to end.
  ready.set_value();
  t.runtime->done();
  EXPECT_EQ(listener->events(), (std::vector<std::string>{"onGameHandleCreate", "onRunSuccess"}));
  EXPECT_EQ(record("g1")->played, 1);
}

}  // namespace
