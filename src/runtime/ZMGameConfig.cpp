#include "runtime/ZMGameConfig.h"

#include <cstdlib>

#include "util/ZMFileUtils.h"

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
  if (!value) return false;
  // A value's truth: booleans as they are, numbers when non-zero, texts that read as a
  // non-zero number or start with y/Y/t/T (as Foundation's boolValue reads them).
  if (value->is_boolean()) return value->get<bool>();
  if (value->is_number_integer()) return value->get<int64_t>() != 0;
  if (value->is_number()) return value->get<double>() != 0.0;
  if (value->is_string()) {
    const std::string text = value->get<std::string>();
    const auto start = text.find_first_not_of(" \t\n");
    if (start == std::string::npos) return false;
    const char c = text[start];
    if (c == 'y' || c == 'Y' || c == 't' || c == 'T') return true;
    return std::strtod(text.c_str() + start, nullptr) != 0.0;
  }
  return false;
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
