// The runtime's package and record operations: thin fronts that derive paths from the storage
// layout, tell the host the work starts, and hand the work to one task per request.

#include "game/ZMCheckFileAvailabilityTask.h"
#include "game/ZMGameCheckVersionTask.h"
#include "game/ZMGameDownloadPackageTask.h"
#include "game/ZMGameInstallPackageTask.h"
#include "game/ZMGameUninstallPackageTask.h"
#include "platform/ZMFormat.h"
#include "platform/ZMPath.h"
#include "platform/ZMValueAccess.h"
#include "runtime/ZMGameConfig.h"
#include "runtime/ZMGameDetail.h"
#include "runtime/ZMGameRuntime.h"
#include "storage/ZMDatabaseHelper.h"
#include "tavo/ZMFileUtils.h"
#include "tavo/ZMOptionKeys.h"
#include "util/ZMSafePath.h"
#include "util/ZMTaskGroup.h"

namespace {

// An app id that could make a path leave the storage roots is refused with this error.
std::optional<ZMError> appIdError(const std::optional<std::string>& appId) {
  if (appId && ZMSafePath::isComponent(*appId)) return std::nullopt;
  return ZMError(ZMFormat("invalid app id: %@", {appId}), -1, ZMValue::object());
}

bool isSafe(const std::optional<std::string>& name) {
  return name && ZMSafePath::isComponent(*name);
}

}  // namespace

template <typename Task>
std::shared_ptr<Task> ZMGameRuntime::adopt(std::shared_ptr<Task> task) {
  tasks_->add(task);
  return task;
}

void ZMGameRuntime::checkGameVersion(const ZMValue& options,
                                     std::weak_ptr<ZMPackageCheckVersionListener> listener) {
  ZMCancelAndClear(gameCheckTask_);
  const auto appId = ZMTextOption(options, ZM_KEY_GAME_PACKAGE_APP_ID);
  // An id that names no app directory is never looked up, so it reads as not installed.
  const std::string detailPath =
      isSafe(appId) ? ZMPathJoin(getAppDirPath(*appId), "detail.json") : std::string();
  if (auto host = listener.lock()) host->onCheckVersionStart(options);
  gameCheckTask_ = adopt(std::make_shared<ZMGameCheckVersionTask>(std::move(listener), detailPath));
  gameCheckTask_->execute(options);
}

void ZMGameRuntime::downloadGamePackage(const ZMValue& options,
                                        std::weak_ptr<ZMPackageDownloadListener> listener) {
  ZMCancelAndClear(gameDownloadTask_);
  const auto appId = ZMTextOption(options, ZM_KEY_GAME_PACKAGE_APP_ID);
  const auto version = ZMTextOption(options, ZM_KEY_GAME_PACKAGE_VERSION);
  auto host = listener.lock();
  // Both make up the package's file name, so neither may hold a separator; an absent one is
  // named "(null)" and the file stays in the cache.
  std::optional<ZMError> error;
  for (const auto& [name, text] : {std::pair{"app id", appId}, std::pair{"version", version}}) {
    if (!error && text && !ZMSafePath::isNamePart(*text)) {
      error = ZMError(ZMFormat("invalid %@: %@", {name, text}), -1, ZMValue::object());
    }
  }
  if (error) {
    if (host) {
      host->onDownloadStart();
      host->onDownloadFailure(*error);
    }
    return;
  }
  const std::string savePath =
      getAppPackageDownloadPath(ZMFormat("%@", {appId}), ZMFormat("%@", {version}));
  const std::string url = ZMTextOption(options, ZM_KEY_GAME_PACKAGE_URL).value_or("");
  if (host) host->onDownloadStart();
  gameDownloadTask_ = std::make_shared<ZMGameDownloadPackageTask>(std::move(listener), savePath,
                                                                  url, layout_->packageTrust);
  gameDownloadTask_->setResumeAttempts(layout_->packageLimits.downloadResumeAttempts);
  gameDownloadTask_->execute(options);
}

void ZMGameRuntime::installGamePackage(const ZMValue& options,
                                       std::weak_ptr<ZMPackageInstallListener> listener) {
  const auto appId = ZMTextOption(options, ZM_KEY_GAME_PACKAGE_APP_ID);
  const auto version = ZMTextOption(options, ZM_KEY_GAME_PACKAGE_VERSION);
  // These create the app and version directories, even if the install then fails. Ids that
  // name no directory get no paths; the task refuses them before touching anything.
  std::string appDir, installDir, detailFile;
  if (isSafe(appId) && isSafe(version)) {
    appDir = getAppDir(*appId);
    installDir = getAppPackageDir(*appId, *version);
    detailFile = getAppDetailFile(*appId);
  }
  ZMCancelAndClear(gameInstallTask_);
  if (auto host = listener.lock()) host->onInstallStart();
  gameInstallTask_ = adopt(std::make_shared<ZMGameInstallPackageTask>(
      std::move(listener), userId_, 1, appDir, installDir, detailFile, layout_->packageLimits,
      layout_->packageTrust));
  gameInstallTask_->execute(options);
}

void ZMGameRuntime::cancelGamePackageRequest() {
  ZMCancelAndClear(gameCheckTask_);
  ZMCancelAndClear(gameDownloadTask_);
  ZMCancelAndClear(gameInstallTask_);
  ZMCancelAndClear(checkFileAvailabilityTask_);
}

