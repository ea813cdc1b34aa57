#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <stdexcept>

#include "merin/MerinGameHandle.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"
#include "tavo/ZMOptionKeys.h"

namespace fs = std::filesystem;

namespace {

struct RunListener : ZMCoreRunListener, ZMCoreExitListener, EventLog {
  std::shared_ptr<MerinGameView> view;  // written before the "view" event, read after it
  std::function<void()> duringSuccess;
  void onGameViewCreated(std::shared_ptr<void> v) override {
    view = std::static_pointer_cast<MerinGameView>(v);
    note("view");
  }
  void onRunSuccess() override {
    if (duringSuccess) duringSuccess();
    note("run success");
  }
  void onRunFailure(const ZMError& error) override { note("run failure", error); }
  void onCoreExitSuccess() override { note("exit success"); }
  void onCoreExitFailure(const ZMError& error) override { note("exit failure", error); }
};

struct QuitListener : ZMOnGameQueryExitListener, EventLog {
  void onCoreQueryExit(const ZMValue& result) override { add(result.dump()); }
};

// A permission store in memory that records each call.
class FakePermissions : public ZMCorePermissionListener {
 public:
  explicit FakePermissions(std::shared_ptr<EventLog> calls) : calls_(std::move(calls)) {}
  void updatePermission(const std::string& appId, const std::vector<std::string>& granted,
                        const std::vector<std::string>& denied) override {
    calls_->add("update " + appId);
    for (const auto& name : granted) values_[name] = 1;
    for (const auto& name : denied) values_[name] = 2;
  }
  int64_t getSinglePermission(const std::string& appId, const std::string& permission) override {
    calls_->add("single " + appId + " " + permission);
    if (permission == "bogus") throw std::invalid_argument("unknown permission");
    auto found = values_.find(permission);
    return found == values_.end() ? 0 : found->second;
  }
  ZMValue getAllPermission(const std::string& appId) override {
    calls_->add("all " + appId);
    ZMValue all = ZMValue::object();
    for (const auto& [name, value] : values_) all[name] = value;
    return all;
  }

 private:
  std::shared_ptr<EventLog> calls_;
  std::map<std::string, int64_t> values_;  // touched on the engine thread only
};

class MerinHeadlessRun : public ::testing::Test {
 protected:
  void SetUp() override { handle_ = MerinGameHandle::install(); }
  void TearDown() override {
    ZMGameHandle::setInstance(nullptr);
    handle_.reset();
  }

  // A version directory holding `config` as game.config.json (none when null).
  ZMValue packageOptions(const std::string& name, const std::optional<std::string>& config) {
    const std::string dir = dir_ / name;
    fs::create_directories(dir);
    WriteFile(dir + "/main.js", "// game");
    if (config) WriteFile(dir + "/game.config.json", *config);
    return ZMValue{{ZM_SYSTEM_KEY_FILE_APP_PACKAGE_PATH, dir}, {ZM_KEY_RUN_OPT_VERSION, "1"}};
  }

  // Runs and waits until the listener has `expectedEvents` events.
  void run(const std::string& appId, const ZMValue& options,
           const std::shared_ptr<RunListener>& listener, size_t expectedEvents) {
    handle_->runGame({}, appId, options, listener);
    ASSERT_TRUE(listener->waitFor(expectedEvents));
  }

  std::vector<std::string> exitGame(const std::string& appId) {
    auto listener = std::make_shared<RunListener>();
    handle_->exitGame(appId, listener);
    EXPECT_TRUE(listener->waitFor(1));
    return listener->events();
  }

  TempDir dir_;
  std::shared_ptr<MerinGameHandle> handle_;
};

TEST_F(MerinHeadlessRun, RunCreatesAViewSizedByTheConfiguredOrientation) {
  const struct {
    std::string config;
    std::string orientation;
    int width, height;
  } cases[] = {
      {R"({})", "landscape", 1280, 720},
      {R"({"deviceOrientation": "portrait", "showStatusBar": true})", "portrait", 720, 1280},
  };
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.config);
    const std::string appId = "app" + std::to_string(n++);
    auto listener = std::make_shared<RunListener>();
    run(appId, packageOptions(appId, c.config), listener, 2);
    EXPECT_EQ(listener->events(), (std::vector<std::string>{"view", "run success"}));
    EXPECT_EQ(listener->distinctThreads().count(std::this_thread::get_id()), 0u);
    ASSERT_TRUE(listener->view);
    const MerinGameView& v = *listener->view;
    EXPECT_EQ(std::tie(v.appId, v.orientation, v.width, v.height),
              std::tie(appId, c.orientation, c.width, c.height));
    EXPECT_EQ(handle_->getView(), listener->view);
    EXPECT_TRUE(handle_->isRunning());
    EXPECT_EQ(handle_->getAppId(), appId);
  }
}

