// tavo_plugin_requests_driver url|hash BASE COUNT — makes COUNT plug-in service requests of one
// kind against the service base URL BASE, one after another, the way the plug-in flows make them
// (a fresh request object each, the reply awaited on the main queue), and prints the rate and
// the latency percentiles. Exits 1 if any request fails.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "plugin/ZMPluginConfig.h"
#include "plugin/ZMPluginManager.h"
#include "protocol/ZMPluginProtocolPostHash.h"
#include "protocol/ZMPluginProtocolPostUrl.h"
#include "tavo/ZMLog.h"
#include "tavo/ZMMainQueue.h"
#include "tavo/ZMSystemDirectories.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Result : ZMPluginProtocolPostUrlListener, ZMPluginProtocolPostHashListener {
  bool ended = false;
  bool ok = false;
  void onPostUrlSuccess(const std::string&, const std::string&, const std::optional<std::string>&,
                        const std::optional<std::string>&) override {
    ended = ok = true;
  }
  void onPostUrlFail(const ZMError& error) override { fail(error); }
  void onGetUpdatePluginList(const ZMValue&) override { ended = ok = true; }
  void onPostHashFailure(const ZMError& error) override { fail(error); }
  void fail(const ZMError& error) {
    std::fprintf(stderr, "request failed: %s\n", error.description().c_str());
    ended = true;
  }
};

// Three installed plug-ins with their hashes, as a game that uses them would have.
struct Game : ZMZimoGameConfig {
  ZMValue deviceOrientation() const override { return "landscape"; }
  bool showStatusBar() const override { return false; }
  ZMValue runtimeVersion() const override { return ""; }
  ZMValue subpackages() const override { return ZMValue::array(); }
  ZMValue plugins() const override {
    ZMValue list = ZMValue::array();
    for (const char* provider : {"physics", "audio", "net"}) {
      list.push_back({{"provider", provider}, {"version", "1.0"}});
    }
    return list;
  }
};

std::string installPlugins(const std::filesystem::path& root) {
  std::filesystem::create_directories(root);
  for (const auto& declaration : Game().plugins()) {
    const std::string path = ZMPluginManager::getPluginConfigFile(
        root.string(), declaration["provider"].get<std::string>(), "1.0");
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (!file) std::exit(1);
    std::fputs(R"({"hash":"0123456789abcdef0123456789abcdef"})", file);
    std::fclose(file);
  }
  return root.string();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string kind = argc == 4 ? argv[1] : "";
  if (kind != "url" && kind != "hash") {
    std::fprintf(stderr, "usage: %s url|hash BASE COUNT\n", argv[0]);
    return 2;
  }
  const std::string host = argv[2];
  const int count = std::max(1, std::atoi(argv[3]));
  ZMLog::setSink([](std::string_view) {});  // one line per reply would be measured otherwise
  ZMDevice::setBundleIdentifier("com.example.bench");
  const auto root =
      std::filesystem::temp_directory_path() / ("tavo-bench-plugins-" + std::to_string(::getpid()));
  const std::string pluginRoot = kind == "hash" ? installPlugins(root) : "";
  const Game game;

  std::vector<double> latencies;
  latencies.reserve(static_cast<std::size_t>(count));
  bool ok = true;
  const auto begin = Clock::now();
  for (int i = 0; i < count && ok; ++i) {
    auto result = std::make_shared<Result>();
    const auto start = Clock::now();
    if (kind == "url") {
      auto query = std::make_shared<ZMPluginProtocolPostUrl>(host, "bench-device",
                                                             "com.example.bench", "1.0.0", result);
      query->execute("bench", "1.0");
      ZMMainQueue::runUntil([&] { return result->ended; }, std::chrono::minutes(2));
    } else {
      auto query = std::make_shared<ZMPluginProtocolPostHash>(
          pluginRoot, host, "bench-device", "bench-game", "com.example.bench", "1.0.0", result,
          &ZMPluginConfig::installedHash);
      query->execute(game);
      ZMMainQueue::runUntil([&] { return result->ended; }, std::chrono::minutes(2));
    }
    ok = result->ok;
    latencies.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  std::filesystem::remove_all(root);
  if (!ok) return 1;

  std::sort(latencies.begin(), latencies.end());
  auto percentile = [&](double p) {
    const auto rank = static_cast<std::size_t>(p * static_cast<double>(latencies.size()) + 0.999);
    return latencies[std::min(latencies.size(), std::max<std::size_t>(rank, 1)) - 1];
  };
  std::printf("%d requests in %.3f s: %.0f req/s, p50 %.3f ms, p99 %.3f ms\n", count, seconds,
              count / seconds, percentile(0.50), percentile(0.99));
  return 0;
}
