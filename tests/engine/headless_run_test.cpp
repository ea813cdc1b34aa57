#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <stdexcept>

#include "merin/MerinGameHandle.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"
#include "tavo/ZMOptionKeys.h"

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
    return values_.contains(permission) ? values_[permission] : 0;
  }
  ZMValue getAllPermission(const std::string& appId) override {
    calls_->add("all " + appId);
    return ZMValue(values_);
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
    std::filesystem::create_directories(dir);
    if (config) WriteFile(dir + "/game.config.json", *config);
    return ZMValue{{ZM_SYSTEM_KEY_FILE_APP_PACKAGE_PATH, dir}, {ZM_KEY_RUN_OPT_VERSION, "1"}};
  }
  // Runs and waits until the listener has `events` events.
  std::shared_ptr<RunListener> run(const std::string& appId, const ZMValue& options,
                                   size_t events, std::shared_ptr<RunListener> listener = nullptr) {
    if (!listener) listener = std::make_shared<RunListener>();
    handle_->runGame({}, appId, options, listener);
    EXPECT_TRUE(listener->waitFor(events));
    return listener;
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
  for (const auto& [config, orientation, width, height] :
       {std::tuple<std::string, std::string, int, int>{"{}", "landscape", 1280, 720},
        {R"({"deviceOrientation": "portrait"})", "portrait", 720, 1280}}) {
    const std::string appId = "app-" + orientation;
    auto listener = run(appId, packageOptions(appId, config), 2);
    EXPECT_EQ(listener->events(), (std::vector<std::string>{"view", "run success"}));
    EXPECT_EQ(listener->distinctThreads().count(std::this_thread::get_id()), 0u);
    ASSERT_TRUE(listener->view);
    const MerinGameView& v = *listener->view;
    EXPECT_EQ(std::tie(v.appId, v.orientation, v.width, v.height),
              std::tie(appId, orientation, width, height));
    EXPECT_EQ(handle_->getView(), listener->view);
    EXPECT_EQ(handle_->getAppId(), appId);
  }
}

TEST_F(MerinHeadlessRun, RunFailsWithoutAReadableConfiguration) {
  for (const auto& [options, expected] : std::vector<std::pair<ZMValue, std::string>>{
           {packageOptions("none", std::nullopt), "run failure:game.config.json not found|-1"},
           {packageOptions("bad", "{\"deviceOrientation\": "),
            "run failure:game.config.json is invalid|-1"},
           {packageOptions("array", "[1, 2]"), "run failure:game.config.json is invalid|-1"},
           {ZMValue{{ZM_KEY_RUN_OPT_VERSION, "1"}},
            "run failure:missing run option: _rt_file_app_package_path|-1"}}) {
    auto listener = run("app", options, 1);
    handle_->done();  // joined: anything after the failure would be there now
    EXPECT_EQ(listener->events(), std::vector<std::string>{expected});
    EXPECT_FALSE(handle_->isRunning());
  }
}

TEST_F(MerinHeadlessRun, ExitEndsOnlyTheRunningGame) {
  const std::vector<std::string> noGame{"exit failure:no game running|-1"};
  EXPECT_EQ(exitGame("app"), noGame);
  run("app", packageOptions("app", "{}"), 2);
  EXPECT_EQ(exitGame("other"), noGame);
  EXPECT_TRUE(handle_->isRunning());
  EXPECT_EQ(exitGame("app"), std::vector<std::string>{"exit success"});
  EXPECT_FALSE(handle_->isRunning());
  EXPECT_EQ(handle_->getView(), nullptr);
  EXPECT_EQ(exitGame("app"), noGame);
}

TEST_F(MerinHeadlessRun, PermissionCallsReachTheStoreOnTheEngineThreadWhileAGameRuns) {
  auto calls = std::make_shared<EventLog>();
  handle_->setOnGamePermissionListener(std::make_shared<FakePermissions>(calls));  // held strongly
  EXPECT_FALSE(handle_->grantPermissions({"camera"}, {}));
  EXPECT_EQ(handle_->queryPermission("camera"), std::nullopt);
  EXPECT_TRUE(handle_->queryAllPermissions().is_null());

  auto listener = std::make_shared<RunListener>();
  std::optional<int64_t> answeredDuringLaunch;
  listener->duringSuccess = [&] { answeredDuringLaunch = handle_->queryPermission("location"); };
  run("app", packageOptions("app", "{}"), 2, listener);
  EXPECT_EQ(answeredDuringLaunch, 0) << "a call made on the engine thread runs inline";

  EXPECT_TRUE(handle_->grantPermissions({"camera"}, {"location"}));
  EXPECT_EQ(handle_->queryAllPermissions(), (ZMValue{{"camera", 1}, {"location", 2}}));
  EXPECT_THROW(handle_->queryPermission("bogus"), std::invalid_argument);
  EXPECT_EQ(calls->events(), (std::vector<std::string>{"single app location", "update app",
                                                       "all app", "single app bogus"}));
  EXPECT_EQ(calls->distinctThreads(), listener->distinctThreads());
}

TEST_F(MerinHeadlessRun, DoneFinishesQueuedWorkAndLeavesTheHandleUsable) {
  EXPECT_EQ(ZMGameHandle::getInstance(), handle_) << "install() fills the slot";
  auto first = std::make_shared<RunListener>();
  handle_->runGame({}, "app", packageOptions("app", "{}"), first);
  handle_->done();
  EXPECT_EQ(first->events(), (std::vector<std::string>{"view", "run success"}));
  EXPECT_EQ(handle_->getAppId(), std::nullopt);
  run("again", packageOptions("again", "{}"), 2);
  EXPECT_EQ(handle_->getAppId(), "again");
}

}  // namespace
