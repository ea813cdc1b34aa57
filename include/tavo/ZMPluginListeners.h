#pragma once

// Listener interfaces for the plug-in manager's host operations. The first argument of each
// per-plug-in callback is the plug-in info the host passed in, unchanged. Held weakly; start
// callbacks and validation failures run on the caller's thread, the rest on ZMMainQueue.

#include <cstdint>

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
  virtual void onPluginInstallFailure(const ZMValue& info, const ZMError& error) = 0;
};

class TAVO_EXPORT ZMPluginRemoveListener {
 public:
  virtual ~ZMPluginRemoveListener() = default;
  virtual void onPluginRemoveStart(const ZMValue& info) = 0;
  virtual void onPluginRemoveFinish(const ZMValue& info) = 0;
  virtual void onPluginRemoveSuccess(const ZMValue& removed) = 0;
  virtual void onPluginRemoveFailure(const ZMError& error) = 0;
};
