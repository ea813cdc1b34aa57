#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tavo/ZMGameListeners.h"
#include "util/ZMTask.h"

// What one uninstall run removes: app ids in the host's order for one user, with three arrays
// parallel to `list` (built by the runtime from its storage layout).
struct GameUninstallPackageTaskInfo {
  std::vector<std::string> list;
  std::string userId;
  std::vector<std::string> appIdArrays;  // each entry is the app's directory, despite the name
  std::vector<std::string> userTempDirPathArrays;  // per-user cache roots
  std::vector<std::string> userDataDirPathArrays;  // per-user data roots
};

// One notification of a run. The record's app id and extend are copied at lookup time, since
// the record itself is deleted before any file is touched.
struct GameUninstallPackageTaskProgress {
  std::optional<std::string> appId;
  std::optional<std::string> extend;
  bool isStart = false;
  bool isFail = false;
};

// ZMGameUninstallPackageTask removes a list of games for one user on the global queue: record
// first, then the user's cache and data directories, then the app directory when no other user
// has the app. Each notification is its own main-queue reply, in order; onRemoveSuccess always
// comes last (without a list after a failure). The runtime does not keep the task; its task
// group does, until the last reply. Cancelling stops the run before the next app and silences
// every reply, the last one included.
class ZMGameUninstallPackageTask : public ZMTask<ZMGameUninstallPackageTask, ZMGameRemoveListener> {
 public:
  explicit ZMGameUninstallPackageTask(std::weak_ptr<ZMGameRemoveListener> listener);

  void execute(const GameUninstallPackageTaskInfo& info);

 private:
  void _uninstallGame(const GameUninstallPackageTaskInfo& info);
  void _onProgressUpdate(const GameUninstallPackageTaskProgress& progress);
};
