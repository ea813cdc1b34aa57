#include "game/ZMGameDownloadPackageTask.h"

#include <optional>

#include "platform/ZMValueAccess.h"
#include "tavo/ZMFileUtils.h"
#include "tavo/ZMOptionKeys.h"

ZMGameDownloadPackageTask::ZMGameDownloadPackageTask(
    std::weak_ptr<ZMPackageDownloadListener> listener, std::string savePath, std::string url)
    : savePath_(std::move(savePath)), url_(std::move(url)), listener_(std::move(listener)) {
  _ensureFile();
}

void ZMGameDownloadPackageTask::_ensureFile() {
  if (ZMFileUtils::isExist(savePath_)) ZMFileUtils::deleteFile(savePath_);
}

void ZMGameDownloadPackageTask::execute(const ZMValue& options) {
  info_ = options;
  _downloadFile();
}

void ZMGameDownloadPackageTask::cancel() {
  if (downloader_) downloader_->cancel();
  downloader_.reset();
}

void ZMGameDownloadPackageTask::_downloadFile() {
  const std::string appId = ZMTextOption(info_, ZM_KEY_GAME_PACKAGE_APP_ID).value_or("");
  // Replacing the downloader releases the previous one, whose transfer has ended.
  downloader_ =
      std::make_shared<ZMSingleThreadFileDownloader>(savePath_, url_, appId, weak_from_this());
  downloader_->start();
}

void ZMGameDownloadPackageTask::_checkPackageHash(const std::string& path) {
  const auto hash = ZMTextOption(info_, ZM_KEY_GAME_PACKAGE_HASH);
  auto listener = listener_.lock();
  // With nobody listening, an absent hash falls through to the comparison below and fails it.
  if ((!hash || hash->empty()) && listener) {
    listener->onDownloadSuccess(path);
    return;
  }
  const auto digest = ZMFileUtils::getFileMD5(savePath_);
  // A missing file ("") or a failed digest (null) never matches; the comparison is exact, so an
  // upper-case hash never matches either.
  if (hash && digest && !digest->empty() && *digest == *hash) {
    if (listener) listener->onDownloadSuccess(path);
    return;
  }
  ZMFileUtils::deleteFile(savePath_);
  if (isRetryDownload_) {
    if (listener) listener->onDownloadFailure(ZMError("package hash check failure", 0));
    return;
  }
  isRetryDownload_ = true;
  _downloadFile();  // silently: the host hears no retry
}

void ZMGameDownloadPackageTask::onDownloadStart(const std::string&) {}

void ZMGameDownloadPackageTask::onDownloadProgress(int64_t done, int64_t total) {
  if (auto listener = listener_.lock()) listener->onDownloadProgress(done, total);
}

void ZMGameDownloadPackageTask::onDownloadSuccess(const std::string& path) {
  _checkPackageHash(path);
}

void ZMGameDownloadPackageTask::onDownloadFailure(int32_t, const std::string&,
                                                  const ZMError& error) {
  if (auto listener = listener_.lock()) listener->onDownloadFailure(error);
}

void ZMGameDownloadPackageTask::onDownloadCancel() {}

void ZMGameDownloadPackageTask::onDownloadRetry(int32_t retry) {
  if (auto listener = listener_.lock()) listener->onDownloadRetry(retry);
}
