#include "runtime/ZMGameDetail.h"

#include "platform/ZMFileManager.h"
#include "platform/ZMJSON.h"
#include "tavo/ZMOptionKeys.h"

namespace {
std::optional<std::string> textMember(const std::optional<ZMValue>& object, const char* key) {
  if (!object || !object->is_object()) return std::nullopt;
  auto it = object->find(key);
  if (it == object->end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}
}  // namespace

ZMGameDetail::ZMGameDetail(const std::string& path) {
  // Silent on every failure: a missing or broken file simply means "nothing installed".
  if (auto text = ZMFileManager::readFile(path, nullptr)) detailObj_ = ZMJSONParse(*text);
}

std::optional<std::string> ZMGameDetail::gameId() const {
  return textMember(detailObj_, ZM_KEY_GAME_PACKAGE_APP_ID);
}

std::optional<std::string> ZMGameDetail::gameVersion() const {
  return textMember(detailObj_, ZM_KEY_GAME_PACKAGE_VERSION);
}
