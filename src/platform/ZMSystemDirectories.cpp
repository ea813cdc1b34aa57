#include "tavo/ZMSystemDirectories.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>

#include "platform/ZMPath.h"

namespace {

struct Overrides {
  std::mutex mutex;
  std::string documents, caches, temporary;
};

Overrides& overrides() {
  static Overrides o;
  return o;
}

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value && *value ? value : "";
}

std::string home() {
  std::string h = environment("HOME");
  return h.empty() ? "/" : h;
}

std::string overridden(std::string Overrides::*member) {
  std::lock_guard lock(overrides().mutex);
  return overrides().*member;
}

void setOverride(std::string Overrides::*member, const std::string& path) {
  std::lock_guard lock(overrides().mutex);
  overrides().*member = path;
}

}  // namespace

std::string ZMSystemDirectories::documentsDirectory() {
  if (auto path = overridden(&Overrides::documents); !path.empty()) return path;
  std::string base = environment("XDG_DATA_HOME");
  if (base.empty()) base = ZMPathJoin(home(), ".local/share");
  return ZMPathJoin(base, ZMDevice::bundleIdentifier());
}

std::string ZMSystemDirectories::cachesDirectory() {
  if (auto path = overridden(&Overrides::caches); !path.empty()) return path;
  std::string base = environment("XDG_CACHE_HOME");
  if (base.empty()) base = ZMPathJoin(home(), ".cache");
  return ZMPathJoin(base, ZMDevice::bundleIdentifier());
}

std::string ZMSystemDirectories::temporaryDirectory() {
  std::string path = overridden(&Overrides::temporary);
  if (path.empty()) {
    std::string base = environment("TMPDIR");
    if (base.empty()) base = "/tmp";
    path = ZMPathJoin(base, ZMDevice::bundleIdentifier() + "-" + std::to_string(::getuid()));
  }
  ::mkdir(path.c_str(), 0700);  // a private directory, never bare /tmp
  return path;
}

void ZMSystemDirectories::setDocumentsDirectory(const std::string& path) {
  setOverride(&Overrides::documents, path);
}
void ZMSystemDirectories::setCachesDirectory(const std::string& path) {
  setOverride(&Overrides::caches, path);
}
void ZMSystemDirectories::setTemporaryDirectory(const std::string& path) {
  setOverride(&Overrides::temporary, path);
}
