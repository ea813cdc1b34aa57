#include "game/ZMGameInstallPackageTask.h"

#include "platform/ZMFileManager.h"
#include "platform/ZMFormat.h"
#include "platform/ZMJSON.h"
#include "platform/ZMPath.h"
#include "platform/ZMValueAccess.h"
#include "storage/ZMDatabaseHelper.h"
#include "tavo/ZMFileUtils.h"
#include "tavo/ZMGameHandle.h"
#include "tavo/ZMOptionKeys.h"
#include "util/ZMDeleteFileFreeingLater.h"
#include "util/ZMSafePath.h"

ZMGameInstallPackageTask::ZMGameInstallPackageTask(std::weak_ptr<ZMPackageInstallListener> listener,
                                                   std::string userId, int64_t reqId,
                                                   std::string appDir, std::string installDir,
                                                   std::string detailFile, ZMPackageLimits limits,
                                                   ZMPackageTrust trust)
    : ZMTask(std::move(listener)),
      userId_(std::move(userId)),
      reqId_(reqId),
      appDir_(std::move(appDir)),
      installDir_(std::move(installDir)),
      detailFilePath_(std::move(detailFile)),
      limits_(limits),
      trust_(std::move(trust)) {}

void ZMGameInstallPackageTask::execute(const ZMValue& options) { _installGame(options); }

void ZMGameInstallPackageTask::_installGame(const ZMValue& options) {
  info_ = options;
  if (options.is_object() && options.contains(ZM_KEY_GAME_PACKAGE_SUBPACKAGE_ROOT)) {
    subpackageRoot_ = ZMTextOption(options, ZM_KEY_GAME_PACKAGE_SUBPACKAGE_ROOT).value_or("");
  }
  // The app id and version name the directories and describe the game in "detail.json"; without
  // them, or with ones that could leave the app root, the request is refused before anything is
  // cleared.
  for (const auto& [key, name, what] :
       {std::tuple{ZM_KEY_GAME_PACKAGE_APP_ID, "ZM_KEY_GAME_PACKAGE_APP_ID", "app id"},
        std::tuple{ZM_KEY_GAME_PACKAGE_VERSION, "ZM_KEY_GAME_PACKAGE_VERSION", "version"}}) {
    const auto text = ZMTextOption(options, key);
    if (!text || text->empty()) {
      _complete(ZMError(ZMFormat("missing install option: %@", {name}), -1, ZMValue::object()));
      return;
    }
    if (!ZMSafePath::isComponent(*text)) {
      _complete(ZMError(ZMFormat("invalid %@: %@", {what, text}), -1, ZMValue::object()));
      return;
    }
  }
  packagePath_ = ZMTextOption(options, ZM_KEY_GAME_PACKAGE_PATH).value_or("");
  if (!trust_.requiresSignatures()) {
    _unpack();
    return;
  }
  // The whole package is read: not on the caller's thread. Nothing is cleared before it passes.
  postWork([self = shared_from_this()] {
    if (self->isCancel()) return;
    if (auto refusal = self->trust_.verifyBeside(self->packagePath_)) {
      self->_complete(*refusal);
      return;
    }
    self->_unpack();
  });
}

void ZMGameInstallPackageTask::_unpack() {
  // A package too big to unpack fails while the installed game is still there.
  if (auto refusal = limits_.check(packagePath_)) {
    _complete(ZMError(*refusal, -1, ZMValue::object()));
    return;
  }
  if (!isSubpackage()) ZMFileUtils::deleteFileInFolder(appDir_, {});
  auto handle = ZMGameHandle::getInstance();
  if (!handle) {
    onUnzipFailed("no game engine is loaded to unzip the package");
    return;
  }
  handle->unzipFile(packagePath_, installDir_, shared_from_this());
}

void ZMGameInstallPackageTask::onUnzipProgress(float progress) {
  ZMLogFormat("unzip progress:%f", {static_cast<double>(progress)});
}

void ZMGameInstallPackageTask::onUnzipFailed(const std::string& message) {
  // A whole game leaves nothing half-extracted behind.
  if (!isSubpackage()) ZMFileUtils::deleteFileInFolder(appDir_, {});
  _complete(ZMError(message, -1, ZMValue::object()));
}

void ZMGameInstallPackageTask::onUnzipSucceed() {
  ZMValue detail;
  if (isSubpackage()) {
    auto existing = ZMFileUtils::readJSONObjectFromFile(detailFilePath_);
    if (existing && existing->is_object()) {
      detail = std::move(*existing);
      ZMValue list = ZMValue::array();
      if (auto it = detail.find("subpackages"); it != detail.end() && it->is_array()) list = *it;
      list.push_back(*subpackageRoot_);
      detail["subpackages"] = std::move(list);
    }
  }
  if (detail.is_null()) {
    // A whole game, or a subpackage whose detail cannot be read: the detail is rebuilt from the
    // request, and the subpackage root is then not recorded.
    detail = ZMValue::object();
    for (const char* key : {ZM_KEY_GAME_PACKAGE_APP_ID, ZM_KEY_GAME_PACKAGE_VERSION}) {
      auto text = ZMTextOption(info_, key);
      detail[key] = text ? ZMValue(*text) : ZMValue();
    }
  }
  // A write error is not reported: the game is installed all the same.
  ZMFileManager::writeFileAtomically(detailFilePath_, ZMJSONPrettyString(detail), nullptr);
  _complete(std::nullopt);
}

void ZMGameInstallPackageTask::_complete(std::optional<ZMError> error) {
  // A step, not a reply: the package is deleted and the game recorded even when nobody listens.
  postStep([error = std::move(error)](ZMGameInstallPackageTask& self) {
    self.finished();
    auto listener = self.listener_.lock();
    if (error) {
      if (listener) listener->onInstallFailure(*error);
      return;
    }
    ZMDeleteFileFreeingLater(self.packagePath_);
    if (self.trust_.requiresSignatures()) {
      ZMFileUtils::deleteFile(ZMPackageTrust::signatureOf(self.packagePath_));
    }
    ZMRow row;
    row.user_id = self.userId_;
    row.app_id = ZMTextOption(self.info_, ZM_KEY_GAME_PACKAGE_APP_ID);
    row.extend = ZMTextOption(self.info_, ZM_KEY_GAME_PACKAGE_EXTEND_DATA);
    ZMDatabaseHelper::getInstance().updateOrInsertAppRow(row);
    if (listener) listener->onInstallSuccess();
  });
}
