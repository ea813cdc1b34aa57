#pragma once

/// @file
/// Listener interfaces for the plug-in manager's host operations. The first argument of each
/// per-plug-in callback is the plug-in info the host passed in, unchanged. Held weakly; start
/// callbacks and validation failures run on the caller's thread, the rest on ZMMainQueue. Every
/// request that sends a start callback ends with a success or failure callback, also when it is
/// made after the runtime's done() (it then fails at once with "plugin manager is done").

#include <cstdint>
#include <optional>

#include "tavo/ZMError.h"
#include "tavo/ZMExport.h"
#include "tavo/ZMValue.h"

/// checkPluginVersion: is that plug-in version installed?
class TAVO_EXPORT ZMPluginCheckVersionListener {
 public:
  virtual ~ZMPluginCheckVersionListener() = default;
  /// The check begins.
  virtual void onCheckPluginVersionStart(const ZMValue& info) = 0;
  /// The plug-in is installed (a prefetched update has just been installed). Final.
  virtual void onCheckPluginSuccess(const ZMValue& info) = 0;
  /// It is not, or the info was wrong. Final, except "Error:plugin package no exist.", which a
  /// success follows in the same main-queue block.
  virtual void onCheckPluginFailure(const ZMValue& info, const ZMError& error) = 0;
};

/// installPlugin: install a plug-in from the plug-in service.
class TAVO_EXPORT ZMPluginInstallListener {
 public:
  virtual ~ZMPluginInstallListener() = default;
  /// The install begins.
  virtual void onPluginInstallStart(const ZMValue& info) = 0;
  /// Bytes of the package received so far, of `totalSize`.
  virtual void onPluginDownloadProgress(const ZMValue& info, int64_t downloadSize,
                                        int64_t totalSize) = 0;
  /// The download starts again; `retryNo` counts the attempts.
  virtual void onPluginDownloadRetry(const ZMValue& info, int64_t retryNo) = 0;
  /// The plug-in is installed. Final.
  virtual void onPluginInstallSuccess(const ZMValue& info) = 0;
  /// `error` is null in one case only: the manager has no service host to ask (an empty
  /// pluginServiceHosts()), so there is no query whose error could be passed on.
  virtual void onPluginInstallFailure(const ZMValue& info, const std::optional<ZMError>& error) = 0;
};

/// removePluginList: remove installed plug-ins.
class TAVO_EXPORT ZMPluginRemoveListener {
 public:
  virtual ~ZMPluginRemoveListener() = default;
  /// The removal of one plug-in begins.
  virtual void onPluginRemoveStart(const ZMValue& info) = 0;
  /// The removal of one plug-in has ended.
  virtual void onPluginRemoveFinish(const ZMValue& info) = 0;
  /// The infos of the removed plug-ins. Final.
  virtual void onPluginRemoveSuccess(const ZMValue& removed) = 0;
  /// The list was wrong or a plug-in could not be removed. Final.
  virtual void onPluginRemoveFailure(const ZMError& error) = 0;
};
