#include "util/ZMStorageLayout.h"

#include <string_view>

#include "platform/ZMFormat.h"
#include "platform/ZMPath.h"
#include "platform/ZMValueAccess.h"
#include "tavo/ZMOptionKeys.h"
#include "tavo/ZMSystemDirectories.h"
#include "util/ZMSafePath.h"

namespace {

// Names from outside are joined through ZMSafePath: one that could leave its root gives no path.
std::string under(std::string_view base, std::string_view component) {
  return ZMSafePath::join(base, component);
}

std::string rootOption(const ZMValue& options, const char* key, std::string fallback) {
  std::string root = ZMTextOption(options, key).value_or("");
  return root.empty() ? fallback : root;
}

}  // namespace

ZMStorageLayout ZMStorageLayout::fromOptions(const std::string& userId, const ZMValue& options) {
  const std::string base = ZMSystemDirectories::cachesDirectory();
  ZMStorageLayout layout;
  layout.userId = userId;
  layout.app = rootOption(options, ZM_KEY_STORAGE_PATH_APP, ZMPathJoin(base, "app"));
  layout.user = rootOption(options, ZM_KEY_STORAGE_PATH_USER, ZMPathJoin(base, "user"));
  layout.cache =
      rootOption(options, ZM_KEY_STORAGE_PATH_CACHE, ZMSystemDirectories::temporaryDirectory());
  layout.core = rootOption(options, ZM_KEY_STORAGE_PATH_CORE, ZMPathJoin(base, "core"));
  layout.plugin = rootOption(options, ZM_KEY_STORAGE_PATH_PLUGIN, ZMPathJoin(base, "plugin"));
  layout.packageLimits = ZMPackageLimits::fromOptions(options);
  layout.packageTrust = ZMPackageTrust::fromOptions(options);
  return layout;
}

std::string ZMStorageLayout::appDir(const std::string& appId) const { return under(app, appId); }

std::string ZMStorageLayout::appDetailFile(const std::string& appId) const {
  return under(appDir(appId), "detail.json");
}

std::string ZMStorageLayout::appPackageDir(const std::string& appId,
                                           const std::string& version) const {
  return under(appDir(appId), version);
}

std::string ZMStorageLayout::packageDownloadPath(const std::string& appId,
                                                 const std::string& version) const {
  return under(cache, ZMFormat("%@.%@.zgp", {appId, version}));
}

std::string ZMStorageLayout::userDir(const std::string& appId) const {
  return under(user, ZMFormat("%@_%@", {userId, appId}));
}

std::string ZMStorageLayout::userCacheDir(const std::string& appId) const {
  return under(cache, ZMFormat("%@_%@", {userId, appId}));
}

std::string ZMStorageLayout::userTempDir(const std::string& appId) const {
  return under(userCacheDir(appId), "tmp");
}

std::string ZMStorageLayout::userDataDir(const std::string& appId) const {
  return under(userDir(appId), "data");
}

std::string ZMStorageLayout::userLocalStorage(const std::string& appId) const {
  return under(userDir(appId), "local_storage.db");
}

std::string ZMStorageLayout::runtimeLocalStorage(const std::string& appId) const {
  return under(userDir(appId), "rt_local_storage.db");
}
