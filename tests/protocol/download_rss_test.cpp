// A program of its own: the peak resident size it measures must not be inflated by other tests.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "protocol/ZMSingleThreadFileDownloader.h"
#include "support/TestHttpServer.h"
#include "support/TestSupport.h"

namespace {

constexpr std::size_t kBlock = 1 << 20;
constexpr std::size_t kSize = std::size_t{1} << 30;

// "VmHWM:   12345 kB" and friends, in bytes.
int64_t StatusBytes(const std::string& field) {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(field + ":", 0) == 0) {
      std::istringstream value(line.substr(field.size() + 1));
      int64_t kb = 0;
      value >> kb;
      return kb * 1024;
    }
  }
  return -1;
}

struct Outcome : ZMOnFileDownloadListener {
  std::string result;  // empty until the download ends
  int64_t lastDone = 0;
  void onDownloadStart(const std::string&) override {}
  void onDownloadProgress(int64_t done, int64_t) override { lastDone = done; }
  void onDownloadSuccess(const std::string&) override { result = "success"; }
  void onDownloadFailure(int32_t code, const std::string& msg, const ZMError& e) override {
    result = std::to_string(code) + " " + msg + " " + e.description();
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
                               const std::size_t n = std::min(length, kBlock - start);
                               return sink.write(block.data() + start, n);
                             });
  });
  server.start();

  const int64_t before = StatusBytes("VmRSS");
  auto outcome = std::make_shared<Outcome>();
  auto downloader = std::make_shared<ZMSingleThreadFileDownloader>(dirs.root() / "big.zgp",
                                                                   server.url("/big"), "big",
                                                                   outcome);
  downloader->start();
  ASSERT_TRUE(RunUntil([&] { return !outcome->result.empty(); }, std::chrono::minutes(4)));
  const int64_t peak = StatusBytes("VmHWM");
  ASSERT_EQ(outcome->result, "success");
  EXPECT_EQ(outcome->lastDone, static_cast<int64_t>(kSize));
  EXPECT_LT(peak, 32 << 20) << "resident before: " << before;  // server and test included

  // The file is whole: every block as served.
  std::ifstream in(dirs.root() / "big.zgp", std::ios::binary);
  std::string chunk(kBlock, '\0');
  std::size_t blocks = 0;
  while (in.read(chunk.data(), kBlock)) {
    ASSERT_TRUE(chunk == block) << "block " << blocks;
    ++blocks;
  }
  EXPECT_EQ(in.gcount(), 0);
  EXPECT_EQ(blocks, kSize / kBlock);
}
