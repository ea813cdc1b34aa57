#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "tavo/ZMGameListeners.h"
#include "tavo/ZMValue.h"

// ZMGameCheckVersionTask answers whether the installed package of an app is the app id and
// version that the host names, by reading the app's "detail.json". The check runs on the global
// queue; the answer arrives on the main queue. The queued work holds the task weakly: a task the
// runtime has dropped, or one cancelled before delivery, reports nothing.
class ZMGameCheckVersionTask : public std::enable_shared_from_this<ZMGameCheckVersionTask> {
 public:
  ZMGameCheckVersionTask(std::weak_ptr<ZMPackageCheckVersionListener> listener,
                         std::string detailFilePath);

  void execute(const ZMValue& options);
  void cancel() { isCancel_ = true; }
  bool isCancel() const { return isCancel_; }

 private:
  bool _checkVersion(const ZMValue& options) const;
  void _complte(bool matched);

  std::weak_ptr<ZMPackageCheckVersionListener> listener_;
  const std::string detailFilePath_;
  std::atomic<bool> isCancel_{false};
};
