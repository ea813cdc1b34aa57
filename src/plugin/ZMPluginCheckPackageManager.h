#pragma once

#include <memory>
#include <string>

#include "tavo/ZMGameListeners.h"
#include "tavo/ZMPluginListeners.h"
#include "tavo/ZMValue.h"
#include "util/ZMPackageLimits.h"
#include "util/ZMPackageTrust.h"
#include "util/ZMTask.h"

class ZMPluginCheckVersionTask;
class ZMPluginUnzipPackageTask;

// ZMPluginCheckPackageManager answers the host's version check of one plug-in. When the update
// prefetch has left a newer package of the same provider and version in the package cache (the
// config's "updateHash" names it), that package is installed first: unpacked into a staging
// directory in the cache, then moved over the installed directory, and the config's "hash"
// becomes the new hash while "updateHash" goes (other keys stay). Then ZMPluginCheckVersionTask
// looks at what is installed and gives the host its answer. The local install itself is never
// reported: a failed one only logs and shows in the check that follows. When `trust` requires
// signatures, a cached package whose signature is refused is deleted unpacked, and logged
// ("plugin update refused: <refusal>").
//
// Ownership: the plug-in manager creates it (std::make_shared), keeps it until the next check,
// and cancels it. It owns the current unpack and the current check; the unpack holds it weakly as
// its listener. The host listener is held weakly and handed to the check. The check joins the
// manager's task group, which then tracks it on its own: the manager's part of the run is over.
//
// Threads: execute() and cancel() run on the main thread, where the config is read and the cache
// looked at. The unpack's outcome, and with it the move into place, arrives on the main queue;
// the check runs on the global queue and answers on the main queue.
class ZMPluginCheckPackageManager
    : public ZMTaskBase,
      public ZMPackageInstallListener,
      public std::enable_shared_from_this<ZMPluginCheckPackageManager> {
 public:
  // `initWithCacheDir:pluginDir:listener:`: the package cache and the installed plug-in
  // directory (plug-in root + "/" + provider + "_" + version).
  ZMPluginCheckPackageManager(std::string cacheDir, std::string pluginDir,
                              std::weak_ptr<ZMPluginCheckVersionListener> listener,
                              ZMPackageLimits limits = {}, ZMPackageTrust trust = {});
  ~ZMPluginCheckPackageManager() override;

  // `execute:version:pluginInfo:`. Installs the cached update named by the config, if it is
  // there, then checks. `pluginInfo` is passed back to the host. One run per object.
  void execute(const std::string& pluginId, const std::string& version, const ZMValue& pluginInfo);
  // Final: cancels and drops the check, then the unpack. Files already moved stay moved.
  void cancel() override;

  // ZMPackageInstallListener, on the main queue. The unpack sends no start. A failed unpack has
  // left the installed plug-in as it was and is checked as it is.
  void onInstallStart() override;
  void onInstallSuccess() override;
  void onInstallFailure(const ZMError& error) override;

  const std::string& cacheDir() const { return cacheDir_; }
  const std::string& pluginDir() const { return pluginDir_; }
  const ZMValue& pluginInfo() const { return pluginInfo_; }
  // Empty until a cached update is found.
  const std::string& pluginInstallDirTmpPath() const { return pluginInstallDirTmpPath_; }
  const std::string& pluginHash() const { return pluginHash_; }

 private:
  // Replaces any current check with a new one of pluginDir.
  void _checkVersion();
  // Puts the staged plug-in in place of the installed one and records its hash; failures are
  // logged and leave whatever the check will then find.
  void _moveStagedPlugin();

  const std::weak_ptr<ZMPluginCheckVersionListener> listener_;
  const std::string cacheDir_;
  const ZMPackageLimits limits_;
  const ZMPackageTrust trust_;
  const std::string pluginDir_;
  ZMValue pluginInfo_;
  std::string pluginInstallDirTmpPath_;
  std::string pluginHash_;
  std::shared_ptr<ZMPluginCheckVersionTask> checkVersionTask_;
  std::shared_ptr<ZMPluginUnzipPackageTask> unzipPackageTask_;
};
