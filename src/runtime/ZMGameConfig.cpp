#include "runtime/ZMGameConfig.h"

#include <cstdlib>

#include "platform/ZMValueAccess.h"
#include "tavo/ZMFileUtils.h"

std::shared_ptr<ZMGameConfig> ZMGameConfig::createGameCofingWithPath(const std::string& path) {
  if (path.empty() || !ZMFileUtils::isExist(path)) return nullptr;
  auto object = ZMFileUtils::readJSONObjectFromFile(path);
  if (!object) return nullptr;
  auto config = std::make_shared<ZMGameConfig>();
  config->gameConfigObj_ = std::move(*object);
  return config;
}

const ZMValue* ZMGameConfig::member(const char* key) const {
  if (!gameConfigObj_.is_object()) return nullptr;
  auto it = gameConfigObj_.find(key);
  return it == gameConfigObj_.end() ? nullptr : &*it;
}

ZMValue ZMGameConfig::deviceOrientation() const {
  const ZMValue* value = member("deviceOrientation");
  return value ? *value : ZMValue("landscape");
}

bool ZMGameConfig::showStatusBar() const {
  const ZMValue* value = member("showStatusBar");
  return value && ZMTruthOf(*value);
}

ZMValue ZMGameConfig::runtimeVersion() const {
  const ZMValue* value = member("runtimeVersion");
  return value ? *value : ZMValue("");
}

ZMValue ZMGameConfig::subpackages() const {
  const ZMValue* value = member("subpackages");
  return value ? *value : ZMValue::array();
}

ZMValue ZMGameConfig::plugins() const {
  ZMValue list = ZMValue::array();
  const ZMValue* value = member("plugins");
  if (value && value->is_object()) {
    for (const auto& plugin : *value) list.push_back(plugin);  // file order, keys dropped
  }
  return list;
}
