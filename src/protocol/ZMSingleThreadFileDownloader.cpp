#include "protocol/ZMSingleThreadFileDownloader.h"

#include <atomic>

#include <algorithm>

#include "platform/ZMFileManager.h"
#include "platform/ZMFormat.h"

namespace {

std::atomic<double> timeoutForTesting{0};
std::atomic<double> resumeDelayForTesting{0};
constexpr double kLongestResumeDelay = 30;

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

void ZMSingleThreadFileDownloader::setResumeDelayForTesting(double seconds) {
  resumeDelayForTesting.store(seconds);
}

void ZMSingleThreadFileDownloader::setResume(int64_t attempts, const std::string& packagePath,
                                             const std::string& hash) {
  if (attempts <= 0) return;
  resumeAttempts_ = attempts;
  partial_.emplace(packagePath, url_, hash);
  // What an earlier download of the same package left is continued from the first transfer.
  if (auto left = partial_->load()) {
    ZMLogFormat("download resumes at %@ bytes: %@", {left->offset, url_});
    resumeFrom_ = std::move(*left);
  }
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
  if (partial_) {
    request.downloadFilePath = partial_->path();
    request.resumeData = resumeFrom_;
    request.startDelay = startDelay_;
  }
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

void ZMSingleThreadFileDownloader::didReceiveResponse(ZMURLSession&, ZMURLSessionTask& task,
                                                      const ZMHTTPURLResponse& response) {
  // Recorded as soon as the bytes start to arrive, so that a process killed midway leaves them
  // continuable.
  if (partial_ && task.usesRequestedFile()) partial_->record(response);
}

void ZMSingleThreadFileDownloader::didWriteData(ZMURLSession&, ZMURLSessionTask&, int64_t,
                                                int64_t totalBytesWritten,
                                                int64_t totalBytesExpectedToWrite) {
  // A continued transfer that had to start over does not report less than was reported.
  if (totalBytesWritten < progressReported_) return;
  progressReported_ = totalBytesWritten;
  _notifyProgress(totalBytesWritten, totalBytesExpectedToWrite);
}

void ZMSingleThreadFileDownloader::didFinishDownloadingToLocation(ZMURLSession&,
                                                                  ZMURLSessionTask& task,
                                                                  const std::string& location) {
  // Only 200 is a success, or a 206 that continues this download's own bytes; a 204 or another
  // 206 is as much a failure as a 404.
  const long status = statusOf(task);
  if (status != 200 && !(status == 206 && task.resumedFrom() > 0)) {
    // The server does not agree to the bytes kept: they are of no more use.
    if (partial_ && task.usesRequestedFile()) partial_->discard();
    _notifyFailure(status, std::to_string(status),
                   ZMError(kZMNetServicesErrorDomain, status, ZMValue::object()));
    return;
  }
  ZMError error;
  if (!ZMFileManager::moveItem(location, filePath_, &error)) {
    _notifyFailure(-1, "move file fail", error);
    return;
  }
  if (partial_ && task.usesRequestedFile()) partial_->forget();
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
  if (_resume(task)) return;
  // Bytes without a validator can never be continued; others stay for a later download.
  if (partial_ && task.usesRequestedFile() && !task.resumeData()) partial_->discard();
  _notifyFailure(statusOf(task), "download fail", *error);
}

bool ZMSingleThreadFileDownloader::_resume(ZMURLSessionTask& task) {
  auto data = task.resumeData();
  if (!partial_ || resumesUsed_ >= resumeAttempts_ || !data) return false;
  // 1 s, 2 s, 4 s ... between attempts that bring nothing new, 30 s at most; an attempt that
  // moved the download on starts the waits over.
  if (data->offset > resumeFrom_.offset) waitsWithoutProgress_ = 0;
  const double first = resumeDelayForTesting.load() > 0 ? resumeDelayForTesting.load() : 1.0;
  startDelay_ = std::min(first * static_cast<double>(int64_t{1} << waitsWithoutProgress_),
                         kLongestResumeDelay);
  waitsWithoutProgress_ = std::min<int64_t>(waitsWithoutProgress_ + 1, 16);
  ++resumesUsed_;
  ZMLogFormat("download resumes at %@ bytes in %@ s: %@", {data->offset, startDelay_, url_});
  resumeFrom_ = std::move(*data);
  {
    std::lock_guard lock(mutex_);
    task_.reset();  // the next _task() makes the continuing one
  }
  _task()->resume();
  return true;
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
