#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tavo/ZMPluginListeners.h"
#include "tavo/ZMValue.h"
#include "util/ZMTask.h"

// ZMPluginCheckVersionTask tells the host whether one plug-in is installed: its directory and
// its sibling config file must both exist. Nothing is compared: the version is part of the
// directory name, and the config is written only once a package is in place.
//
// A plug-in found half there loses its half, so that the next check starts from a clean state:
// a directory without config is deleted and reported as "Error:plugin config no exist."; a config
// without directory (an update's prefetch leaves one) is deleted and reported as "Error:plugin
// package no exist." and then, deliberately, as a success too. Callers rely on that pair; it is
// not to be collapsed into one outcome.
//
// Ownership: the version-check manager makes one task per check and keeps it; the listener is
// held weakly. The check runs on the global queue and holds the task weakly; its outcome arrives
// on the main queue and is silenced by cancel(), a dropped task or a gone listener. A check
// already under way still deletes what it found half there.
class ZMPluginCheckVersionTask
    : public ZMTask<ZMPluginCheckVersionTask, ZMPluginCheckVersionListener> {
 public:
  // `initWithPluginInfo:listener:`. `pluginInfo` is passed back in the outcome.
  ZMPluginCheckVersionTask(ZMValue pluginInfo,
                           std::weak_ptr<ZMPluginCheckVersionListener> listener);

  // Checks the installed plug-in directory `pluginDir`. Returns at once. One run per task: a
  // cancelled task stays cancelled, and the manager makes a new task for every check.
  void execute(const std::string& pluginDir);

  const ZMValue& pluginInfo() const { return pluginInfo_; }

 private:
  void _checkVersion(const std::string& pluginDir);
  // Posts onCheckPluginFailure for each error, onCheckPluginSuccess for a null, in order.
  void _complete(std::vector<std::optional<ZMError>> outcomes);

  const ZMValue pluginInfo_;
};
