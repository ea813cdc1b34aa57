// tavo_cycle_driver ROOT URL HASH [KEY] — one whole game cycle through the public API in one
// process: initRuntime under ROOT (trusting the minisign public key KEY, when given, so that the
// package's signature at URL.minisig is fetched and verified), downloadGamePackage of URL checked
// against HASH, installGamePackage of the downloaded file. Prints the seconds from the download's
// start to the install's success (and on stderr how they split); exits 1 on any failure.
// cycle_vs_pipeline.sh runs it beside the shell pipelines.
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "merin/MerinGameHandle.h"
#include "tavo/tavo.h"

namespace {

struct Cycle : ZMRuntimeInitListener, ZMPackageDownloadListener, ZMPackageInstallListener {
  std::shared_ptr<ZMZimoGameRuntime> runtime;
  std::string path, failure;
  bool downloaded = false, installed = false;

  void onInitializeSuccess(std::shared_ptr<ZMZimoGameRuntime> r) override { runtime = r; }
  void onInitializeFailure(const ZMException& e) override { failure = e.what(); }
  void onDownloadStart() override {}
  void onDownloadProgress(int64_t, int64_t) override {}
  void onDownloadRetry(int64_t) override {}
  void onDownloadSuccess(const std::string& p) override {
    path = p;
    downloaded = true;
  }
  void onDownloadFailure(const ZMError& e) override { failure = e.description(); }
  void onInstallStart() override {}
  void onInstallSuccess() override { installed = true; }
  void onInstallFailure(const ZMError& e) override { failure = e.description(); }

  bool waitFor(const bool& flag) {
    ZMMainQueue::runUntil([&] { return flag || !failure.empty(); }, std::chrono::minutes(5));
    return flag;
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4 && argc != 5) {
    std::fprintf(stderr, "usage: %s ROOT URL HASH [KEY]\n", argv[0]);
    return 2;
  }
  const std::string root = argv[1];
  ZMLog::setSink([](std::string_view) {});  // the install's progress lines are not the work
  MerinGameHandle::install();
  ZMSystemDirectories::setDocumentsDirectory(root + "/Documents");
  ZMSystemDirectories::setCachesDirectory(root + "/Caches");
  ZMSystemDirectories::setTemporaryDirectory(root + "/tmp");
  auto cycle = std::make_shared<Cycle>();
  ZMValue options = ZMValue::object();
  if (argc == 5) options[ZM_KEY_PACKAGE_TRUSTED_KEYS] = argv[4];
  ZMZimoGame::initRuntime("bench", options, cycle);
  if (!cycle->runtime) {
    std::fprintf(stderr, "no runtime: %s\n", cycle->failure.c_str());
    return 1;
  }
  const ZMValue game = {{ZM_KEY_GAME_PACKAGE_APP_ID, "cycle"}, {ZM_KEY_GAME_PACKAGE_VERSION, "1"}};
  const auto start = std::chrono::steady_clock::now();
  ZMValue download = game;
  download[ZM_KEY_GAME_PACKAGE_URL] = argv[2];
  download[ZM_KEY_GAME_PACKAGE_HASH] = argv[3];
  cycle->runtime->downloadGamePackage(download, cycle);
  if (!cycle->waitFor(cycle->downloaded)) {
    std::fprintf(stderr, "download failed: %s\n", cycle->failure.c_str());
    return 1;
  }
  const auto downloaded = std::chrono::steady_clock::now();
  ZMValue install = game;
  install[ZM_KEY_GAME_PACKAGE_PATH] = cycle->path;
  cycle->runtime->installGamePackage(install, cycle);
  if (!cycle->waitFor(cycle->installed)) {
    std::fprintf(stderr, "install failed: %s\n", cycle->failure.c_str());
    return 1;
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  cycle->runtime->done();
  std::printf("%.3f\n", seconds);
  std::fprintf(stderr, "download %.3f s, install %.3f s\n",
               std::chrono::duration<double>(downloaded - start).count(),
               seconds - std::chrono::duration<double>(downloaded - start).count());
  return 0;
}
