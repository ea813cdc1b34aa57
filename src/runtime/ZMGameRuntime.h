#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tavo/ZMCoreListeners.h"
#include "tavo/ZMGameHandle.h"
#include "tavo/ZMZimoGame.h"
#include "util/ZMStorageLayout.h"

class ZMGameRuntime2;
class ZMTaskGroup;
class ZMPermissionUtil;
class ZMGameCheckVersionTask;
class ZMGameDownloadPackageTask;
class ZMGameInstallPackageTask;
class ZMCheckFileAvailabilityTask;

// ZMGameRuntime is the runtime singleton behind ZMZimoGameRuntime. It owns the storage layout
// (fixed at creation), the per-user permission store, the bridge to the engine, one package task
// of each kind (check, download, install, sweep; a new request of a kind cancels the previous
// task) and the group of every task it started, uninstalls included. done() ends that group:
// when it returns, no task of this runtime touches a root or calls a listener any more.
// Listeners are held weakly.
//
// Host operations run on the caller's (main) thread. Engine callbacks (launch, exit, quit
// request) arrive on the engine's thread and are relayed to the host on it; the launch state
// they read is guarded by a mutex because the host may start the next launch meanwhile.
class ZMGameRuntime : public ZMZimoGameRuntime,
                      public ZMCoreRunListener,
                      public ZMOnGameQueryExitListener,
                      public ZMGameExitListener,
                      public ZMCoreExitListener,
                      public std::enable_shared_from_this<ZMGameRuntime> {
 public:
  // Makes a runtime and puts it in the singleton slot, replacing any earlier one.
  static std::shared_ptr<ZMGameRuntime> init();
  // The singleton; throws ZMException "ZimoRuntime error" / "uninitialized ZimoGameRuntime".
  static std::shared_ptr<ZMGameRuntime> getInstance();

  // Opens the stores, fixes and creates the storage roots and builds the bridge; reports to
  // `listener` before returning. Exceptions from creating a root propagate.
  void create(const std::string& userId, const ZMValue& options,
              const std::shared_ptr<ZMRuntimeInitListener>& listener);

  // Paths of the storage layout (see ZMStorageLayout for what each is). Getters marked
  // "creates" make sure their directory exists (a failure is logged and the path returned all
  // the same).
  std::string getAppPackageCache();                        // C (creates)
  std::string getAppDirPath(const std::string& appId);     // A/id
  std::string getAppDir(const std::string& appId);         // A/id (creates)
  std::string getAppDetailFile(const std::string& appId);  // A/id/detail.json (creates A/id)
  std::string getAppPackageDownloadPath(const std::string& appId,
                                        const std::string& version);  // C/id.ver.zgp (creates C)
  std::string getAppPackageDir(const std::string& appId,
                               const std::string& version);       // A/id/ver (creates)
  std::string getUserDirPath(const std::string& appId);           // U/user_id
  std::string getUserCachePath(const std::string& appId);         // C/user_id
  std::string getUserTempDirPath(const std::string& appId);       // C/user_id/tmp
  std::string getUserDataDirPath(const std::string& appId);       // U/user_id/data
  std::string getUserLocalStoragePath(const std::string& appId);  // U/user_id/local_storage.db
  std::string getRuntimeLocalStoragePath(
      const std::string& appId);  // U/user_id/rt_local_storage.db

  // ZMZimoGameRuntime.
  void runGame(std::shared_ptr<void> viewController, const std::string& appId,
               const ZMValue& options, std::weak_ptr<ZMGameRunListener> listener) override;
  void exitGame(const std::string& appId, std::weak_ptr<ZMGameExitListener> listener) override;
  void checkGameVersion(const ZMValue& options,
                        std::weak_ptr<ZMPackageCheckVersionListener> listener) override;
  void downloadGamePackage(const ZMValue& options,
                           std::weak_ptr<ZMPackageDownloadListener> listener) override;
  void installGamePackage(const ZMValue& options,
                          std::weak_ptr<ZMPackageInstallListener> listener) override;
  void cancelGamePackageRequest() override;
  std::optional<std::string> getVersionInfo() override;
  void setGameQueryExitListener(std::weak_ptr<ZMGameQueryExitListener> listener) override;
  void listGame(std::weak_ptr<ZMGameListListener> listener) override;
  void setGameData(const std::string& appId, const ZMValue& info,
                   std::weak_ptr<ZMGameDataListener> listener) override;
  void removeGameList(const std::vector<std::string>& appIds,
                      std::weak_ptr<ZMGameRemoveListener> listener) override;
  void removeGameAll(std::weak_ptr<ZMGameRemoveListener> listener) override;
  void checkFileAvailability(const ZMValue& options,
                             std::weak_ptr<ZMCheckFileAvailabilityListener> listener) override;
  std::shared_ptr<ZMZimoGameConfig> getGameConfig(const ZMValue& options) override;
  std::shared_ptr<ZMZimoGamePluginManager> getManager(const std::string& name,
                                                      const ZMValue& options) override;
  void done() override;

  // Engine callbacks (ZMCoreRunListener, ZMOnGameQueryExitListener, ZMCoreExitListener).
  void onGameViewCreated(std::shared_ptr<void> view) override;
  void onRunSuccess() override;
  void onRunFailure(const ZMError& error) override;
  void onCoreQueryExit(const ZMValue& result) override;
  void onCoreExitSuccess() override;
  void onCoreExitFailure(const ZMError& error) override;
  // The runtime as its own exit listener, when it ends a game that asked to quit: the results go
  // nowhere.
  void onGameExitSuccess() override { onSuccess(); }
  void onGameExitFailure(const ZMError& error) override { onFailure(error); }
  void onSuccess() {}
  void onFailure(const ZMError&) {}

  void _loadingTimeLog(const std::string& message);

  // State, for the bridge, the tasks and tests.
  const std::string& userId() const { return userId_; }
  // The layout of the last creation; empty roots before one succeeded.
  const std::shared_ptr<const ZMStorageLayout>& layout() const { return layout_; }
  const std::shared_ptr<ZMGameRuntime2>& gameRuntime2() const { return gameRuntime2_; }
  const std::shared_ptr<ZMPermissionUtil>& permissionListener() const {
    return permissionListener_;
  }
  std::shared_ptr<ZMGameHandle> gameHandle() const;
  std::shared_ptr<void> viewController() const;
  std::optional<std::string> appId() const;
  ZMValue info() const;
  const std::shared_ptr<ZMGameCheckVersionTask>& gameCheckTask() const { return gameCheckTask_; }
  const std::shared_ptr<ZMGameDownloadPackageTask>& gameDownloadTask() const {
    return gameDownloadTask_;
  }
  const std::shared_ptr<ZMGameInstallPackageTask>& gameInstallTask() const {
    return gameInstallTask_;
  }
  const std::shared_ptr<ZMCheckFileAvailabilityTask>& checkFileAvailabilityTask() const {
    return checkFileAvailabilityTask_;
  }
  const std::shared_ptr<ZMTaskGroup>& tasks() const { return tasks_; }

 private:
  // Ends the engine handle, delivering on the main thread what its last callbacks post.
  static void endHandle(ZMGameHandle& handle);

  ZMGameRuntime();
  // Keeps `task` in this runtime's group before it starts.
  template <typename Task>
  std::shared_ptr<Task> adopt(std::shared_ptr<Task> task);
  // Resolves a getter's directory, logging (not throwing) when it cannot be made usable.
  void validateQuietly(const std::string& path) const;

  std::shared_ptr<ZMGameRuntime2> gameRuntime2_;
  std::string userId_;
  std::shared_ptr<const ZMStorageLayout> layout_;
  std::shared_ptr<ZMPermissionUtil> permissionListener_;
  std::shared_ptr<ZMTaskGroup> tasks_;

  std::shared_ptr<ZMGameCheckVersionTask> gameCheckTask_;
  std::shared_ptr<ZMGameDownloadPackageTask> gameDownloadTask_;
  std::shared_ptr<ZMGameInstallPackageTask> gameInstallTask_;
  std::shared_ptr<ZMCheckFileAvailabilityTask> checkFileAvailabilityTask_;

  // Launch and exit state: written by host calls, read by engine callbacks on other threads.
  mutable std::mutex launchMutex_;
  std::optional<std::string> appId_;
  ZMValue info_;
  std::weak_ptr<void> viewController_;
  std::weak_ptr<ZMGameHandle> gameHandle_;
  std::weak_ptr<ZMGameRunListener> gameRunListener_;
  std::weak_ptr<ZMGameQueryExitListener> gameQueryExitListener_;
  std::weak_ptr<ZMGameExitListener> gameExitListener_;
  std::atomic<bool> gameLoadingTimeLog_{false};
  std::atomic<double> loadingStartTime_{0};
};
