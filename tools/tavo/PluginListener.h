#pragma once

#include "HostListener.h"

// The listener `tavo plugin ...` hands to the plug-in manager: like HostListener it reports each
// callback and remembers how the operation ended. Every plug-in callback arrives on the main
// queue, except the start callbacks and validation failures, made inside the call.
class PluginListener : public HostListener,
                       public ZMPluginCheckVersionListener,
                       public ZMPluginInstallListener,
                       public ZMPluginRemoveListener {
 public:
  using HostListener::HostListener;

  void onCheckPluginVersionStart(const ZMValue& info) override;
  void onCheckPluginSuccess(const ZMValue& info) override;
  void onCheckPluginFailure(const ZMValue& info, const ZMError& error) override;
  void onPluginInstallStart(const ZMValue& info) override;
  void onPluginDownloadProgress(const ZMValue& info, int64_t downloadSize,
                                int64_t totalSize) override;
  void onPluginDownloadRetry(const ZMValue& info, int64_t retryNo) override;
  void onPluginInstallSuccess(const ZMValue& info) override;
  void onPluginInstallFailure(const ZMValue& info, const std::optional<ZMError>& error) override;
  void onPluginRemoveStart(const ZMValue& info) override;
  void onPluginRemoveFinish(const ZMValue& info) override;
  void onPluginRemoveSuccess(const ZMValue& removed) override;
  void onPluginRemoveFailure(const ZMError& error) override;
  // The plug-in list: {"provider", "version", "path"} records.
  void onListGameSuccess(const ZMValue& items) override;
};
