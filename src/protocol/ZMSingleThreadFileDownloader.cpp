#include "protocol/ZMSingleThreadFileDownloader.h"

#include <atomic>

#include "platform/ZMFileManager.h"

namespace {

std::atomic<double> timeoutForTesting{0};

long statusOf(const ZMURLSessionTask& task) {
  const auto response = task.response();
  return response ? response->statusCode : 0;
}

}  // namespace

ZMSingleThreadFileDownloader::ZMSingleThreadFileDownloader(
    std::string filePath, std::string url, std::string tag,
    std::weak_ptr<ZMOnFileDownloadListener> listener)
    : filePath_(std::move(filePath)),
      url_(std::move(url)),
      tag_(std::move(tag)),
      delegate_(std::move(listener)) {}

void ZMSingleThreadFileDownloader::setTimeoutIntervalForTesting(double seconds) {
  timeoutForTesting.store(seconds);
}

std::shared_ptr<ZMURLSessionTask> ZMSingleThreadFileDownloader::_task() {
  std::lock_guard lock(mutex_);
  if (auto task = task_.lock()) return task;
  if (!session_) {
    session_ = ZMURLSession::sessionWithConfiguration(
        ZMURLSessionConfiguration::defaultSessionConfiguration(), weak_from_this());
  }
  ZMURLRequest request(url_);
  const double override = timeoutForTesting.load();
  request.timeoutInterval = override > 0 ? override : kTimeoutInterval;
  request.minimumBytesPerSecond = kMinimumBytesPerSecond;
  request.computesBLAKE2b512 = computesBLAKE2b512_;
  auto task = session_->downloadTask(std::move(request));
  task_ = task;
  return task;
}

void ZMSingleThreadFileDownloader::start() {
  _task()->resume();
  _notifyStart();
}

void ZMSingleThreadFileDownloader::cancel() {
  auto task = _task();
  task->cancel();
  std::lock_guard lock(mutex_);
  session_->invalidateAndCancel();
}

void ZMSingleThreadFileDownloader::didWriteData(ZMURLSession&, ZMURLSessionTask&, int64_t,
                                                int64_t totalBytesWritten,
                                                int64_t totalBytesExpectedToWrite) {
  _notifyProgress(totalBytesWritten, totalBytesExpectedToWrite);
}

void ZMSingleThreadFileDownloader::didFinishDownloadingToLocation(ZMURLSession&,
                                                                  ZMURLSessionTask& task,
                                                                  const std::string& location) {
  // Only 200 is a success; a 204 or 206 is as much a failure as a 404.
  const long status = statusOf(task);
  if (status != 200) {
    _notifyFailure(status, std::to_string(status),
                   ZMError(kZMNetServicesErrorDomain, status, ZMValue::object()));
    return;
  }
  ZMError error;
  if (!ZMFileManager::moveItem(location, filePath_, &error)) {
    _notifyFailure(-1, "move file fail", error);
    return;
  }
  fileMD5_ = task.downloadedMD5();
  fileBLAKE2b512_ = task.downloadedBLAKE2b512();
  _notifySuccess(filePath_);
}

void ZMSingleThreadFileDownloader::didCompleteWithError(ZMURLSession&, ZMURLSessionTask& task,
                                                        const std::optional<ZMError>& error) {
  if (!error) return;  // success or a status failure was reported with the file
  // A cancellation is told apart by its description text, not by its code.
  if (error->localizedDescription() == "cancelled") {
    _notifyCancel();
    return;
  }
  _notifyFailure(statusOf(task), "download fail", *error);
}

void ZMSingleThreadFileDownloader::_notifyStart() {
  if (auto listener = delegate_.lock()) listener->onDownloadStart(tag_);
}

void ZMSingleThreadFileDownloader::_notifySuccess(const std::string& path) {
  if (auto listener = delegate_.lock()) listener->onDownloadSuccess(path);
}

void ZMSingleThreadFileDownloader::_notifyProgress(int64_t done, int64_t total) {
  if (auto listener = delegate_.lock()) listener->onDownloadProgress(done, total);
}

void ZMSingleThreadFileDownloader::_notifyFailure(int64_t code, const std::string& msg,
                                                  const ZMError& error) {
  if (auto listener = delegate_.lock()) {
    listener->onDownloadFailure(static_cast<int32_t>(code), msg, error);
  }
}

void ZMSingleThreadFileDownloader::_notifyCancel() {
  if (auto listener = delegate_.lock()) listener->onDownloadCancel();
}

// Deliberately empty: this downloader never retries.
void ZMSingleThreadFileDownloader::_notifyRetry(int32_t) {}
