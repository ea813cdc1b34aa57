#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "runtime/ZMGameEventListener.h"
#include "runtime/ZMGameRuntime.h"
#include "runtime/ZMGameRuntime2.h"
#include "storage/ZMDatabaseHelper.h"
#include "support/TestListeners.h"
#include "support/TestRuntime.h"
#include "support/TestSupport.h"

namespace {

namespace fs = std::filesystem;

class ZMGameRuntimeCreate : public ::testing::Test {
 protected:
  void SetUp() override { ZMDatabaseHelper::getInstance().resetForTesting(); }
  void TearDown() override {
    if (auto runtime = ZMZimoGame::getRuntime()) runtime->done();
    ZMDatabaseHelper::getInstance().resetForTesting();
  }
  ScopedSystemDirectories dirs;
};

TEST_F(ZMGameRuntimeCreate, GetInstanceThrowsUntilInitAndAfterDone) {
  const std::string uninitialized = "ZimoRuntime error: uninitialized ZimoGameRuntime";
  EXPECT_EQ(Raised([] { ZMGameRuntime::getInstance(); }), uninitialized);
  auto runtime = ZMGameRuntime::init();
  EXPECT_EQ(ZMGameRuntime::getInstance(), runtime);
  runtime->done();
  EXPECT_EQ(Raised([] { ZMGameRuntime::getInstance(); }), uninitialized);
}

TEST_F(ZMGameRuntimeCreate, DefaultRootsFollowSystemDirectoriesAndExistOnDisk) {
  LogCapture log;
  auto listener = std::make_shared<InitRecorder>();
  ZMZimoGame::initRuntime("u1", ZMValue(), listener);
  ASSERT_EQ(listener->events(), std::vector<std::string>{"onInitializeSuccess"});
  auto runtime = ZMGameRuntime::getInstance();
  EXPECT_EQ(std::dynamic_pointer_cast<ZMGameRuntime>(listener->runtime), runtime);
  EXPECT_EQ(ZMZimoGame::getRuntime(), listener->runtime);
  EXPECT_TRUE(log.contains("root->" + dirs.documents()));

  // Without a cache option the cache root is the temporary directory itself.
  const std::vector<std::string> roots = {runtime->storagePathApp(), runtime->storagePathUser(),
                                          runtime->storagePathCore(), runtime->storagePathCache()};
  EXPECT_EQ(roots, (std::vector<std::string>{dirs.caches() + "/app", dirs.caches() + "/user",
                                             dirs.caches() + "/core", dirs.temporary()}));
  for (const auto& root : roots) EXPECT_TRUE(fs::is_directory(root)) << root;
  EXPECT_TRUE(Exists(dirs.documents() + "/zimo_client_sdk.db"));
  EXPECT_EQ(runtime->getAppPackageDownloadPath("g7", "1.0.2"), dirs.temporary() + "/g7.1.0.2.zgp");
  EXPECT_EQ(runtime->getUserTempDirPath("g7"), dirs.temporary() + "/u1_g7/tmp");
}

TEST_F(ZMGameRuntimeCreate, PathGettersBuildTheLayoutAndCreateOnlyTheirDirectories) {
  TestRuntime t;
  auto& r = *t.runtime;
  EXPECT_EQ(r.getUserDirPath("g7"), t.user() + "/u1_g7");
  EXPECT_EQ(r.getUserCachePath("g7"), t.cache() + "/u1_g7");
  EXPECT_EQ(r.getUserTempDirPath("g7"), t.cache() + "/u1_g7/tmp");
  EXPECT_EQ(r.getUserDataDirPath("g7"), t.user() + "/u1_g7/data");
  EXPECT_EQ(r.getUserLocalStoragePath("g7"), t.user() + "/u1_g7/local_storage.db");
  EXPECT_EQ(r.getRuntimeLocalStoragePath("g7"), t.user() + "/u1_g7/rt_local_storage.db");
  EXPECT_FALSE(Exists(t.user() + "/u1_g7"));

  EXPECT_EQ(r.getAppDirPath("g7"), t.app() + "/g7");
  EXPECT_FALSE(Exists(t.app() + "/g7"));
  EXPECT_EQ(r.getAppDetailFile("g7"), t.app() + "/g7/detail.json");
  EXPECT_TRUE(Exists(t.app() + "/g7"));
  EXPECT_FALSE(Exists(t.app() + "/g7/detail.json"));
  EXPECT_EQ(r.getAppPackageDir("g7", "1.0.2"), t.app() + "/g7/1.0.2");
  EXPECT_TRUE(Exists(t.app() + "/g7/1.0.2"));
  EXPECT_EQ(r.getAppPackageDownloadPath("g7", "1.0.2"), t.cache() + "/g7.1.0.2.zgp");

  // A getter whose directory cannot be made logs and still answers.
  WriteFile(t.app() + "/blocked", "x");
  LogCapture log;
  EXPECT_EQ(r.getAppDir("blocked"), t.app() + "/blocked");
  EXPECT_TRUE(log.contains(t.app() + "/blocked is a file"));
}

TEST_F(ZMGameRuntimeCreate, RootThatIsAFileReachesOnInitializeFailure) {
  WriteFile(dirs.root() / "core-file", "x");
  auto listener = std::make_shared<InitRecorder>();
  ZMZimoGame::initRuntime("u1", {{ZM_KEY_STORAGE_PATH_CORE, dirs.root() / "core-file"}},
                          listener);
  ASSERT_EQ(listener->events(),
            std::vector<std::string>{"onInitializeFailure:NSInvalidArgumentException|" +
                                     (dirs.root() / "core-file") + " is a file"});
  // The app root comes before core and was created; the runtime stays held.
  EXPECT_TRUE(Exists(dirs.caches() + "/app"));
  EXPECT_NE(ZMZimoGame::getRuntime(), nullptr);
}

TEST_F(ZMGameRuntimeCreate, UnopenableStoreGivesExactlyOneFailure) {
  ::mkdir(dirs.documents().c_str(), 0700);
  ::mkdir((dirs.documents() + "/zimo_client_sdk.db").c_str(), 0700);  // a directory, not a file
  auto listener = std::make_shared<InitRecorder>();
  ZMZimoGame::initRuntime("u1", ZMValue(), listener);
  EXPECT_EQ(listener->events(),
            std::vector<std::string>{"onInitializeFailure:init fail|create database error"});
  auto runtime = ZMGameRuntime::getInstance();
  EXPECT_EQ(runtime->userId(), "u1");
  EXPECT_NE(runtime->permissionListener(), nullptr);
  EXPECT_TRUE(runtime->storagePathApp().empty());
  EXPECT_EQ(runtime->gameRuntime2(), nullptr);
}

TEST_F(ZMGameRuntimeCreate, SecondInitEndsTheFirstRuntime) {
  auto first = std::make_shared<InitRecorder>();
  ZMZimoGame::initRuntime("u1", ZMValue(), first);
  auto firstRuntime = ZMGameRuntime::getInstance();
  auto second = std::make_shared<InitRecorder>();
  ZMZimoGame::initRuntime("u2", ZMValue(), second);
  EXPECT_NE(ZMGameRuntime::getInstance(), firstRuntime);
  EXPECT_EQ(ZMGameRuntime::getInstance()->userId(), "u2");
  EXPECT_EQ(ZMZimoGame::getRuntime(), second->runtime);
}

TEST_F(ZMGameRuntimeCreate, UserIdThatWouldLeaveTheRootsIsRefused) {
  auto listener = std::make_shared<InitRecorder>();
  ZMZimoGame::initRuntime("../escape", ZMValue(), listener);
  EXPECT_EQ(listener->events(),
            std::vector<std::string>{"onInitializeFailure:init fail|invalid user id"});
  EXPECT_FALSE(Exists(dirs.caches() + "/app"));
}

// A game-event receiver that objects to event 0, as a plug-in manager whose root is unusable.
struct ObjectingListener : ZMGameEventListener {
  std::vector<int32_t> events;
  std::optional<ZMError> onGameEvent(int32_t event, ZMValue&) override {
    events.push_back(event);
    return ZMError("plugin root unusable", 0, ZMValue{{"why", "test"}});
  }
};

TEST(ZMGameRuntime2, EventBroadcastStopsAtFirstErrorAndInitErrorBecomesAFailure) {
  auto first = std::make_shared<ObjectingListener>();
  auto second = std::make_shared<ObjectingListener>();
  auto listener = std::make_shared<InitRecorder>();
  ZMValue options = ZMValue::object();
  auto bridge = ZMGameRuntime2::initWithUserId("u1", options, listener, {first, second});
  EXPECT_EQ(first->events, std::vector<int32_t>{0});
  EXPECT_TRUE(second->events.empty());
  ASSERT_TRUE(listener->failure);
  EXPECT_EQ(listener->failure->name(), "plugin root unusable");
  EXPECT_FALSE(listener->failure->reason());
  EXPECT_EQ(listener->failure->userInfo(), (ZMValue{{"why", "test"}}));

  // Without receivers an event returns nothing; only "plugin_manager" names a manager.
  auto empty = ZMGameRuntime2::initWithUserId("u1", options, nullptr);
  EXPECT_FALSE(empty->_onGameEvent(0, options));
  EXPECT_EQ(empty->getManager("other", ZMValue()), nullptr);
}

}  // namespace
