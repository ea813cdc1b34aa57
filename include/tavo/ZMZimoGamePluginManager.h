#pragma once

/// @file
/// ZMZimoGamePluginManager, the host's side of the plug-in manager.

#include <memory>
#include <string>
#include <vector>

#include "tavo/ZMExport.h"
#include "tavo/ZMGameListeners.h"
#include "tavo/ZMPluginListeners.h"
#include "tavo/ZMValue.h"

/// ZMZimoGamePluginManager manages the engine plug-ins that games declare. The host obtains it
/// from ZMZimoGameRuntime::getManager("plugin_manager", ...); the runtime owns it. A plug-in info
/// is an object with "provider" and "version" (further keys are carried along). A new request of
/// a kind cancels the previous one of that kind. Call from the main thread; results arrive on
/// ZMMainQueue (see ZMPluginListeners.h).
class TAVO_EXPORT ZMZimoGamePluginManager {
 public:
  virtual ~ZMZimoGamePluginManager() = default;
  /// Checks that the plug-in `info` is installed, installing a prefetched update first.
  virtual void checkPluginVersion(const ZMValue& info,
                                  std::weak_ptr<ZMPluginCheckVersionListener> listener) = 0;
  /// Asks the service for the plug-in `info`, downloads, checks and installs it.
  virtual void installPlugin(const ZMValue& info,
                             std::weak_ptr<ZMPluginInstallListener> listener) = 0;
  /// Lists the installed plug-ins: {"provider", "version", "path"} objects.
  virtual void listPlugin(std::weak_ptr<ZMGameListListener> listener) = 0;
  /// Removes the plug-ins of the infos in the array `list`.
  virtual void removePluginList(const ZMValue& list,
                                std::weak_ptr<ZMPluginRemoveListener> listener) = 0;
  /// Cancels every request in flight, the update prefetch included; their listeners hear
  /// nothing more.
  virtual void cancelPluginRequest() = 0;

  /// The plug-in service base URLs, tried in order (the primary, then the fallback). The built-in
  /// ones name no real host; a host sets its own before its first request, and every later flow,
  /// the update prefetched while a game runs included, uses them.
  virtual std::vector<std::string> pluginServiceHosts() const = 0;
  /// Replaces the service base URLs (see pluginServiceHosts).
  virtual void setPluginServiceHosts(std::vector<std::string> hosts) = 0;
};
