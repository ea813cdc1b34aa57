#pragma once

#include <memory>
#include <optional>
#include <string>

#include "tavo/ZMGameListeners.h"
#include "tavo/ZMValue.h"
#include "util/ZMTask.h"

// ZMPluginListTask reports every installed plug-in under a plug-in root to the host's
// ZMGameListListener: one record {"provider", "version", "path"} per directory whose sibling
// config file exists. The plug-in manager owns the task (one at a time); the listener is held
// weakly. The scan runs on the global queue and keeps the task alive until it ends; the one
// reply arrives on the main queue and is silenced by cancel(), a dropped task or a gone listener.
class ZMPluginListTask : public ZMTask<ZMPluginListTask, ZMGameListListener> {
 public:
  // `initWithListener:`.
  explicit ZMPluginListTask(std::weak_ptr<ZMGameListListener> listener);

  // Scans `pluginRootPath`. One run per task: the manager makes a new task for each request.
  void execute(const std::string& pluginRootPath);

 private:
  void _listPlugin(const std::string& pluginRootPath);
  // Posts onListGameFailure for an error, else onListGameSuccess with `resultList`.
  void _complete(const std::optional<ZMError>& error, ZMValue resultList);
};