TEST_F(MerinHeadlessRun, RunFailsWithoutAnInstalledPackage) {
  const struct {
    ZMValue options;
    std::string expected;
  } cases[] = {
      {packageOptions("none", std::nullopt), "run failure:game.config.json not found|-1"},
      {packageOptions("bad", "{\"deviceOrientation\": "),
       "run failure:game.config.json is invalid|-1"},
      {packageOptions("array", "[1, 2]"), "run failure:game.config.json is invalid|-1"},
      {ZMValue{{ZM_KEY_RUN_OPT_VERSION, "1"}},
       "run failure:missing run option: _rt_file_app_package_path|-1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    auto listener = std::make_shared<RunListener>();
    run("app", c.options, listener, 1);
    handle_->done();  // joined: anything after the failure would be there now
    EXPECT_EQ(listener->events(), std::vector<std::string>{c.expected});
    EXPECT_FALSE(listener->view);
    EXPECT_FALSE(handle_->isRunning());
    EXPECT_EQ(handle_->getAppId(), std::nullopt);
  }
}

TEST_F(MerinHeadlessRun, ExitEndsOnlyTheRunningGame) {
  EXPECT_EQ(exitGame("app"), std::vector<std::string>{"exit failure:no game running|-1"});

  auto listener = std::make_shared<RunListener>();
  run("app", packageOptions("app", "{}"), listener, 2);
  EXPECT_EQ(exitGame("other"), std::vector<std::string>{"exit failure:no game running|-1"});
  EXPECT_TRUE(handle_->isRunning());
  EXPECT_EQ(exitGame("app"), std::vector<std::string>{"exit success"});
  EXPECT_FALSE(handle_->isRunning());
  EXPECT_EQ(handle_->getView(), nullptr);
  EXPECT_EQ(handle_->getAppId(), "app") << "the last game's id stays";
  EXPECT_EQ(exitGame("app"), std::vector<std::string>{"exit failure:no game running|-1"});
}

TEST_F(MerinHeadlessRun, RequestQuitReachesTheQueryExitListenerWhileAGameRuns) {
  auto quit = std::make_shared<QuitListener>();
  handle_->setOnGameQueryExitListener(quit);

  handle_->requestQuit(ZMValue{{"reason", "before run"}});
  auto listener = std::make_shared<RunListener>();
  run("app", packageOptions("app", "{}"), listener, 2);
  handle_->requestQuit(ZMValue{{"reason", "back button"}});
  ASSERT_TRUE(quit->waitFor(1));
  EXPECT_EQ(exitGame("app"), std::vector<std::string>{"exit success"});
  handle_->requestQuit(ZMValue{{"reason", "after exit"}});
  handle_->done();

  EXPECT_EQ(quit->events(), std::vector<std::string>{R"({"reason":"back button"})"});
  EXPECT_EQ(quit->distinctThreads(), listener->distinctThreads()) << "on the engine thread";
}

TEST_F(MerinHeadlessRun, PermissionCallsReachTheListenerWithTheRunningAppId) {
  auto calls = std::make_shared<EventLog>();
  handle_->setOnGamePermissionListener(std::make_shared<FakePermissions>(calls));  // held strongly

  EXPECT_FALSE(handle_->grantPermissions({"camera"}, {}));
  EXPECT_EQ(handle_->queryPermission("camera"), std::nullopt);
  EXPECT_TRUE(handle_->queryAllPermissions().is_null());
  EXPECT_TRUE(calls->events().empty()) << "no game runs yet";

  auto listener = std::make_shared<RunListener>();
  std::optional<int64_t> answeredDuringLaunch;
  listener->duringSuccess = [&] { answeredDuringLaunch = handle_->queryPermission("location"); };
  run("app", packageOptions("app", "{}"), listener, 2);
  EXPECT_EQ(answeredDuringLaunch, 0) << "a call made on the engine thread runs inline";

  EXPECT_TRUE(handle_->grantPermissions({"camera", "record"}, {"location"}));
  EXPECT_EQ(handle_->queryPermission("camera"), 1);
  EXPECT_EQ(handle_->queryPermission("location"), 2);
  EXPECT_EQ(handle_->queryPermission("userInfo"), 0);
  EXPECT_THROW(handle_->queryPermission("bogus"), std::invalid_argument);
  EXPECT_EQ(handle_->queryAllPermissions(), (ZMValue{{"camera", 1}, {"location", 2}, {"record", 1}}));

  EXPECT_EQ(calls->events(),
            (std::vector<std::string>{"single app location", "update app", "single app camera",
                                      "single app location", "single app userInfo",
                                      "single app bogus", "all app"}));
  EXPECT_EQ(calls->distinctThreads(), listener->distinctThreads()) << "on the engine thread";
}

TEST_F(MerinHeadlessRun, DoneJoinsForgetsTheGameAndLeavesTheHandleUsable) {
  EXPECT_EQ(ZMGameHandle::getInstance(), handle_) << "install() fills the slot";
  EXPECT_STRNE(__watermark_sign, "");
  auto calls = std::make_shared<EventLog>();
  handle_->setOnGamePermissionListener(std::make_shared<FakePermissions>(calls));
  auto first = std::make_shared<RunListener>();
  handle_->runGame({}, "app", packageOptions("app", "{}"), first);
  handle_->done();
  EXPECT_EQ(first->events(), (std::vector<std::string>{"view", "run success"}))
      << "queued work ran before done() returned";
  EXPECT_EQ(handle_->getAppId(), std::nullopt);
  EXPECT_FALSE(handle_->isRunning());

  auto second = std::make_shared<RunListener>();
  run("again", packageOptions("again", "{}"), second, 2);
  EXPECT_EQ(handle_->getAppId(), "again");
  EXPECT_FALSE(handle_->grantPermissions({"camera"}, {})) << "done() dropped the permission store";
  EXPECT_TRUE(calls->events().empty());
}

}  // namespace
