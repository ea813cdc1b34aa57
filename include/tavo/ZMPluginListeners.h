#pragma once

// Listener interfaces for the plug-in manager's host operations. The first argument of each
// per-plug-in callback is the plug-in info the host passed in, unchanged. Held weakly; start
// callbacks and validation failures run on the caller's thread, the rest on ZMMainQueue. Every
// request that sends a start callback ends with a success or failure callback, also when it is
// made after the runtime's done() (it then fails at once with "plugin manager is done").

#include <cstdint>
#include <optional>

#include "tavo/ZMError.h"
#include "tavo/ZMExport.h"
#include "tavo/ZMValue.h"

class TAVO_EXPORT ZMPluginCheckVersionListener {
 public:
  virtual ~ZMPluginCheckVersionListener() = default;
  virtual void onCheckPluginVersionStart(const ZMValue& info) = 0;
  virtual void onCheckPluginSuccess(const ZMValue& info) = 0;
  virtual void onCheckPluginFailure(const ZMValue& info, const ZMError& error) = 0;
};

class TAVO_EXPORT ZMPluginInstallListener {
 public:
  virtual ~ZMPluginInstallListener() = default;
  virtual void onPluginInstallStart(const ZMValue& info) = 0;
  virtual void onPluginDownloadProgress(const ZMValue& info, int64_t downloadSize,
                                        int64_t totalSize) = 0;
  virtual void onPluginDownloadRetry(const ZMValue& info, int64_t retryNo) = 0;
  virtual void onPluginInstallSuccess(const ZMValue& info) = 0;
  // `error` is null in one case only: the manager has no service host to ask (an empty
  // pluginServiceHosts()), so there is no query whose error could be passed on.
  virtual void onPluginInstallFailure(const ZMValue& info, const std::optional<ZMError>& error) = 0;
};

class TAVO_EXPORT ZMPluginRemoveListener {
 public:
  virtual ~ZMPluginRemoveListener() = default;
  virtual void onPluginRemoveStart(const ZMValue& info) = 0;
  virtual void onPluginRemoveFinish(const ZMValue& info) = 0;
  virtual void onPluginRemoveSuccess(const ZMValue& removed) = 0;
  virtual void onPluginRemoveFailure(const ZMError& error) = 0;
};
