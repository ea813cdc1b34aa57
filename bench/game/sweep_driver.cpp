// tavo_sweep_driver DIR MINUTES — sweeps DIR as the runtime's package cache: starts a runtime
// whose temporary directory is DIR, runs checkFileAvailability for "zgp" entries at least MINUTES
// old, drains the main queue until the sweep ends and prints
//   deleted N
//   sweep S s        (checkFileAvailability until onCheckSuccess)
//   peak RSS K KiB   (VmHWM)
// Exits 0 on success, 1 on failure (reason on stderr), 2 on bad arguments. The record store and
// the other storage roots go to a private directory under $TMPDIR, removed before exiting.
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "tavo/tavo.h"

namespace {

struct InitListener : ZMRuntimeInitListener {
  std::shared_ptr<ZMZimoGameRuntime> runtime;
  std::string failure;
  void onInitializeSuccess(std::shared_ptr<ZMZimoGameRuntime> r) override { runtime = r; }
  void onInitializeFailure(const ZMException& e) override {
    failure = e.name() + ": " + e.reason().value_or("");
  }
};

struct SweepListener : ZMCheckFileAvailabilityListener {
  long deleted = 0;
  bool ended = false;
  bool ok = false;
  void onCheckStart() override {}
  void onCheckProgress(const std::string&) override { ++deleted; }
  void onCheckSuccess() override { ended = ok = true; }
  void onCheckFailure(const ZMError& error) override {
    std::fprintf(stderr, "sweep failed: %s\n", error.domain.c_str());
    ended = true;
  }
};

long peakRssKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  char* end = nullptr;
  const long minutes = argc == 3 ? std::strtol(argv[2], &end, 10) : 0;
  if (argc != 3 || *end != '\0' || minutes < 1) {
    std::fprintf(stderr, "usage: %s DIR MINUTES\n", argv[0]);
    return 2;
  }
  namespace fs = std::filesystem;
  const fs::path cache = fs::absolute(argv[1]);
  if (!fs::is_directory(cache)) {
    std::fprintf(stderr, "%s is not a directory\n", cache.c_str());
    return 2;
  }
  const char* tmp = std::getenv("TMPDIR");
  std::string state = std::string(tmp && *tmp ? tmp : "/tmp") + "/tavo-sweep-XXXXXX";
  if (!::mkdtemp(state.data())) {
    std::perror("mkdtemp");
    return 1;
  }
  ZMSystemDirectories::setDocumentsDirectory(state + "/Documents");
  ZMSystemDirectories::setCachesDirectory(state + "/Caches");
  ZMSystemDirectories::setTemporaryDirectory(cache.string());

  int rc = 1;
  auto init = std::make_shared<InitListener>();
  ZMZimoGame::initRuntime("bench", ZMValue::object(), init);
  if (!init->failure.empty() || !init->runtime) {
    std::fprintf(stderr, "the runtime could not start: %s\n", init->failure.c_str());
  } else {
    auto sweep = std::make_shared<SweepListener>();
    const auto start = std::chrono::steady_clock::now();
    init->runtime->checkFileAvailability(
        {{ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY, {"zgp"}}, {ZM_KEY_CHECK_FILE_KEEP_TIME, minutes}},
        sweep);
    ZMMainQueue::runUntil([&] { return sweep->ended; }, std::chrono::hours(1));
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    init->runtime->done();
    if (sweep->ok) {
      std::printf("deleted %ld\nsweep %.3f s\npeak RSS %ld KiB\n", sweep->deleted, elapsed.count(),
                  peakRssKiB());
      rc = 0;
    } else if (!sweep->ended) {
      std::fprintf(stderr, "the sweep did not end\n");
    }
  }
  std::error_code ec;
  fs::remove_all(state, ec);
  return rc;
}
