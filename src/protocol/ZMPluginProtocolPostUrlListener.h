#pragma once

#include <optional>
#include <string>

#include "tavo/ZMError.h"

// What ZMPluginProtocolPostUrl reports to the plug-in install flow, once per request that is
// neither cancelled nor outlived by its query, always on the main queue.
class ZMPluginProtocolPostUrlListener {
 public:
  virtual ~ZMPluginProtocolPostUrlListener() = default;
  // The plug-in id and version asked for, the package's hash and download URL. Hash and URL are
  // null when the service listed no entry for exactly that id and version: the caller decides
  // what that means.
  virtual void onPostUrlSuccess(const std::string& pluginId, const std::string& version,
                                const std::optional<std::string>& hash,
                                const std::optional<std::string>& url) = 0;
  // A transport error as the client gave it, or a service refusal (message in the domain, code
  // 0).
  virtual void onPostUrlFail(const ZMError& error) = 0;
};
