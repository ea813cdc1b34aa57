#include "platform/ZMValueAccess.h"

#include <cstdlib>

std::optional<std::string> ZMTextOption(const ZMValue& options, const char* key) {
  if (!options.is_object()) return std::nullopt;
  auto it = options.find(key);
  if (it == options.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

bool ZMTruthOf(const ZMValue& value) {
  if (value.is_boolean()) return value.get<bool>();
  if (value.is_number_integer()) return value.get<int64_t>() != 0;
  if (value.is_number()) return value.get<double>() != 0.0;
  if (value.is_string()) {
    const std::string text = value.get<std::string>();
    const auto start = text.find_first_not_of(" \t\n");
    if (start == std::string::npos) return false;
    const char c = text[start];
    return c == 'y' || c == 'Y' || c == 't' || c == 'T' ||
           std::strtod(text.c_str() + start, nullptr) != 0.0;
  }
  return false;
}
