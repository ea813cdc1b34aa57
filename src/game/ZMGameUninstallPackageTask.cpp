#include "game/ZMGameUninstallPackageTask.h"

#include "platform/ZMFormat.h"
#include "storage/ZMDatabaseHelper.h"
#include "tavo/ZMFileUtils.h"

ZMGameUninstallPackageTask::ZMGameUninstallPackageTask(std::weak_ptr<ZMGameRemoveListener> listener)
    : ZMTask(std::move(listener)) {}

void ZMGameUninstallPackageTask::execute(const GameUninstallPackageTaskInfo& info) {
  postWork([self = shared_from_this(), info] { self->_uninstallGame(info); });
}

void ZMGameUninstallPackageTask::_uninstallGame(const GameUninstallPackageTaskInfo& info) {
  auto& store = ZMDatabaseHelper::getInstance();
  std::optional<std::vector<std::string>> removed = std::vector<std::string>();
  auto deleteIfPresent = [](const std::string& path) {
    return !ZMFileUtils::isExist(path) || ZMFileUtils::deleteFile(path);
  };

  for (std::size_t i = 0; i < info.list.size() && !isCancel(); ++i) {
    const std::string& appId = info.list[i];
    auto row = store.getAppRowByUserId(info.userId, appId);
    if (!row) continue;  // never installed by this user
    GameUninstallPackageTaskProgress progress;
    progress.appId = row->app_id;
    progress.extend = row->extend;
    progress.isStart = true;
    _onProgressUpdate(progress);

    store.removeAppRow(info.userId, appId);
    removed->push_back(appId);

    bool ok = deleteIfPresent(info.userTempDirPathArrays[i]) &&
              deleteIfPresent(info.userDataDirPathArrays[i]);
    if (ok && store.getPeopleCount(appId) == 0 && ZMFileUtils::isExist(info.appIdArrays[i])) {
      ok = ZMFileUtils::deleteFile(info.appIdArrays[i]);
    }
    if (!ok) {
      progress.isFail = true;
      _onProgressUpdate(progress);
      removed.reset();
      break;
    }
    progress.isStart = false;
    _onProgressUpdate(progress);
  }

  postFinalReply([removed = std::move(removed)](ZMGameRemoveListener& listener) {
    listener.onRemoveSuccess(removed);
  });
}

void ZMGameUninstallPackageTask::_onProgressUpdate(
    const GameUninstallPackageTaskProgress& progress) {
  postReply([progress](ZMGameRemoveListener& listener) {
    if (progress.isFail) {
      listener.onRemoveFailure(ZMError(ZMFormat("remove game file fail appId: %@ and extra: %@",
                                                {progress.appId, progress.extend}),
                                       0));
    } else if (progress.isStart) {
      listener.onRemoveStart(progress.appId, progress.extend);
    } else {
      listener.onRemoveFinish(progress.appId, progress.extend);
    }
  });
}
