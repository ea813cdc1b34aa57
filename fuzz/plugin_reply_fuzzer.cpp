// Arbitrary bytes as the plug-in service's reply to a URL query and to a hash query: each is
// parsed, logged and read exactly as a real reply is, and reports exactly once.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "protocol/ZMPluginProtocolPostHash.h"
#include "protocol/ZMPluginProtocolPostUrl.h"
#include "tavo/ZMLog.h"

namespace {

struct Count : ZMPluginProtocolPostUrlListener, ZMPluginProtocolPostHashListener {
  int reports = 0;
  void onPostUrlSuccess(const std::string&, const std::string&, const std::optional<std::string>&,
                        const std::optional<std::string>&) override {
    ++reports;
  }
  void onPostUrlFail(const ZMError&) override { ++reports; }
  void onGetUpdatePluginList(const ZMValue&) override { ++reports; }
  void onPostHashFailure(const ZMError&) override { ++reports; }
};

std::optional<std::string> NoHash(const std::string&, const std::string&, const std::string&) {
  return std::nullopt;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ZMLog::setSink([](std::string_view) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::optional<std::string> reply(std::string(reinterpret_cast<const char*>(data), size));
  auto count = std::make_shared<Count>();
  auto url = std::make_shared<ZMPluginProtocolPostUrl>("http://127.0.0.1:9/ced", std::nullopt,
                                                       "host", "1.0", count);
  url->_onCompleteWithData(reply, std::nullopt, std::nullopt);
  auto hash = std::make_shared<ZMPluginProtocolPostHash>(
      "/nonexistent", "http://127.0.0.1:9/ced", std::nullopt, "g", "host", "1.0", count, &NoHash);
  hash->_onCompleteWithData(reply, std::nullopt, std::nullopt);
  if (count->reports != 2) std::abort();
  return 0;
}
