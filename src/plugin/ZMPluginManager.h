#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "plugin/ZMGameEventListener.h"
#include "tavo/ZMZimoGameConfig.h"
#include "tavo/ZMZimoGamePluginManager.h"
#include "util/ZMStorageLayout.h"

class ZMTaskGroup;
class ZMPluginCheckPackageManager;
class ZMPluginInstallPackageManager;
class ZMPluginCheckUpdateManager;
class ZMPluginListTask;
class ZMPluginRemoveListTask;

// ZMPluginManager is the plug-in subsystem's one entry point: the host's ZMZimoGamePluginManager
// (check, install, list, remove, cancel) and the bridge's game-event receiver (root at event 0,
// root into the run options at event 1, update prefetch at event 2, cancel at event 5).
//
// It owns the plug-in directory layout (the class operations below; every plug-in path is made
// through them) and one worker of each kind; a new request of a kind cancels and replaces the
// previous worker of that kind. Every worker it starts belongs to its task group, which done()
// ends. Listeners are held weakly.
//
// Threads: host operations and events 0, 1 and 5 run on the caller's (main) thread; start
// callbacks and validation failures are made there, synchronously. Event 2 arrives on the
// engine's thread and is carried over to the main queue. Worker results arrive on the main queue.
class ZMPluginManager : public ZMZimoGamePluginManager,
                        public ZMGameEventListener,
                        public std::enable_shared_from_this<ZMPluginManager> {
 public:
  // How the manager reads a game's configuration (the runtime's getGameConfig).
  using GameConfigLookup = std::function<std::shared_ptr<ZMZimoGameConfig>(const ZMValue&)>;

  // `init`: the built-in service base URLs, primary first. `layout` gives the plug-in root and
  // the package cache at event 0.
  ZMPluginManager(std::shared_ptr<const ZMStorageLayout> layout, GameConfigLookup gameConfig);
  ~ZMPluginManager() override;

  // Plug-in layout, pure text (root "/r", provider "p", version "1.0", hash "abc"). A name that
  // is no single component (ZMSafePath: a "/" or NUL in any part) gives "", which names nothing.
  // "/r/p_1.0", the installed plug-in directory.
  static std::string getPluginDirFile(const std::string& root, const std::string& pluginId,
                                      const std::string& version);
  // "/c/abc_p_1.0.zip", a downloaded package in the package cache "/c", the hash first.
  static std::string getPluginPackageDownloadPath(const std::string& dir,
                                                  const std::string& pluginId,
                                                  const std::string& version,
                                                  const std::string& hash);
  // "/r/p_1.0.detail.json": a sibling of the plug-in directory, not a file inside it, so that
  // listing finds installed plug-ins by their config and removal deletes both.
  static std::string getPluginConfigFile(const std::string& root, const std::string& pluginId,
                                         const std::string& version);
  static std::string getPluginConfigFile(const std::string& pluginDir);
  // The device id sent to the service: the advertising id while tracking is on (the vendor id
  // when that id is empty), null while tracking is off. The null is not replaced on purpose.
  static std::optional<std::string> _getUniqueId();
  // The processor the library was built for: "x86_64", "arm64", "armv7" or "i386".
  static std::string getCpuAbi();
  // The two built-in service base URLs, primary first; each ends in "/ced".
  static std::vector<std::string> defaultServiceHosts();

  // ZMGameEventListener. Event 0 throws what validating the plug-in root throws.
  std::optional<ZMError> onGameEvent(ZMGameEvent event, ZMValue& options) override;

  // ZMZimoGamePluginManager.
  void checkPluginVersion(const ZMValue& info,
                          std::weak_ptr<ZMPluginCheckVersionListener> listener) override;
  void installPlugin(const ZMValue& info, std::weak_ptr<ZMPluginInstallListener> listener) override;
  void listPlugin(std::weak_ptr<ZMGameListListener> listener) override;
  void removePluginList(const ZMValue& list,
                        std::weak_ptr<ZMPluginRemoveListener> listener) override;
  void cancelPluginRequest() override;
  std::vector<std::string> pluginServiceHosts() const override { return pluginServiceHosts_; }
  void setPluginServiceHosts(std::vector<std::string> hosts) override;

  // Cancels every worker and waits until none of their background work runs; the runtime's
  // done() calls it. A later request fails at once with "plugin manager is done" (an install
  // after its start callback, as an install's validation failures do).
  void done();

  const std::string& storagePluginPath() const { return storagePluginPath_; }
  const std::string& appPackageCache() const { return appPackageCache_; }
  const std::shared_ptr<ZMPluginCheckUpdateManager>& pluginCheckUpdateManager() const {
    return pluginCheckUpdateManager_;
  }

 private:
  void onRunSuccess(const ZMValue& options);
  // Keeps `worker` in the task group before it starts.
  template <typename Worker>
  std::shared_ptr<Worker> adopt(std::shared_ptr<Worker> worker);

  std::vector<std::string> pluginServiceHosts_;
  std::string storagePluginPath_;
  std::string appPackageCache_;
  std::shared_ptr<ZMPluginCheckPackageManager> pluginCheckPackageManager_;
  std::shared_ptr<ZMPluginInstallPackageManager> pluginInstallPackageManager_;
  std::shared_ptr<ZMPluginCheckUpdateManager> pluginCheckUpdateManager_;
  std::shared_ptr<ZMPluginListTask> listTask_;
  std::shared_ptr<ZMPluginRemoveListTask> removeListTask_;

  const std::shared_ptr<const ZMStorageLayout> layout_;
  const GameConfigLookup gameConfig_;
  const std::shared_ptr<ZMTaskGroup> tasks_;
};
