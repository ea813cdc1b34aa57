#include "platform/ZMPath.h"

#include <chrono>

std::string ZMPathJoin(std::string_view base, std::string_view component) {
  while (base.size() > 1 && base.back() == '/') base.remove_suffix(1);
  while (!component.empty() && component.front() == '/') component.remove_prefix(1);
  while (!component.empty() && component.back() == '/') component.remove_suffix(1);
  if (component.empty()) return std::string(base);
  if (base.empty()) return std::string(component);
  std::string out(base);
  if (out.back() != '/') out += '/';
  out += component;
  return out;
}

std::string ZMLastPathComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  const auto slash = path.rfind('/');
  if (slash == std::string_view::npos || path.size() == 1) return std::string(path);
  return std::string(path.substr(slash + 1));
}

double ZMNow() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}
