#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "protocol/ZMPluginProtocolPostUrlListener.h"
#include "tavo/ZMGameListeners.h"
#include "tavo/ZMPluginListeners.h"
#include "tavo/ZMValue.h"
#include "util/ZMPackageLimits.h"
#include "util/ZMTask.h"

class ZMPluginProtocolPostUrl;
class ZMPluginProtocolDownloadPackage;
class ZMPluginUnzipPackageTask;

// ZMPluginInstallPackageManager installs one plug-in version from the plug-in service for the
// host's installPlugin: it asks the service hosts, in order, where the package is (the next host
// only when a query fails), downloads the package into the package cache with its MD5 checked,
// unpacks it into a staged directory that then replaces the plug-in's directory whole, and
// records the package hash under "hash" in the plug-in's config file (other keys kept). Every host
// callback carries the host's plug-in info first. A package that unpacks but cannot be deleted is
// reported as a failure and then, as the config is still written, as a success.
//
// Ownership: the plug-in manager creates it (std::make_shared), keeps it and replaces or cancels
// it; one object per install. It owns the current query, download and unpack, each of which
// holds it weakly as their listener; the host's listener is held weakly too.
//
// It derives from ZMTaskBase, not ZMTask: the replies come already on the main queue from the
// pieces it drives, so it only needs the cancel flag and the group hand-off when the run is over.
//
// Threads: execute() and cancel() run on the main thread. Every later step runs where its
// trigger arrives, which is always the main queue, so the host's progress, retry and outcome
// callbacks arrive there; only a failure found during execute() itself (an empty host list, a
// query that cannot be built) reaches the host synchronously, on the caller's thread.
class ZMPluginInstallPackageManager
    : public ZMTaskBase,
      public ZMPluginProtocolPostUrlListener,
      public ZMPackageDownloadListener,
      public ZMPackageInstallListener,
      public std::enable_shared_from_this<ZMPluginInstallPackageManager> {
 public:
  // `initWithHost:cacheDir:installDir:deviceId:appBundleId:runtimeVersion:listener:`: the
  // service base URLs (primary first), the package cache, the plug-in's installed directory
  // (root/provider_version), and what the query sends. `deviceId` may be null.
  ZMPluginInstallPackageManager(std::vector<std::string> hosts, std::string cacheDir,
                                std::string installDir, std::optional<std::string> deviceId,
                                std::string appBundleId, std::string runtimeVersion,
                                std::weak_ptr<ZMPluginInstallListener> listener,
                                ZMPackageLimits limits = {});
  ~ZMPluginInstallPackageManager() override;

  // Installs `pluginId` at `version`; `info` is handed back in every callback. Returns at once.
  void execute(const ZMValue& info, const std::string& pluginId, const std::string& version);
  // Final: cancels and drops the query, the download and the unpack; no callback follows. An
  // unzip under way still finishes (and cleans up its package) but is not reported.
  void cancel() override;

  // ZMPluginProtocolPostUrlListener, on the main queue.
  void onPostUrlSuccess(const std::string& pluginId, const std::string& version,
                        const std::optional<std::string>& hash,
                        const std::optional<std::string>& url) override;
  void onPostUrlFail(const ZMError& error) override;

  // ZMPackageDownloadListener, on the main queue. A failed download ends the install: other
  // hosts are asked only where the package is, never for the package itself.
  void onDownloadStart() override;
  void onDownloadProgress(int64_t done, int64_t total) override;
  void onDownloadRetry(int64_t retry) override;
  void onDownloadSuccess(const std::string& path) override;
  void onDownloadFailure(const ZMError& error) override;

  // ZMPackageInstallListener (the unpack), on the main queue.
  void onInstallStart() override;
  void onInstallSuccess() override;
  void onInstallFailure(const ZMError& error) override;

 private:
  // One URL query against the next host; past the last host the install fails with the last
  // query's error.
  void _tryPostUrl();
  // Writes "hash" into the plug-in's config, keeping its other keys, and tells the host.
  void _recordHash();
  // Tells the host of a failure, and of success; either ends the run.
  void _fail(const std::optional<ZMError>& error);
  void _succeed();

  const std::weak_ptr<ZMPluginInstallListener> listener_;
  const ZMPackageLimits limits_;
  const std::vector<std::string> hostArray_;
  const std::string cacheDir_;
  const std::string installDir_;
  const std::optional<std::string> deviceId_;
  const std::string appBundleId_;
  const std::string runtimeVersion_;
  ZMValue pluginInfo_;
  int64_t hostIndex_ = 0;
  std::string pluginId_;
  std::string version_;
  std::optional<ZMError> postUrlError_;
  std::optional<std::string> pluginHash_;
  std::shared_ptr<ZMPluginProtocolPostUrl> getPluginResourceAddress_;
  std::shared_ptr<ZMPluginProtocolDownloadPackage> downloadPackage_;
  std::shared_ptr<ZMPluginUnzipPackageTask> unzipPackageTask_;
};
