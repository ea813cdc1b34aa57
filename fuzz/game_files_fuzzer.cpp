// Arbitrary bytes as an installed game's "game.config.json" and "detail.json": both are read as
// the runtime reads them, every member is looked at, and the plug-in list is written into a
// service request body and into a log line, as a launch would.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/ZMFormat.h"
#include "protocol/ZMPluginProtocolPostForm.h"
#include "runtime/ZMGameConfig.h"
#include "runtime/ZMGameDetail.h"
#include "tavo/ZMLog.h"

namespace fs = std::filesystem;

namespace {

const fs::path& File() {
  static const fs::path file = [] {
    std::string pattern = (fs::temp_directory_path() / "tavo-files-fuzz-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    return fs::path(pattern) / "game.config.json";
  }();
  return file;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ZMLog::setSink([](std::string_view) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  {
    std::ofstream out(File(), std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  if (auto config = ZMGameConfig::createGameCofingWithPath(File().string())) {
    ZMLogFormat("%@ %@ %@ %@", {config->deviceOrientation(), config->runtimeVersion(),
                                config->subpackages(), config->gameConfigObj()});
    (void)config->showStatusBar();
    const ZMValue plugins = config->plugins();
    ZMError error;
    if (plugins.is_array()) (void)ZMPluginProtocolPostForm::pluginListText(plugins, &error);
  }
  const ZMGameDetail detail(File().string());
  (void)detail.gameId();
  (void)detail.gameVersion();
  return 0;
}
