// minimal_host: the smallest libtavo host. It starts the runtime with every file under ROOT,
// installs a game package from a zip file and checks that the installed version is the one
// asked for: the install with a lambda adapter on this thread, the check with a future that a
// worker thread waits on.
//
//   minimal_host ROOT PACKAGE.zip [APP_ID [VERSION]]
//
// Exit status 0 when both the install and the version check succeed.
#include <atomic>
#include <chrono>
#include <future>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

#include "merin/MerinGameHandle.h"
#include "tavo/tavo.h"

using namespace std::chrono_literals;

int main(int argc, char** argv) {
  if (argc < 3 || argc > 5) {
    std::cerr << "usage: minimal_host ROOT PACKAGE.zip [APP_ID [VERSION]]\n";
    return 2;
  }
  const std::string root = argv[1];
  const std::string package = argv[2];
  const std::string appId = argc > 3 ? argv[3] : "minimal.game";
  const std::string version = argc > 4 ? argv[4] : "1.0.0";

  // 1. The engine: loading libmerin fills libtavo's engine slot; install() also keeps the link.
  MerinGameHandle::install();

  // 2. Storage: the record store (Documents), installed games (Caches) and the package cache
  //    (tmp) all go under ROOT; the plug-in root is an initRuntime option.
  ZMSystemDirectories::setDocumentsDirectory(root + "/Documents");
  ZMSystemDirectories::setCachesDirectory(root + "/Caches");
  ZMSystemDirectories::setTemporaryDirectory(root + "/tmp");
  const ZMValue options = {{ZM_KEY_STORAGE_PATH_PLUGIN, root + "/Caches/plugin"}};

  // 3. The runtime: initRuntime reports before it returns (a failure may precede a success).
  std::shared_ptr<ZMZimoGameRuntime> runtime;
  ZMZimoGame::initRuntime(
      "minimal-host-user", options,
      tavo::initListener({
          .onSuccess = [&](auto r) { runtime = r; },
          .onFailure = [](const ZMException& e) { std::cerr << "runtime: " << e.what() << "\n"; },
      }));
  if (!runtime) return 1;
  std::cout << "runtime: libtavo " << runtime->getVersionInfo().value_or("?") << "\n";

  // 4. Install the package with a lambda adapter: it keeps itself alive until its last
  //    callback, which arrives on the main queue that runUntil drains on this thread.
  //    libtavo deletes the zip file once it is installed.
  const ZMValue game = {{ZM_KEY_GAME_PACKAGE_APP_ID, appId},
                        {ZM_KEY_GAME_PACKAGE_VERSION, version}};
  ZMValue install = game;
  install[ZM_KEY_GAME_PACKAGE_PATH] = package;
  bool finished = false;
  std::string installError;
  runtime->installGamePackage(install, tavo::installListener({
                                           .onStart = [] { std::cout << "install: started\n"; },
                                           .onSuccess = [&] { finished = true; },
                                           .onFailure =
                                               [&](const ZMError& e) {
                                                 installError = e.description();
                                                 finished = true;
                                               },
                                       }));
  if (!ZMMainQueue::runUntil([&] { return finished; }, 60s)) installError = "no answer within 60 s";
  std::cout << "install: " << (installError.empty() ? "done" : "failed: " + installError) << "\n";

  // 5. Ask whether that version is the installed one with a future: a worker thread waits for
  //    it while this thread keeps draining the main queue.
  std::atomic<bool> checkDone{false};
  std::string checkError;
  std::thread worker([&] {
    auto checked = tavo::checkGameVersion(runtime, game);
    if (checked.wait_for(60s) != std::future_status::ready) {
      checkError = "no answer within 60 s";
    } else {
      try {
        checked.get();
      } catch (const ZMError& e) {
        checkError = e.description();
      }
    }
    checkDone = true;
  });
  ZMMainQueue::runUntil([&] { return checkDone.load(); }, 70s);
  worker.join();
  std::cout << "check " << appId << " " << version << ": "
            << (checkError.empty() ? "installed" : "failed: " + checkError) << "\n";

  // 6. End the runtime: it cancels what is left and stops the engine.
  runtime->done();
  return installError.empty() && checkError.empty() ? 0 : 1;
}
