#include "util/ZMSafePath.h"

#include "platform/ZMPath.h"

bool ZMSafePath::isNamePart(std::string_view part) {
  return part.find('/') == std::string_view::npos && part.find('\0') == std::string_view::npos;
}

bool ZMSafePath::isComponent(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && isNamePart(name);
}

std::string ZMSafePath::join(std::string_view root, std::string_view name) {
  if (root.empty() || !isComponent(name)) return {};
  return ZMPathJoin(root, name);
}
