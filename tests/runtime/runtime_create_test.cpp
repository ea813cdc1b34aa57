#include <gtest/gtest.h>

#include <filesystem>

#include "runtime/ZMGameRuntime.h"
#include "storage/ZMDatabaseHelper.h"
#include "support/TestRuntime.h"
#include "util/ZMTaskGroup.h"

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

TEST_F(ZMGameRuntimeCreate, DefaultRootsFollowSystemDirectoriesAndASecondInitEndsTheFirst) {
  const std::string uninitialized = "ZimoRuntime error: uninitialized ZimoGameRuntime";
  EXPECT_EQ(Raised([] { ZMGameRuntime::getInstance(); }), uninitialized);
  LogCapture log;
  auto listener = std::make_shared<InitRecorder>();
  ZMZimoGame::initRuntime("u1", ZMValue(), listener);
  ASSERT_EQ(listener->events(), std::vector<std::string>{"onInitializeSuccess"});
  auto runtime = ZMGameRuntime::getInstance();
  EXPECT_EQ(std::dynamic_pointer_cast<ZMGameRuntime>(listener->runtime), runtime);
  EXPECT_TRUE(log.contains("root->" + dirs.documents()));

  // Without a cache option the cache root is the temporary directory itself.
  const auto& layout = *runtime->layout();
  const std::vector<std::string> roots = {layout.app, layout.user, layout.core, layout.cache};
  EXPECT_EQ(roots, (std::vector<std::string>{dirs.caches() + "/app", dirs.caches() + "/user",
                                             dirs.caches() + "/core", dirs.temporary()}));
  for (const auto& root : roots) EXPECT_TRUE(fs::is_directory(root)) << root;
  // The plug-in manager made its root at the init event.
  EXPECT_TRUE(fs::is_directory(dirs.caches() + "/plugin"));
  EXPECT_TRUE(Exists(dirs.documents() + "/zimo_client_sdk.db"));

  // A second init ends the first runtime before it builds its own: its tasks can no longer start.
  auto second = std::make_shared<InitRecorder>();
  ZMZimoGame::initRuntime("u2", ZMValue(), second);
  EXPECT_TRUE(runtime->tasks()->hasEnded());
  EXPECT_EQ(ZMZimoGame::getRuntime(), second->runtime);
  EXPECT_NE(second->runtime->getManager("plugin_manager", ZMValue()),
            runtime->getManager("plugin_manager", ZMValue()));
  second->runtime->done();
  EXPECT_EQ(Raised([] { ZMGameRuntime::getInstance(); }), uninitialized);
}

// Each reaches the host as exactly one failure, and the runtime stays held.
TEST_F(ZMGameRuntimeCreate, InitFailuresReachTheHostOnce) {
  const auto failure = [](const std::string& user, const ZMValue& options) {
    auto listener = std::make_shared<InitRecorder>();
    ZMZimoGame::initRuntime(user, options, listener);
    EXPECT_NE(ZMZimoGame::getRuntime(), nullptr);
    return listener->events();
  };
  using Events = std::vector<std::string>;
  EXPECT_EQ(failure("../escape", ZMValue()),
            Events{"onInitializeFailure:init fail|invalid user id"});
  EXPECT_FALSE(Exists(dirs.caches() + "/app")) << "nothing is made for a user id that is refused";
  // The core root is made by the runtime, the plug-in root by its manager at the init event.
  for (const char* key : {ZM_KEY_STORAGE_PATH_CORE, ZM_KEY_STORAGE_PATH_PLUGIN}) {
    const std::string file = dirs.root() / key;
    WriteFile(file, "x");
    EXPECT_EQ(failure("u1", {{key, file}}),
              Events{"onInitializeFailure:NSInvalidArgumentException|" + file + " is a file"});
  }
  fs::remove(dirs.documents() + "/zimo_client_sdk.db");
  WriteFile(dirs.documents() + "/zimo_client_sdk.db/inside", "");  // a directory, not a file
  EXPECT_EQ(failure("u1", ZMValue()),
            Events{"onInitializeFailure:init fail|create database error"});
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
  struct Case {
    ZMValue keys;
    std::string event;  // refusals name the first entry that is no key
    bool required;
  };
  for (const auto& c : std::vector<Case>{
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
    auto listener = std::make_shared<InitRecorder>();
    ZMZimoGame::initRuntime("u1", {{ZM_KEY_PACKAGE_TRUSTED_KEYS, c.keys}}, listener);
    EXPECT_EQ(listener->events(), std::vector<std::string>{c.event}) << c.keys;
    if (listener->runtime) {
      const auto runtime = std::dynamic_pointer_cast<ZMGameRuntime>(listener->runtime);
      EXPECT_EQ(runtime->layout()->packageTrust.requiresSignatures(), c.required) << c.keys;
    }
  }
}

}  // namespace
