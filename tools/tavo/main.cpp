// tavo: a command-line host for libtavo, built on the public headers only.

#include <CLI/CLI.hpp>
#include <iostream>
#include <string>

#include "merin/MerinGameHandle.h"
#include "tavo/tavo.h"

namespace {

// Puts every storage root and system directory under `root`, so that state persists from one
// invocation to the next; an empty root keeps the XDG defaults.
ZMValue useRoot(const std::string& root) {
  if (root.empty()) return ZMValue::object();
  ZMSystemDirectories::setDocumentsDirectory(root + "/Documents");
  ZMSystemDirectories::setCachesDirectory(root + "/Caches");
  ZMSystemDirectories::setTemporaryDirectory(root + "/tmp");
  return {{ZM_KEY_STORAGE_PATH_PLUGIN, root + "/Caches/plugin"}};
}

struct InitListener : ZMRuntimeInitListener {
  std::shared_ptr<ZMZimoGameRuntime> runtime;
  std::string failure;
  void onInitializeSuccess(std::shared_ptr<ZMZimoGameRuntime> r) override { runtime = r; }
  void onInitializeFailure(const ZMException& e) override {
    failure = e.name() + ": " + e.reason().value_or("");
  }
};

int info(const std::string& user, const std::string& root) {
  const ZMValue options = useRoot(root);
  auto listener = std::make_shared<InitListener>();
  ZMZimoGame::initRuntime(user, options, listener);
  if (!listener->failure.empty() || !listener->runtime) {
    std::cerr << "tavo: the runtime could not start: " << listener->failure << "\n";
    return 1;
  }
  auto runtime = listener->runtime;
  std::cout << "libtavo " << runtime->getVersionInfo().value_or("(unknown)") << "\n";
  std::cout << "user           " << user << "\n"
            << "record store   " << ZMSystemDirectories::documentsDirectory()
            << "/zimo_client_sdk.db\n"
            << "caches         " << ZMSystemDirectories::cachesDirectory() << "\n"
            << "installed apps " << ZMSystemDirectories::cachesDirectory() << "/app\n"
            << "user data      " << ZMSystemDirectories::cachesDirectory() << "/user\n"
            << "engine core    " << ZMSystemDirectories::cachesDirectory() << "/core\n"
            << "package cache  " << ZMSystemDirectories::temporaryDirectory() << "\n"
            << "engine         " << (ZMGameHandle::getInstance() ? "loaded" : "none") << "\n";
  runtime->done();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"tavo: try libtavo's game runtime from a terminal"};
  app.require_subcommand(1);
  app.fallthrough();  // --user and --root may follow the subcommand
  std::string user = "tavo-user";
  std::string root;
  app.add_option("--user", user, "User id of the runtime");
  app.add_option("--root", root, "Put every storage root under this directory");
  auto* infoCommand = app.add_subcommand("info", "Print the runtime's version and storage layout");
  CLI11_PARSE(app, argc, argv);
  MerinGameHandle::install();  // the reference headless engine runs the games
  if (infoCommand->parsed()) return info(user, root);
  return 0;
}
