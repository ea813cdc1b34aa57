#include "plugin/ZMPluginConfig.h"

#include "platform/ZMFileManager.h"
#include "platform/ZMJSON.h"
#include "platform/ZMValueAccess.h"
#include "plugin/ZMPluginManager.h"
#include "tavo/ZMFileUtils.h"

namespace {

ZMValue readObject(const std::string& path) {
  auto config = ZMFileUtils::readJSONObjectFromFile(path);
  return config && config->is_object() ? std::move(*config) : ZMValue::object();
}

}  // namespace

std::optional<std::string> ZMPluginConfig::text(const std::string& path, const char* key) {
  return ZMTextOption(readObject(path), key);
}

std::optional<std::string> ZMPluginConfig::installedHash(const std::string& root,
                                                         const std::string& pluginId,
                                                         const std::string& version) {
  return text(ZMPluginManager::getPluginConfigFile(root, pluginId, version), kHash);
}

bool ZMPluginConfig::update(const std::string& path, const std::function<void(ZMValue&)>& change,
                            ZMError* error) {
  ZMValue object = readObject(path);
  change(object);
  return ZMFileManager::writeFileAtomically(path, ZMJSONPrettyString(object), error);
}
