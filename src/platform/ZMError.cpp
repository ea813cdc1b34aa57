#include "tavo/ZMError.h"

#include <utility>

ZMError::ZMError(std::string domain, int64_t code, std::optional<ZMValue> userInfo)
    : domain(std::move(domain)), code(code), userInfo(std::move(userInfo)) {}

std::string ZMError::localizedDescription() const {
  if (userInfo && userInfo->is_object()) {
    auto it = userInfo->find(kZMLocalizedDescriptionKey);
    if (it != userInfo->end() && it->is_string()) return it->get<std::string>();
  }
  return "The operation couldn\u2019t be completed. (" + domain + " error " + std::to_string(code) +
         ".)";
}

std::string ZMError::description() const {
  std::string text = "Error Domain=" + domain + " Code=" + std::to_string(code) + " \"" +
                     localizedDescription() + "\"";
  if (userInfo && !userInfo->empty())
    text += " UserInfo=" + userInfo->dump(-1, ' ', false, ZMValue::error_handler_t::replace);
  return text;
}
