// minimal_host: the smallest libtavo host. It starts the runtime with every file under ROOT,
// installs a game package from a zip file and checks that the installed version is the one
// asked for.
//
//   minimal_host ROOT PACKAGE.zip [APP_ID [VERSION]]
//
// Exit status 0 when both the install and the version check succeed.
#include <chrono>
#include <iostream>
#include <memory>
#include <string>

#include "merin/MerinGameHandle.h"
#include "tavo/tavo.h"

namespace {

// libtavo reports every operation through a listener. The host owns its listeners and keeps
// them alive (libtavo holds them weakly); the callbacks used here arrive on the main queue, on
// the thread that drains it, so plain fields are enough.
struct InitListener : ZMRuntimeInitListener {
  std::shared_ptr<ZMZimoGameRuntime> runtime;
  std::string failure;
  void onInitializeSuccess(std::shared_ptr<ZMZimoGameRuntime> r) override { runtime = r; }
  void onInitializeFailure(const ZMException& e) override { failure = e.what(); }
};

// What a host waits for: the end of one operation, and why it failed.
struct Outcome {
  bool finished = false;
  std::string failure;
  void succeed() { finished = true; }
  void fail(const ZMError& e) {
    finished = true;
    failure = e.description();
  }
};

struct InstallListener : ZMPackageInstallListener, Outcome {
  void onInstallStart() override { std::cout << "install: started\n"; }
  void onInstallSuccess() override { succeed(); }
  void onInstallFailure(const ZMError& e) override { fail(e); }
};

struct CheckListener : ZMPackageCheckVersionListener, Outcome {
  void onCheckVersionStart(const ZMValue&) override {}
  void onCheckVersionSuccess() override { succeed(); }
  void onCheckVersionFailure(const ZMError& e) override { fail(e); }
};

// A host with a user interface drains the main queue from its own loop (ZMMainQueue::poll and
// setWakeupHook); a command-line host can simply run it until the listener has its answer.
// Returns an empty text on success, else what went wrong.
std::string waitFor(const Outcome& outcome) {
  if (!ZMMainQueue::runUntil([&] { return outcome.finished; }, std::chrono::seconds(60))) {
    return "no answer within 60 s";
  }
  return outcome.failure;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || argc > 5) {
    std::cerr << "usage: minimal_host ROOT PACKAGE.zip [APP_ID [VERSION]]\n";
    return 2;
  }
  const std::string root = argv[1];
  const std::string package = argv[2];
  const std::string appId = argc > 3 ? argv[3] : "minimal.game";
  const std::string version = argc > 4 ? argv[4] : "1.0.0";

  // 1. The engine: libtavo unzips and runs games through the ZMGameHandle in its slot.
  MerinGameHandle::install();

  // 2. Storage: the record store (Documents), installed games (Caches) and the package cache
  //    (tmp) all go under ROOT; the plug-in root is an initRuntime option.
  ZMSystemDirectories::setDocumentsDirectory(root + "/Documents");
  ZMSystemDirectories::setCachesDirectory(root + "/Caches");
  ZMSystemDirectories::setTemporaryDirectory(root + "/tmp");
  const ZMValue options = {{ZM_KEY_STORAGE_PATH_PLUGIN, root + "/Caches/plugin"}};

  // 3. The runtime: initRuntime reports before it returns.
  auto init = std::make_shared<InitListener>();
  ZMZimoGame::initRuntime("minimal-host-user", options, init);
  if (!init->runtime || !init->failure.empty()) {
    std::cerr << "runtime: could not start: " << init->failure << "\n";
    return 1;
  }
  auto runtime = init->runtime;
  std::cout << "runtime: libtavo " << runtime->getVersionInfo().value_or("?") << "\n";

  // 4. Install the package. libtavo deletes the zip file once it is installed.
  const ZMValue game = {{ZM_KEY_GAME_PACKAGE_APP_ID, appId},
                        {ZM_KEY_GAME_PACKAGE_VERSION, version}};
  ZMValue install = game;
  install[ZM_KEY_GAME_PACKAGE_PATH] = package;
  auto installed = std::make_shared<InstallListener>();
  runtime->installGamePackage(install, installed);
  const std::string installError = waitFor(*installed);
  std::cout << "install: " << (installError.empty() ? "done" : "failed: " + installError) << "\n";

  // 5. Ask whether that version of the game is the installed one.
  auto checked = std::make_shared<CheckListener>();
  runtime->checkGameVersion(game, checked);
  const std::string checkError = waitFor(*checked);
  std::cout << "check " << appId << " " << version << ": "
            << (checkError.empty() ? "installed" : "failed: " + checkError) << "\n";

  // 6. End the runtime: it cancels what is left and stops the engine.
  runtime->done();
  return installError.empty() && checkError.empty() ? 0 : 1;
}
