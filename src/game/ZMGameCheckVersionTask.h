#pragma once

#include <memory>
#include <string>

#include "tavo/ZMGameListeners.h"
#include "tavo/ZMValue.h"
#include "util/ZMTask.h"

// ZMGameCheckVersionTask answers whether the installed package of an app is the app id and
// version that the host names, by reading the app's "detail.json". The check runs on the global
// queue; the answer is a main-queue reply (see ZMTask for what silences it).
class ZMGameCheckVersionTask
    : public ZMTask<ZMGameCheckVersionTask, ZMPackageCheckVersionListener> {
 public:
  ZMGameCheckVersionTask(std::weak_ptr<ZMPackageCheckVersionListener> listener,
                         std::string detailFilePath);

  void execute(const ZMValue& options);

 private:
  bool _checkVersion(const ZMValue& options) const;
  void _complte(bool matched);

  const std::string detailFilePath_;
};
