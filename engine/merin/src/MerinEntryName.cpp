#include "MerinEntryName.h"

#include <zip.h>

#include <algorithm>

namespace {

bool IsControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return (byte >= 0x01 && byte <= 0x1f) || byte == 0x7f;
}

bool UsesBackslashes(uint8_t host) {
  return host == ZIP_OPSYS_DOS || host == ZIP_OPSYS_OS_2 || host == ZIP_OPSYS_WINDOWS_NTFS ||
         host == ZIP_OPSYS_VFAT;
}

// Joins the components of `name` without "." or empty ones; false when the name is absolute or
// climbs out with "..".
bool Normalize(std::string_view name, std::string* path) {
  if (name.empty() || name.front() == '/') return false;
  path->clear();
  size_t begin = 0;
  while (begin <= name.size()) {
    size_t end = name.find('/', begin);
    if (end == std::string_view::npos) end = name.size();
    const std::string_view component = name.substr(begin, end - begin);
    if (component == "..") return false;
    if (!component.empty() && component != ".") {
      if (!path->empty()) path->push_back('/');
      path->append(component);
    }
    begin = end + 1;
  }
  return true;
}

}  // namespace

std::string MerinQuotedName(std::string_view name) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string quoted = "\"";
  for (const char c : name) {
    if (IsControl(c)) {
      const auto byte = static_cast<unsigned char>(c);
      quoted += {'\\', 'x', kHex[byte >> 4], kHex[byte & 0xf]};
    } else {
      quoted.push_back(c);
    }
  }
  return quoted + "\"";
}

std::optional<std::string> MerinMapEntryName(std::string_view raw, std::string_view decoded,
                                             uint8_t host, MerinEntryName* out) {
  // Checked on the stored bytes: code page 437 would turn them into pictures (0x01 into a smiling
  // face), which no other extractor does, and a control character has no place in a file name.
  if (std::any_of(raw.begin(), raw.end(), IsControl)) {
    return "refusing entry name " + MerinQuotedName(raw) + " holding a control character";
  }
  std::string name(decoded);
  if (UsesBackslashes(host)) std::replace(name.begin(), name.end(), '\\', '/');
  out->isDirectory = !name.empty() && name.back() == '/';
  if (!Normalize(name, &out->path)) {
    return "refusing unsafe entry name " + MerinQuotedName(decoded);
  }
  return std::nullopt;
}
