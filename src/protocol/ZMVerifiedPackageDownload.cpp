#include "protocol/ZMVerifiedPackageDownload.h"

#include <unistd.h>

#include <atomic>

#include "tavo/ZMFileUtils.h"
#include "util/ZMCachedPackage.h"

namespace {

std::string downloadPathBeside(const std::string& savePath) {
  static std::atomic<uint64_t> serial{0};
  return savePath + ".part-" + std::to_string(::getpid()) + "-" + std::to_string(++serial);
}

}  // namespace

ZMVerifiedPackageDownload::ZMVerifiedPackageDownload(
    std::weak_ptr<ZMPackageDownloadListener> listener, std::string savePath, std::string url)
    : savePath_(std::move(savePath)),
      downloadPath_(downloadPathBeside(savePath_)),
      url_(std::move(url)),
      listener_(std::move(listener)) {
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
      std::make_shared<ZMSingleThreadFileDownloader>(downloadPath_, url_, tag_, weak_from_this());
  downloader_->setResume(resumeAttempts_, savePath_, hash_.value_or(""));
  downloader_->start();
}

void ZMVerifiedPackageDownload::_checkPackageHash(const std::string&) {
  auto listener = listener_.lock();
  // With nobody listening, an absent hash falls through to the comparison below and fails it.
  if ((!hash_ || hash_->empty()) && listener) {
    _succeed(listener);
    return;
  }
  // The transfer hashed the bytes as it wrote them; the file is read again only when it could
  // not.
  const auto digest = downloader_ && downloader_->fileMD5()
                          ? downloader_->fileMD5()
                          : ZMFileUtils::getFileMD5(downloadPath_);
  // A missing file ("") or a failed digest (null) never matches; the comparison is exact, so an
  // upper-case hash never matches either.
  if (hash_ && digest && !digest->empty() && *digest == *hash_) {
    _succeed(listener);
    return;
  }
  ZMFileUtils::deleteFile(downloadPath_);
  if (isRetryDownload_) {
    if (listener) listener->onDownloadFailure(ZMError("package hash check failure", 0));
    return;
  }
  isRetryDownload_ = true;
  _downloadFile();  // silently: the listener hears no retry
}

void ZMVerifiedPackageDownload::_succeed(
    const std::shared_ptr<ZMPackageDownloadListener>& listener) {
  // Put in place even when nobody listens, as a finished download always was.
  ZMError error;
  if (!ZMCachedPackage::publish(downloadPath_, savePath_, &error)) {
    ZMFileUtils::deleteFile(downloadPath_);
    if (listener) listener->onDownloadFailure(error);
    return;
  }
  if (listener) listener->onDownloadSuccess(savePath_);
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
