#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "protocol/ZMPluginProtocolPostForm.h"
#include "protocol/ZMPluginProtocolPostHashListener.h"
#include "protocol/ZMURLSession.h"
#include "tavo/ZMZimoGameConfig.h"

// ZMPluginProtocolPostHash tells the plug-in service which plug-in versions a game uses and the
// hash each has locally, and hears back which of them have a newer package: one form POST to
// <host>/runtime/plugin/hash. The update flow makes one per service host it tries. Create it with
// std::make_shared.
//
// When none of the game's plug-ins is installed with a known hash, execute() sends nothing and
// nothing is ever reported: there is nothing to ask, and the update flow does not wait for an
// answer in that case.
//
// Ownership: the listener is held weakly; the request in flight (`dataTask`) strongly; the
// request's completion holds this object weakly (releasing it silences the reply). The plug-in
// directory layout and config files belong to the plug-in subsystem, which hands in how it reads
// an installed plug-in's hash.
//
// Threads: execute() reads the installed plug-ins' config files on the caller's thread; replies
// are handled and reported on the main queue. A cancelled request logs "post hash request has
// been canceled" and reports nothing.
class ZMPluginProtocolPostHash : public std::enable_shared_from_this<ZMPluginProtocolPostHash> {
 public:
  static constexpr const char* kPath = "runtime/plugin/hash";
  // The hash recorded for an installed plug-in under `root`, or null (ZMPluginConfig's).
  using InstalledHash = std::function<std::optional<std::string>(
      const std::string& root, const std::string& pluginId, const std::string& version)>;

  // `initWithPluginRootPath:host:deviceId:gameId:appBundleId:runtimeVersion:listener:`, plus the
  // plug-in subsystem's reading of installed hashes. `deviceId` may be null. Sends nothing.
  ZMPluginProtocolPostHash(std::string pluginRootPath, const std::string& host,
                           std::optional<std::string> deviceId, std::string gameId,
                           std::string appBundleId, std::string runtimeVersion,
                           std::weak_ptr<ZMPluginProtocolPostHashListener> listener,
                           InstalledHash installedHash);

  // Reports the game's installed plug-ins (config.plugins(): {"provider", "version"} objects)
  // with their recorded hashes; returns at once. False when nothing was sent (no installed
  // plug-in has a hash): no reply will ever come for this call.
  bool execute(const ZMZimoGameConfig& config);
  // Cancels the request in flight, if any, and forgets it. Nothing is reported.
  void cancel();

  // The completion step, on the main queue; the response's status is not looked at.
  void _onCompleteWithData(const std::optional<std::string>& data,
                           const std::optional<ZMHTTPURLResponse>& response,
                           const std::optional<ZMError>& error);

  const std::string& pluginRootPath() const { return pluginRootPath_; }
  const std::string& url() const { return url_; }
  const std::optional<std::string>& deviceId() const { return deviceId_; }
  const std::string& gameId() const { return gameId_; }
  const std::string& appBundleId() const { return appBundleId_; }
  const std::string& runtimeVersion() const { return runtimeVersion_; }

 private:
  void _notifyList(const ZMValue& pluginResults);
  void _notifyFailure(const ZMError& error);

  const std::weak_ptr<ZMPluginProtocolPostHashListener> listener_;
  const std::string pluginRootPath_;
  const std::string url_;
  const std::optional<std::string> deviceId_;
  const std::string gameId_;
  const std::string appBundleId_;
  const std::string runtimeVersion_;
  const InstalledHash installedHash_;

  ZMPluginProtocolRequest request_;  // `dataTask`
};
