// cycle_host: a host that walks a game through the whole cycle: check, download, install, its
// plug-ins, run, quit request and exit, records, sweep and removal. The cycle runs on a worker
// thread that waits on libtavo's futures while the main thread drains the main queue.
//   cycle_host ROOT APP_ID VERSION URL MD5 [PLUGIN_SERVICE]
#include <atomic>
#include <chrono>
#include <future>
#include <iostream>
#include <string>
#include <thread>

#include "merin/MerinGameHandle.h"
#include "tavo/tavo.h"

using namespace std::chrono_literals;

int main(int argc, char** argv) {
  if (argc < 6) {
    std::cerr << "usage: cycle_host ROOT APP_ID VERSION URL MD5 [PLUGIN_SERVICE]\n";
    return 2;
  }
  const std::string root = argv[1], appId = argv[2], version = argv[3];
  MerinGameHandle::install();
  ZMSystemDirectories::setDocumentsDirectory(root + "/Documents");
  ZMSystemDirectories::setCachesDirectory(root + "/Caches");
  ZMSystemDirectories::setTemporaryDirectory(root + "/tmp");
  std::shared_ptr<ZMZimoGameRuntime> runtime;
  ZMZimoGame::initRuntime("cycle-user", ZMValue::object(),
                          tavo::initListener({.onSuccess = [&](auto r) { runtime = r; }}));
  if (!runtime) return 1;
  auto plugins = runtime->getManager("plugin_manager", ZMValue::object());
  if (argc > 6) plugins->setPluginServiceHosts({argv[6]});
  // The quit request comes on the engine's thread: the promise hands it to the worker.
  std::promise<void> quitAsked;
  auto queryExit = tavo::queryExitListener([&](auto&, auto&) { quitAsked.set_value(); });
  runtime->setGameQueryExitListener(queryExit);

  const ZMValue game = {{ZM_KEY_GAME_PACKAGE_APP_ID, appId},
                        {ZM_KEY_GAME_PACKAGE_VERSION, version}};
  std::atomic<bool> finished{false};
  int status = 1;
  std::thread cycle([&] {
    try {
      try {
        tavo::checkGameVersion(runtime, game).get();
      } catch (const ZMError&) {  // not installed: download and install it
        ZMValue options = game;
        options[ZM_KEY_GAME_PACKAGE_URL] = argv[4];
        options[ZM_KEY_GAME_PACKAGE_HASH] = argv[5];
        options[ZM_KEY_GAME_PACKAGE_PATH] = tavo::downloadGamePackage(runtime, options).get();
        tavo::installGamePackage(runtime, options).get();
      }
      std::shared_ptr<ZMZimoGameConfig> config;
      ZMMainQueue::sync([&] { config = runtime->getGameConfig(game); });
      for (const auto& plugin : config ? config->plugins() : ZMValue::array()) {
        try {
          tavo::checkPluginVersion(plugins, plugin).get();
        } catch (const ZMError&) {
          tavo::installPlugin(plugins, plugin).get();
        }
      }
      tavo::runGame(runtime, nullptr, appId, {{ZM_KEY_RUN_OPT_VERSION, version}}).get();
      std::static_pointer_cast<MerinGameHandle>(ZMGameHandle::getInstance())->requestQuit({});
      quitAsked.get_future().wait_for(10s);
      tavo::exitGame(runtime, appId).get();
      tavo::setGameData(runtime, appId, {{"extend", "level 3"}}).get();
      std::cout << "games: " << tavo::listGame(runtime).get().dump() << "\n";
      tavo::checkFileAvailability(runtime, {{ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY, {"zgp"}},
                                            {ZM_KEY_CHECK_FILE_KEEP_TIME, 1440}})
          .get();
      tavo::removeGameList(runtime, {appId}).get();
      status = 0;
    } catch (const ZMError& error) {
      std::cerr << error.description() << "\n";
    }
    finished = true;
  });
  ZMMainQueue::runUntil([&] { return finished.load(); }, 10min);
  cycle.join();
  queryExit->release();
  runtime->done();
  return status;
}
