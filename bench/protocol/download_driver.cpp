// tavo_download_driver URL PATH — downloads URL to PATH with ZMSingleThreadFileDownloader, the
// way a game package is fetched, and exits: 0 on success, 1 on failure (reason on stderr).
// The temporary file is made in PATH's directory, so the final move stays in one file system.
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "protocol/ZMSingleThreadFileDownloader.h"
#include "tavo/ZMMainQueue.h"
#include "tavo/ZMSystemDirectories.h"

namespace {

struct Result : ZMOnFileDownloadListener {
  bool ended = false;
  bool ok = false;
  void onDownloadStart(const std::string&) override {}
  void onDownloadProgress(int64_t, int64_t) override {}
  void onDownloadSuccess(const std::string&) override { ended = ok = true; }
  void onDownloadFailure(int32_t code, const std::string& msg, const ZMError& error) override {
    std::fprintf(stderr, "download failed: %d %s %s\n", code, msg.c_str(),
                 error.description().c_str());
    ended = true;
  }
  void onDownloadCancel() override { ended = true; }
  void onDownloadRetry(int32_t) override {}
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s URL PATH\n", argv[0]);
    return 2;
  }
  const std::filesystem::path path = std::filesystem::absolute(argv[2]);
  ZMSystemDirectories::setTemporaryDirectory((path.parent_path() / ".tavo-tmp").string());
  auto result = std::make_shared<Result>();
  auto downloader =
      std::make_shared<ZMSingleThreadFileDownloader>(path.string(), argv[1], "bench", result);
  downloader->start();
  ZMMainQueue::runUntil([&] { return result->ended; }, std::chrono::hours(1));
  return result->ok ? 0 : 1;
}
