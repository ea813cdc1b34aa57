// A program of its own: the peak resident size it measures must not be inflated by other tests.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "protocol/ZMSingleThreadFileDownloader.h"
#include "support/TestHttpServer.h"
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

struct Outcome : ZMOnFileDownloadListener {
  std::string result;  // empty until the download ends
  void onDownloadStart(const std::string&) override {}
  void onDownloadProgress(int64_t, int64_t) override {}
  void onDownloadSuccess(const std::string&) override { result = "success"; }
  void onDownloadFailure(int32_t, const std::string&, const ZMError& e) override {
    result = e.description();
  }
  void onDownloadCancel() override { result = "cancel"; }
  void onDownloadRetry(int32_t) override {}
};

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

  auto outcome = std::make_shared<Outcome>();
  auto downloader = std::make_shared<ZMSingleThreadFileDownloader>(
      dirs.root() / "big.zgp", server.url("/big"), "big", outcome);
  downloader->start();
  ASSERT_TRUE(RunUntil([&] { return !outcome->result.empty(); }, std::chrono::minutes(4)));
  EXPECT_LT(PeakResident(), 32 << 20);  // server and test included
  ASSERT_EQ(outcome->result, "success");

  EXPECT_EQ(std::filesystem::file_size(dirs.root() / "big.zgp"), kSize);
}
