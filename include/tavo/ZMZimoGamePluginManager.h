#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tavo/ZMExport.h"
#include "tavo/ZMGameListeners.h"
#include "tavo/ZMPluginListeners.h"
#include "tavo/ZMValue.h"

// ZMZimoGamePluginManager manages the engine plug-ins that games declare. The host obtains it
// from ZMZimoGameRuntime::getManager("plugin_manager", ...); the runtime owns it. A plug-in info
// is an object with "provider" and "version" (further keys are carried along). A new request of
// a kind cancels the previous one of that kind. Call from the main thread; results arrive on
// ZMMainQueue (see ZMPluginListeners.h).
class TAVO_EXPORT ZMZimoGamePluginManager {
 public:
  virtual ~ZMZimoGamePluginManager() = default;
  virtual void checkPluginVersion(const ZMValue& info,
                                  std::weak_ptr<ZMPluginCheckVersionListener> listener) = 0;
  virtual void installPlugin(const ZMValue& info,
                             std::weak_ptr<ZMPluginInstallListener> listener) = 0;
  virtual void listPlugin(std::weak_ptr<ZMGameListListener> listener) = 0;
  virtual void removePluginList(const ZMValue& list,
                                std::weak_ptr<ZMPluginRemoveListener> listener) = 0;
  virtual void cancelPluginRequest() = 0;

  // The plug-in service base URLs, tried in order (the primary, then the fallback). The built-in
  // ones name no real host; a host sets its own before its first request, and every later flow,
  // the update prefetched while a game runs included, uses them.
  virtual std::vector<std::string> pluginServiceHosts() const = 0;
  virtual void setPluginServiceHosts(std::vector<std::string> hosts) = 0;
};
