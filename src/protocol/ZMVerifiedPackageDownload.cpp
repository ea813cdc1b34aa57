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
    std::weak_ptr<ZMPackageDownloadListener> listener, std::string savePath, std::string url,
    ZMPackageTrust trust)
    : savePath_(std::move(savePath)),
      downloadPath_(downloadPathBeside(savePath_)),
      url_(std::move(url)),
      listener_(std::move(listener)),
      trust_(std::move(trust)) {
  _ensureFile();
}

void ZMVerifiedPackageDownload::_ensureFile() {
  if (ZMFileUtils::isExist(savePath_)) ZMFileUtils::deleteFile(savePath_);
  if (trust_.requiresSignatures()) ZMFileUtils::deleteFile(ZMPackageTrust::signatureOf(savePath_));
}

void ZMVerifiedPackageDownload::start(std::optional<std::string> hash, std::string tag) {
  hash_ = std::move(hash);
  tag_ = std::move(tag);
  // Fetched beside the package: it is small, and a missing one ends the download early.
  if (trust_.requiresSignatures()) _fetchSignature();
  _downloadFile();
}

void ZMVerifiedPackageDownload::cancel() {
  ended_ = true;
  if (signatureTask_) signatureTask_->cancel();
  signatureTask_.reset();
  if (downloader_) downloader_->cancel();
  downloader_.reset();
  // A package that waited for its signature is not kept.
  if (awaitingSignature_) ZMFileUtils::deleteFile(downloadPath_);
}

void ZMVerifiedPackageDownload::_downloadFile() {
  // Replacing the downloader releases the previous one, whose transfer has ended.
  downloader_ =
      std::make_shared<ZMSingleThreadFileDownloader>(downloadPath_, url_, tag_, weak_from_this());
  downloader_->setResume(resumeAttempts_, savePath_, hash_.value_or(""));
  downloader_->setComputesBLAKE2b512(trust_.requiresSignatures());
  transferring_ = true;
  downloader_->start();
}

void ZMVerifiedPackageDownload::_fetchSignature() {
  ZMURLRequest request(signatureUrl());
  request.timeoutInterval = ZMSingleThreadFileDownloader::kTimeoutInterval;
  request.timeoutIntervalForResource = ZMSingleThreadFileDownloader::kTimeoutInterval;
  request.maximumResponseSize = static_cast<int64_t>(ZMPackageTrust::kMaxSignatureBytes);
  signatureTask_ = ZMURLSession::sharedSession()->dataTask(
      std::move(request),
      [weak = weak_from_this()](const std::optional<std::string>& data,
                                const std::optional<ZMHTTPURLResponse>& response,
                                const std::optional<ZMError>& error) {
        if (auto self = weak.lock()) self->_onSignature(data, response, error);
      });
  signatureTask_->resume();
}

void ZMVerifiedPackageDownload::_onSignature(const std::optional<std::string>& data,
                                             const std::optional<ZMHTTPURLResponse>& response,
                                             const std::optional<ZMError>& error) {
  signatureTask_.reset();
  if (ended_) return;
  if (error || !response || response->statusCode != 200 || !data) {
    // A reply too long to be a signature is one that does not parse.
    _fail(error && error->code == kZMURLErrorDataLengthExceedsMaximum
              ? ZMPackageTrust::invalid(signatureUrl())
              : ZMPackageTrust::missing(signatureUrl()));
    return;
  }
  signature_ = *data;
  if (awaitingSignature_) {
    awaitingSignature_ = false;
    _checkSignature(listener_.lock());
  }
}

void ZMVerifiedPackageDownload::_checkPackageHash(const std::string&) {
  auto listener = listener_.lock();
  // With nobody listening, an absent hash falls through to the comparison below and fails it.
  if ((!hash_ || hash_->empty()) && listener) {
    _checkSignature(listener);
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
    _checkSignature(listener);
    return;
  }
  ZMFileUtils::deleteFile(downloadPath_);
  if (isRetryDownload_) {
    _fail(ZMError("package hash check failure", 0));
    return;
  }
  isRetryDownload_ = true;
  _downloadFile();  // silently: the listener hears no retry
}

void ZMVerifiedPackageDownload::_checkSignature(
    const std::shared_ptr<ZMPackageDownloadListener>& listener) {
  if (!trust_.requiresSignatures()) {
    _succeed(listener);
    return;
  }
  if (!signature_) {
    awaitingSignature_ = true;
    return;
  }
  // A prehashed signature signs the BLAKE2b-512 that the transfer computed as it wrote.
  const auto prehash = downloader_ ? downloader_->fileBLAKE2b512() : std::nullopt;
  if (auto refusal = trust_.verify(*signature_, downloadPath_, signatureUrl(), prehash)) {
    _fail(*refusal);
    return;
  }
  _succeed(listener);
}

void ZMVerifiedPackageDownload::_succeed(
    const std::shared_ptr<ZMPackageDownloadListener>& listener) {
  // Put in place even when nobody listens, as a finished download always was.
  ZMError error;
  // The digest the transfer computed saves the install a read of the package.
  const auto prehash = downloader_ ? downloader_->fileBLAKE2b512() : std::nullopt;
  if (!ZMCachedPackage::publish(downloadPath_, savePath_, &error, signature_, prehash)) {
    ZMFileUtils::deleteFile(downloadPath_);
    if (listener) listener->onDownloadFailure(error);
    return;
  }
  if (listener) listener->onDownloadSuccess(savePath_);
}

void ZMVerifiedPackageDownload::_fail(const ZMError& error) {
  ended_ = true;
  if (signatureTask_) signatureTask_->cancel();
  signatureTask_.reset();
  // Released as well, so that a transfer whose end is already on its way keeps nothing.
  if (downloader_ && transferring_) downloader_->cancel();
  downloader_.reset();
  ZMFileUtils::deleteFile(downloadPath_);
  if (auto listener = listener_.lock()) listener->onDownloadFailure(error);
}

void ZMVerifiedPackageDownload::onDownloadStart(const std::string&) {}

void ZMVerifiedPackageDownload::onDownloadProgress(int64_t done, int64_t total) {
  if (ended_) return;
  if (auto listener = listener_.lock()) listener->onDownloadProgress(done, total);
}

void ZMVerifiedPackageDownload::onDownloadSuccess(const std::string& path) {
  transferring_ = false;
  if (ended_) return;
  _checkPackageHash(path);
}

void ZMVerifiedPackageDownload::onDownloadFailure(int32_t, const std::string&,
                                                  const ZMError& error) {
  transferring_ = false;
  if (ended_) return;
  // The downloader's code and message are already in its error.
  _fail(error);
}

void ZMVerifiedPackageDownload::onDownloadCancel() { transferring_ = false; }

void ZMVerifiedPackageDownload::onDownloadRetry(int32_t retry) {
  if (ended_) return;
  if (auto listener = listener_.lock()) listener->onDownloadRetry(retry);
}
