#include "support/TestRuntime.h"

#include <gtest/gtest.h>

#include "merin/MerinGameHandle.h"
#include "storage/ZMDatabaseHelper.h"
#include "support/TestZip.h"

TestRuntime::TestRuntime(const std::string& userId) {
  ZMDatabaseHelper::getInstance().resetForTesting();
  MerinGameHandle::install();
  switchUser(userId);
}

TestRuntime::~TestRuntime() {
  if (runtime) runtime->done();
  DrainMainQueue();
  ZMGameHandle::setInstance(nullptr);
  ZMDatabaseHelper::getInstance().resetForTesting();
}

ZMValue TestRuntime::options() const {
  ZMValue options = {{ZM_KEY_STORAGE_PATH_APP, app()},
                     {ZM_KEY_STORAGE_PATH_USER, user()},
                     {ZM_KEY_STORAGE_PATH_CACHE, cache()},
                     {ZM_KEY_STORAGE_PATH_CORE, root() + "/core"},
                     {ZM_KEY_STORAGE_PATH_PLUGIN, plugin()}};
  options.update(extraOptions);
  return options;
}

void TestRuntime::switchUser(const std::string& userId) {
  init = std::make_shared<InitRecorder>();
  ZMZimoGame::initRuntime(userId, options(), init);
  runtime = std::dynamic_pointer_cast<ZMGameRuntime>(ZMZimoGame::getRuntime());
  ASSERT_TRUE(runtime);
  ASSERT_EQ(init->events(), std::vector<std::string>{"onInitializeSuccess"});
}

bool TestRuntime::install(const std::string& appId, const std::string& version,
                          const std::string& packagePath, const std::string& extend) {
  auto listener = std::make_shared<InstallRecorder>();
  ZMValue options = {{ZM_KEY_GAME_PACKAGE_APP_ID, appId},
                     {ZM_KEY_GAME_PACKAGE_VERSION, version},
                     {ZM_KEY_GAME_PACKAGE_PATH, packagePath}};
  if (!extend.empty()) options[ZM_KEY_GAME_PACKAGE_EXTEND_DATA] = extend;
  runtime->installGamePackage(options, listener);
  RunUntil([&] { return listener->size() >= 2; });
  return listener->last() == "onInstallSuccess";
}

bool TestRuntime::installGame(const std::string& appId, const std::string& version,
                              const std::string& config) {
  const std::string package = root() + "/" + appId + "-" + version + ".zip";
  MakeGamePackage(package, config, {{"main.js", "console.log('" + appId + "');"}});
  return install(appId, version, package);
}

std::string TestRuntime::checkVersion(const std::string& appId,
                                      const std::optional<std::string>& version) {
  auto listener = std::make_shared<CheckRecorder>();
  ZMValue options = {{ZM_KEY_GAME_PACKAGE_APP_ID, appId}};
  if (version) options[ZM_KEY_GAME_PACKAGE_VERSION] = *version;
  runtime->checkGameVersion(options, listener);
  EXPECT_TRUE(RunUntil([&] { return listener->size() >= 2; }));
  EXPECT_EQ(listener->events().front(), "onCheckVersionStart");
  return listener->last();
}
