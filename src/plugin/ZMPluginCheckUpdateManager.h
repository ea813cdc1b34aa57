#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "protocol/ZMPluginProtocolPostHashListener.h"
#include "tavo/ZMGameListeners.h"
#include "tavo/ZMValue.h"
#include "tavo/ZMZimoGameConfig.h"
#include "util/ZMPackageLimits.h"
#include "util/ZMPackageTrust.h"
#include "util/ZMTask.h"

class ZMPluginProtocolPostHash;
class ZMPluginProtocolDownloadPackage;

// ZMPluginCheckUpdateManager prefetches newer packages of a running game's plug-ins, silently.
// It asks the plug-in service which of the game's installed plug-ins have a newer package (the
// hash query, host after host until one answers), then walks the answer in order: each entry's
// hash goes into the plug-in's config under "updateHash" (other keys kept; a config holding only
// that key is made for a plug-in not installed yet), and its package is downloaded into the
// package cache unless a file with that hash's MD5 is already there. Downloads run strictly one
// at a time; a failed one is skipped. Nothing is unpacked: the next version check of the plug-in
// installs the cached package. Nobody hears of any outcome, and nothing is logged but entries
// refused for their names, and updates refused for their signatures ("plugin update refused:
// <refusal>") when `trust` requires signatures: such a package is not kept, and a cached package
// counts as intact only with its signature beside it.
//
// Ownership: the plug-in manager creates it (std::make_shared), keeps it, and replaces or
// cancels it; it owns the current hash query and the current download, each of which holds it
// weakly as their listener, so a manager dropped meanwhile ends the run.
//
// It derives from ZMTaskBase, not ZMTask: there is no listener, so ZMTask's weak listener and
// its replies would be dead weight, while the base still gives what the manager's task group
// needs (the cancel flag, and letting go of the worker when its run is over).
//
// Threads: execute() and cancel() run on the main thread, and so does every later step: the
// query's reply and the download's callbacks arrive on the main queue. The per-entry work (a
// config read and write, the MD5 of one cached package) is done there too.
class ZMPluginCheckUpdateManager : public ZMTaskBase,
                                   public ZMPluginProtocolPostHashListener,
                                   public ZMPackageDownloadListener,
                                   public std::enable_shared_from_this<ZMPluginCheckUpdateManager> {
 public:
  // `initWithPluginRootPath:pluginZipSaveRootPath:hosts:deviceId:gameId:appBundleId:
  // runtimeVersion:`: the plug-in root, the package cache, the service base URLs (primary
  // first), and what the query sends. `deviceId` may be null. `limits` say how often a
  // download may be continued.
  ZMPluginCheckUpdateManager(std::string pluginRootPath, std::string pluginZipSaveRootPath,
                             std::vector<std::string> hosts, std::optional<std::string> deviceId,
                             std::string gameId, std::string appBundleId,
                             std::string runtimeVersion, ZMPackageLimits limits = {},
                             ZMPackageTrust trust = {});
  ~ZMPluginCheckUpdateManager() override;

  // Keeps the running game's configuration (its plugins() are what is asked about) and queries
  // the first host. Returns at once. One run per object: the manager makes a new one per game.
  void execute(std::shared_ptr<const ZMZimoGameConfig> gameConfig);
  // Final: cancels and drops the query, then the download. Nothing else is pending; a package
  // being downloaded is never moved into place.
  void cancel() override;

  // ZMPluginProtocolPostHashListener, on the main queue.
  void onGetUpdatePluginList(const ZMValue& pluginResults) override;
  // The error is not looked at: the next host is asked.
  void onPostHashFailure(const ZMError& error) override;

  // ZMPackageDownloadListener, on the main queue. Success and failure alike move on to the next
  // entry; the failed one is not tried again here.
  void onDownloadStart() override;
  void onDownloadProgress(int64_t done, int64_t total) override;
  void onDownloadRetry(int64_t retry) override;
  void onDownloadSuccess(const std::string& path) override;
  void onDownloadFailure(const ZMError& error) override;

  const std::string& pluginRootPath() const { return pluginRootPath_; }
  const std::string& pluginZipSavePath() const { return pluginZipSavePath_; }
  const std::vector<std::string>& hostArr() const { return hostArr_; }
  const std::optional<std::string>& deviceId() const { return deviceId_; }
  const std::string& gameId() const { return gameId_; }
  const std::string& appBundleId() const { return appBundleId_; }
  const std::string& runtimeVersion() const { return runtimeVersion_; }
  const std::shared_ptr<const ZMZimoGameConfig>& gameConfig() const { return gameConfig_; }
  int64_t hostIndex() const { return hostIndex_; }
  int64_t currentUpdateIndex() const { return currentUpdateIndex_; }
  const std::optional<ZMValue>& pluginUpdateList() const { return pluginUpdateList_; }

 private:
  // One hash query against the next host; past the last host the run ends.
  void _tryPostHash();
  // Records "updateHash" for each entry from currentUpdateIndex on, passing over the packages
  // already intact in the cache, and starts the download of the first one that is not.
  void _downloadUpdatePlugin();
  // Writes "updateHash" = `hash` into the config at `configPath`, keeping its other keys.
  static void _writeUpdateHash(const std::string& configPath, const std::string& hash);
  // The run is over: the manager's task group need not keep this worker any longer.
  void _end();

  const std::string pluginRootPath_;
  const ZMPackageLimits limits_;
  const std::string pluginZipSavePath_;
  const std::vector<std::string> hostArr_;
  const std::optional<std::string> deviceId_;
  const std::string gameId_;
  const std::string appBundleId_;
  const std::string runtimeVersion_;
  const ZMPackageTrust trust_;
  std::shared_ptr<const ZMZimoGameConfig> gameConfig_;
  int64_t hostIndex_ = 0;
  int64_t currentUpdateIndex_ = 0;
  std::optional<ZMValue> pluginUpdateList_;  // null until a host answers; always an array
  std::shared_ptr<ZMPluginProtocolPostHash> postHash_;
  std::shared_ptr<ZMPluginProtocolDownloadPackage> downloadPackage_;
};
