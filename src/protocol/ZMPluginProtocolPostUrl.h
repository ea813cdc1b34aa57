#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "protocol/ZMPluginProtocolPostForm.h"
#include "protocol/ZMPluginProtocolPostUrlListener.h"
#include "protocol/ZMURLSession.h"

// ZMPluginProtocolPostUrl asks the plug-in service where the package of one plug-in version is
// and what its hash is: one form POST to <host>/runtime/plugin/url, one JSON reply, one callback.
// The install flow makes one per service host it tries. Create it with std::make_shared.
//
// Ownership: the listener is held weakly; the request in flight (`dataTask`) strongly. The
// request's completion holds this object weakly: releasing it cancels nothing but silences the
// reply. One object may be executed many times; a new execution cancels the previous request,
// and each reports at most once.
//
// Threads: execute() and cancel() run on the caller's thread (a writing failure is reported
// there, synchronously); replies are handled and reported on the main queue. A cancelled request
// logs "post url request has been canceled" and reports nothing.
class ZMPluginProtocolPostUrl : public std::enable_shared_from_this<ZMPluginProtocolPostUrl> {
 public:
  static constexpr const char* kPath = "runtime/plugin/url";

  // `initWithHost:deviceId:bundleId:runtimeVersion:listener:`. `host` is a service base URL (the
  // manager's primary or fallback); `deviceId` may be null. Sends nothing.
  ZMPluginProtocolPostUrl(const std::string& host, std::optional<std::string> deviceId,
                          std::string bundleId, std::string runtimeVersion,
                          std::weak_ptr<ZMPluginProtocolPostUrlListener> listener);

  // Asks for `pluginId` at `version`; returns at once.
  void execute(const std::string& pluginId, const std::string& version);
  // Cancels the request in flight, if any, and forgets it.
  void cancel();

  // The completion step, on the main queue: the reply's bytes (or none), the response (whose
  // status is not looked at: only the reply's "code" counts) and the transport error (or none).
  void _onCompleteWithData(const std::optional<std::string>& data,
                           const std::optional<ZMHTTPURLResponse>& response,
                           const std::optional<ZMError>& error);

  const std::string& url() const { return url_; }
  const std::optional<std::string>& deviceId() const { return deviceId_; }
  const std::string& bundleId() const { return bundleId_; }
  const std::string& runtimeVersion() const { return runtimeVersion_; }

 private:
  void _notifySuccess(const std::string& pluginId, const std::string& version,
                      const std::optional<std::string>& hash,
                      const std::optional<std::string>& url);
  void _notifyFail(const ZMError& error);

  const std::weak_ptr<ZMPluginProtocolPostUrlListener> listener_;
  const std::string url_;
  const std::optional<std::string> deviceId_;
  const std::string bundleId_;
  const std::string runtimeVersion_;

  std::mutex mutex_;  // pluginId_ and version_: set by execute, read by the completion
  std::string pluginId_;
  std::string version_;
  ZMPluginProtocolRequest request_;  // `dataTask`
};