void ZMGameRuntime::checkFileAvailability(const ZMValue& options,
                                          std::weak_ptr<ZMCheckFileAvailabilityListener> listener) {
  ZMCancelAndClear(checkFileAvailabilityTask_);
  checkFileAvailabilityTask_ = adopt(
      std::make_shared<ZMCheckFileAvailabilityTask>(std::move(listener), getAppPackageCache()));
  checkFileAvailabilityTask_->execute(options);
}

void ZMGameRuntime::listGame(std::weak_ptr<ZMGameListListener> listener) {
  auto rows = ZMDatabaseHelper::getInstance().getAppidListByUserId(userId_);
  ZMValue items = ZMValue::array();
  ZMDatabaseHelper::getInstance().sync([&] {
    for (const auto& row : rows.value_or(std::vector<std::shared_ptr<ZMAppRow>>())) {
      ZMValue item = ZMValue::object();
      // A record without extend data gives an item with the app id alone.
      item[ZM_KEY_GAME_ITEM_APP_ID] = row->app_id ? ZMValue(*row->app_id) : ZMValue();
      if (row->extend) item[ZM_KEY_GAME_ITEM_EXTEND] = *row->extend;
      items.push_back(std::move(item));
    }
  });
  if (auto host = listener.lock()) host->onListGameSuccess(items);
}

void ZMGameRuntime::setGameData(const std::string& appId, const ZMValue& info,
                                std::weak_ptr<ZMGameDataListener> listener) {
  // A record under such an id would be listed, and would make every removeGameAll refuse.
  if (auto error = appIdError(appId)) {
    if (auto host = listener.lock()) host->onGameDataSetFailure(*error);
    return;
  }
  ZMRow row;
  row.app_id = appId;
  row.user_id = userId_;
  auto text = [&](const char* key, std::optional<std::string>& field) {
    if (info.is_object() && info.contains(key) && info[key].is_string()) {
      field = info[key].get<std::string>();
    }
  };
  auto number = [&](const char* key, std::optional<int64_t>& field) {
    if (info.is_object() && info.contains(key) && info[key].is_number()) {
      field = info[key].is_number_integer() ? info[key].get<int64_t>()
                                            : static_cast<int64_t>(info[key].get<double>());
    }
  };
  text("extend", row.extend);
  number("auth_write_photos_album", row.auth_write_photos_album);
  number("auth_user_info", row.auth_user_info);
  number("auth_record", row.auth_record);
  number("auth_location", row.auth_location);
  number("auth_camera", row.auth_camera);
  text("reserve", row.reserve);
  number("played", row.played);  // carried, but the store never writes played from a row
  const bool saved = ZMDatabaseHelper::getInstance().updateOrInsertAppRow(row);
  auto host = listener.lock();
  if (!host) return;
  if (saved) {
    host->onGameDataSetSuccess();
  } else {
    host->onGameDataSetFailure(ZMError("set game data update database fail", 0));
  }
}

void ZMGameRuntime::removeGameList(const std::vector<std::string>& appIds,
                                   std::weak_ptr<ZMGameRemoveListener> listener) {
  if (appIds.empty()) return;
  GameUninstallPackageTaskInfo info;
  info.userId = userId_;
  for (const auto& appId : appIds) {
    // An id that could leave the roots can name no record (setGameData and installs refuse
    // it): it is skipped like any id without one, and no path is made from it.
    if (appIdError(appId)) continue;
    info.list.push_back(appId);
    info.appIdArrays.push_back(getAppDirPath(appId));
    info.userTempDirPathArrays.push_back(getUserCachePath(appId));
    info.userDataDirPathArrays.push_back(getUserDirPath(appId));
  }
  // Kept by the task group alone, until its last notification.
  adopt(std::make_shared<ZMGameUninstallPackageTask>(std::move(listener)))->execute(info);
}

void ZMGameRuntime::removeGameAll(std::weak_ptr<ZMGameRemoveListener> listener) {
  auto rows = ZMDatabaseHelper::getInstance().getAppidListByUserId(userId_);
  std::vector<std::string> appIds;
  ZMDatabaseHelper::getInstance().sync([&] {
    for (const auto& row : rows.value_or(std::vector<std::shared_ptr<ZMAppRow>>())) {
      if (row->app_id) appIds.push_back(*row->app_id);
    }
  });
  removeGameList(appIds, std::move(listener));
}

std::shared_ptr<ZMZimoGameConfig> ZMGameRuntime::getGameConfig(const ZMValue& options) {
  const auto appId = ZMTextOption(options, ZM_KEY_GAME_PACKAGE_APP_ID);
  auto version = ZMTextOption(options, ZM_KEY_GAME_PACKAGE_VERSION);
  if (!isSafe(appId)) return nullptr;
  if (!version || version->empty()) {
    const std::string detailFile = getAppDetailFile(*appId);
    if (!ZMFileUtils::isExist(detailFile)) return nullptr;
    version = ZMGameDetail(detailFile).gameVersion();
    if (!version || version->empty()) return nullptr;
  }
  if (!ZMSafePath::isComponent(*version)) return nullptr;
  const std::string path = ZMPathJoin(getAppPackageDir(*appId, *version), "game.config.json");
  if (!ZMFileUtils::isExist(path)) return std::make_shared<ZMGameConfig>();
  return ZMGameConfig::createGameCofingWithPath(path);
}
