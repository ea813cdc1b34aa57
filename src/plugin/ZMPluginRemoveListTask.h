#pragma once

#include <memory>
#include <optional>
#include <string>

#include "tavo/ZMPluginListeners.h"
#include "tavo/ZMValue.h"
#include "util/ZMTask.h"

// ZMPluginRemoveListTask deletes a host-given list of plug-ins from the plug-in root (each one's
// directory, then its sibling config file), in list order, and stops at the first item it cannot
// remove; removals done before it stay done. The plug-in manager owns the task (one at a time);
// the listener is held weakly. The removal runs on the global queue and keeps the task alive
// until it ends; every callback (start, finish, ..., outcome) is its own main-queue reply, in
// that order, and cancel() silences all that have not run yet.
class ZMPluginRemoveListTask : public ZMTask<ZMPluginRemoveListTask, ZMPluginRemoveListener> {
 public:
  // `initWithPluginRootDir:listener:`.
  ZMPluginRemoveListTask(std::string pluginRootDir, std::weak_ptr<ZMPluginRemoveListener> listener);

  // Removes the plug-in infos of `list` (an array of {"provider", "version", ...}; null is
  // refused). One run per task: the manager makes a new task for each request.
  void execute(const ZMValue& list);

 private:
  void _removeList(const ZMValue& list);
  // Posts onPluginRemoveFailure for an error, else onPluginRemoveSuccess with `removedList`.
  void _complete(const std::optional<ZMError>& error, ZMValue removedList);
  void _onProgressUpdate(const ZMValue& info, bool isStart);

  const std::string pluginRootDir_;
};
