#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
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

// A permission store that notes each call in `calls` and answers from fixed values.
struct FakePermissions : ZMCorePermissionListener {
  std::shared_ptr<EventLog> calls = std::make_shared<EventLog>();
  using Names = std::optional<std::vector<std::string>>;
  void updatePermission(const std::string& appId, const std::vector<std::string>& granted,
                        const std::vector<std::string>& denied) override {
    calls->note("update", appId, Names(granted), Names(denied));
  }
  int64_t getSinglePermission(const std::string& appId, const std::string& permission) override {
    calls->note("single", appId, permission);
    if (permission == "bogus") throw std::invalid_argument("unknown permission");
    return 2;
  }
  ZMValue getAllPermission(const std::string& appId) override {
    calls->note("all", appId);
    return ZMValue{{"camera", 1}};
  }
};

class MerinHeadlessRun : public ::testing::Test {
 protected:
  ~MerinHeadlessRun() override { ZMGameHandle::setInstance(nullptr); }

  // A version directory holding `config` as game.config.json (none when null).
  ZMValue packageOptions(const std::string& name, const std::optional<std::string>& config) {
    const std::string dir = dir_ / name;
    std::filesystem::create_directories(dir);
    if (config) WriteFile(dir + "/game.config.json", *config);
    return ZMValue{{ZM_SYSTEM_KEY_FILE_APP_PACKAGE_PATH, dir}, {ZM_KEY_RUN_OPT_VERSION, "1"}};
  }
  // Starts a game with `config` and waits for its view and run success.
  std::shared_ptr<RunListener> run(const std::string& appId, const std::string& config,
                                   std::shared_ptr<RunListener> listener = nullptr) {
    if (!listener) listener = std::make_shared<RunListener>();
    handle_->runGame({}, appId, packageOptions(appId, config), listener);
    EXPECT_TRUE(listener->waitFor(2));
    return listener;
  }
  std::vector<std::string> exitGame(const std::string& appId) {
    auto listener = std::make_shared<RunListener>();
    handle_->exitGame(appId, listener);
    EXPECT_TRUE(listener->waitFor(1));
    return listener->events();
  }

  TempDir dir_;
  std::shared_ptr<MerinGameHandle> handle_ = MerinGameHandle::install();
};

TEST_F(MerinHeadlessRun, RunShowsAViewSizedByOrientationAndExitEndsOnlyThatGame) {
  const std::vector<std::string> noGame{"exit failure:no game running|-1"};
  EXPECT_EQ(exitGame("app-landscape"), noGame);
  for (const auto& [config, orientation, width, height] :
       {std::tuple<std::string, std::string, int, int>{"{}", "landscape", 1280, 720},
        {R"({"deviceOrientation": "portrait"})", "portrait", 720, 1280}}) {
    const std::string appId = "app-" + orientation;
    auto listener = run(appId, config);
    EXPECT_EQ(listener->events(), (std::vector<std::string>{"view", "run success"}));
    EXPECT_EQ(listener->distinctThreads().count(std::this_thread::get_id()), 0u);
    ASSERT_TRUE(listener->view);
    const MerinGameView& v = *listener->view;
    EXPECT_EQ(std::tie(v.appId, v.orientation, v.width, v.height),
              std::tie(appId, orientation, width, height));
    EXPECT_EQ(handle_->getView(), listener->view);
    EXPECT_EQ(handle_->getAppId(), appId);

    EXPECT_EQ(exitGame("other"), noGame);
    EXPECT_TRUE(handle_->isRunning());
    EXPECT_EQ(exitGame(appId), std::vector<std::string>{"exit success"});
    EXPECT_FALSE(handle_->isRunning());
    EXPECT_EQ(handle_->getView(), nullptr);
  }
}

TEST_F(MerinHeadlessRun, RunNeedsAReadableConfigurationAndDoneFinishesTheQueue) {
  const ZMValue fifo = packageOptions("fifo", std::nullopt);
  ASSERT_EQ(::mkfifo((dir_ / "fifo/game.config.json").c_str(), 0600), 0);
  for (const auto& [options, expected] : std::vector<std::pair<ZMValue, std::string>>{
           // Without a configuration, the defaults, as the runtime has them.
           {packageOptions("none", std::nullopt), "run success"},
           {fifo, "run failure:game.config.json is unreadable|-1"},
           {packageOptions("bad", "{\"deviceOrientation\": "),
            "run failure:game.config.json is invalid|-1"},
           {packageOptions("array", "[1, 2]"), "run failure:game.config.json is invalid|-1"},
           {ZMValue{{ZM_KEY_RUN_OPT_VERSION, "1"}},
            "run failure:missing run option: _rt_file_app_package_path|-1"},
           {packageOptions("fine", "{}"), "run success"}}) {
    auto listener = std::make_shared<RunListener>();
    handle_->runGame({}, "app", options, listener);
    // Finishes the queued run and joins the engine (it starts again for the next one), so
    // anything after the outcome would be there now; the game is forgotten.
    handle_->done();
    EXPECT_EQ(listener->last(), expected);
    EXPECT_EQ(listener->size(), expected == "run success" ? 2u : 1u);
    EXPECT_FALSE(handle_->isRunning());
  }
}

TEST_F(MerinHeadlessRun, PermissionCallsReachTheStoreOnTheEngineThreadWhileAGameRuns) {
  auto permissions = std::make_shared<FakePermissions>();
  const auto calls = permissions->calls;
  handle_->setOnGamePermissionListener(std::move(permissions));  // the handle holds it strongly
  EXPECT_FALSE(handle_->grantPermissions({"camera"}, {}));
  EXPECT_EQ(handle_->queryPermission("camera"), std::nullopt);
  EXPECT_TRUE(handle_->queryAllPermissions().is_null());

  auto listener = std::make_shared<RunListener>();
  std::optional<int64_t> answeredDuringLaunch;
  listener->duringSuccess = [&] { answeredDuringLaunch = handle_->queryPermission("location"); };
  run("app", "{}", listener);
  EXPECT_EQ(answeredDuringLaunch, 2) << "a call made on the engine thread runs inline";

  EXPECT_TRUE(handle_->grantPermissions({"camera"}, {"location"}));
  EXPECT_EQ(handle_->queryAllPermissions(), (ZMValue{{"camera", 1}}));
  EXPECT_THROW(handle_->queryPermission("bogus"), std::invalid_argument);
  EXPECT_EQ(calls->events(),
            (std::vector<std::string>{"single:app|location", "update:app|[camera]|[location]",
                                      "all:app", "single:app|bogus"}));
  EXPECT_EQ(calls->distinctThreads(), listener->distinctThreads());
}

}  // namespace
