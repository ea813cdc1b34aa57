// A program of its own: the peak resident size it measures must not be inflated by other tests.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "protocol/ZMSingleThreadFileDownloader.h"
#include "support/TestHttpServer.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"

namespace {

constexpr std::size_t kBlock = 1 << 20;
constexpr std::size_t kSize = std::size_t{1} << 30;

// The process's peak resident size in bytes, from "VmHWM:   12345 kB".
int64_t PeakResident() {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with("VmHWM:")) return std::stoll(line.substr(6)) * 1024;
  }
  return -1;
}

}  // namespace

TEST(ZMSingleThreadFileDownloader, GigabyteDownloadKeepsMemoryFlat) {
  ScopedSystemDirectories dirs;
  const std::string block = PatternBody(kBlock);
  TestHttpServer server;
  server.Get("/big", [&](const auto&, auto& res) {
    // Streamed from one 1 MiB block: the server holds no more than that either.
    res.set_content_provider(kSize, "application/octet-stream",
                             [&](size_t offset, size_t length, httplib::DataSink& sink) {
                               const std::size_t start = offset % kBlock;
                               return sink.write(block.data() + start,
                                                 std::min(length, kBlock - start));
                             });
  });
  server.start();

  auto recorder = std::make_shared<FileRecorder>();
  auto downloader = std::make_shared<ZMSingleThreadFileDownloader>(
      dirs.root() / "big.zgp", server.url("/big"), "big", recorder);
  downloader->start();
  ASSERT_TRUE(RunUntil([&] { return recorder->ends > 0; }, std::chrono::minutes(4)));
  EXPECT_LT(PeakResident(), 32 << 20);  // server and test included
  ASSERT_EQ(recorder->last(), "success:" + dirs.root() / "big.zgp");

  EXPECT_EQ(std::filesystem::file_size(dirs.root() / "big.zgp"), kSize);
}
