#include "protocol/ZMVerifiedPackageDownload.h"

#include "tavo/ZMFileUtils.h"

ZMVerifiedPackageDownload::ZMVerifiedPackageDownload(
    std::weak_ptr<ZMPackageDownloadListener> listener, std::string savePath, std::string url)
    : savePath_(std::move(savePath)), url_(std::move(url)), listener_(std::move(listener)) {
  _ensureFile();
}

void ZMVerifiedPackageDownload::_ensureFile() {
  if (ZMFileUtils::isExist(savePath_)) ZMFileUtils::deleteFile(savePath_);
}

void ZMVerifiedPackageDownload::start(std::optional<std::string> hash, std::string tag) {
  hash_ = std::move(hash);
  tag_ = std::move(tag);
  _downloadFile();
}

void ZMVerifiedPackageDownload::cancel() {
  if (downloader_) downloader_->cancel();
  downloader_.reset();
}

void ZMVerifiedPackageDownload::_downloadFile() {
  // Replacing the downloader releases the previous one, whose transfer has ended.
  downloader_ =
      std::make_shared<ZMSingleThreadFileDownloader>(savePath_, url_, tag_, weak_from_this());
  downloader_->start();
}

void ZMVerifiedPackageDownload::_checkPackageHash(const std::string& path) {
  auto listener = listener_.lock();
  // With nobody listening, an absent hash falls through to the comparison below and fails it.
  if ((!hash_ || hash_->empty()) && listener) {
    listener->onDownloadSuccess(path);
    return;
  }
  // The transfer hashed the bytes as it wrote them; the file is read again only when it could
  // not.
  const auto digest = downloader_ && downloader_->fileMD5() ? downloader_->fileMD5()
                                                            : ZMFileUtils::getFileMD5(savePath_);
  // A missing file ("") or a failed digest (null) never matches; the comparison is exact, so an
  // upper-case hash never matches either.
  if (hash_ && digest && !digest->empty() && *digest == *hash_) {
    if (listener) listener->onDownloadSuccess(path);
    return;
  }
  ZMFileUtils::deleteFile(savePath_);
  if (isRetryDownload_) {
    if (listener) listener->onDownloadFailure(ZMError("package hash check failure", 0));
    return;
  }
  isRetryDownload_ = true;
  _downloadFile();  // silently: the listener hears no retry
}

void ZMVerifiedPackageDownload::onDownloadStart(const std::string&) {}

void ZMVerifiedPackageDownload::onDownloadProgress(int64_t done, int64_t total) {
  if (auto listener = listener_.lock()) listener->onDownloadProgress(done, total);
}

void ZMVerifiedPackageDownload::onDownloadSuccess(const std::string& path) {
  _checkPackageHash(path);
}

void ZMVerifiedPackageDownload::onDownloadFailure(int32_t, const std::string&,
                                                  const ZMError& error) {
  // The downloader's code and message are already in its error.
  if (auto listener = listener_.lock()) listener->onDownloadFailure(error);
}

void ZMVerifiedPackageDownload::onDownloadCancel() {}

void ZMVerifiedPackageDownload::onDownloadRetry(int32_t retry) {
  if (auto listener = listener_.lock()) listener->onDownloadRetry(retry);
}
