#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "protocol/ZMOnFileDownloadListener.h"
#include "protocol/ZMPartialDownload.h"
#include "protocol/ZMURLSession.h"

// ZMSingleThreadFileDownloader fetches one URL into one file with a single GET on its own URL
// session: the body goes to a temporary file, which is moved to `filePath` when the server
// answered 200. Any other status, a failed move or a transfer error is a failure; cancel() ends
// the transfer with onDownloadCancel and no failure. No retry and no digest check: its users do
// that. Create it with std::make_shared (it is its session's delegate).
//
// Resumption is off unless setResume() is called before start(). Then the body goes to a
// partial download beside the package (ZMPartialDownload), and a transfer that fails after bytes
// arrived under a validator is continued up to `attempts` times with a range request, after
// waits of 1 s, 2 s, 4 s ... (30 s at most; an attempt that brought bytes starts them over at
// 1 s); a cancel during a wait ends it at once. Progress
// stays monotonic and counts the whole file. Bytes that another process left for the same URL
// and hash are continued too, and a failure leaves them for a later download.
//
// Threads: start() and cancel() may be called from any thread (onDownloadStart runs on the
// caller's); every other callback arrives on the main queue. The listener is held weakly: once it
// is gone, nothing is reported.
class ZMSingleThreadFileDownloader
    : public ZMURLSessionDelegate,
      public std::enable_shared_from_this<ZMSingleThreadFileDownloader> {
 public:
  // Idle time-out of the download: no byte for this long ends it with a failure.
  static constexpr double kTimeoutInterval = 90;
  // And a download that receives less than this many bytes a second, averaged over each idle
  // time-out period, fails too: a trickle of bytes cannot hold it open for ever, while a slow but
  // moving package still arrives.
  static constexpr int64_t kMinimumBytesPerSecond = 1024;

  ZMSingleThreadFileDownloader(std::string filePath, std::string url, std::string tag,
                               std::weak_ptr<ZMOnFileDownloadListener> listener);

  // Turns resumption on (see above) for the package whose final path is `packagePath`, expected
  // to have the MD5 `hash`.
  void setResume(int64_t attempts, const std::string& packagePath, const std::string& hash);
  // Starts the transfer (a new one when none is alive) and reports onDownloadStart(tag).
  void start();
  // Cancels the transfer (creating one first if none is alive, which then ends cancelled at
  // once) and invalidates the session; the downloader cannot be started again.
  void cancel();

  const std::string& filePath() const { return filePath_; }
  const std::string& url() const { return url_; }
  const std::string& tag() const { return tag_; }
  // The MD5 of the file at filePath() as it was written (32 lower-case hex digits), set just
  // before onDownloadSuccess; null when the transfer could not compute it. Main queue only.
  const std::optional<std::string>& fileMD5() const { return fileMD5_; }
  // Asks the transfer to compute the file's BLAKE2b-512 as well (before start()); it is then
  // set with fileMD5() (64 bytes; null when it could not be computed).
  void setComputesBLAKE2b512(bool computes) { computesBLAKE2b512_ = computes; }
  const std::optional<std::string>& fileBLAKE2b512() const { return fileBLAKE2b512_; }

  // Replaces the idle time-out of downloaders started afterwards; 0 restores kTimeoutInterval.
  static void setTimeoutIntervalForTesting(double seconds);
  // Replaces the first wait before a transfer is continued (1 s); 0 restores it.
  static void setResumeDelayForTesting(double seconds);

  // ZMURLSessionDelegate, on the main queue.
  void didReceiveResponse(ZMURLSession& session, ZMURLSessionTask& task,
                          const ZMHTTPURLResponse& response) override;
  void didWriteData(ZMURLSession& session, ZMURLSessionTask& task, int64_t bytesWritten,
                    int64_t totalBytesWritten, int64_t totalBytesExpectedToWrite) override;
  void didFinishDownloadingToLocation(ZMURLSession& session, ZMURLSessionTask& task,
                                      const std::string& location) override;
  void didCompleteWithError(ZMURLSession& session, ZMURLSessionTask& task,
                            const std::optional<ZMError>& error) override;

 private:
  std::shared_ptr<ZMURLSessionTask> _task();
  // Continues a failed transfer when resumption allows it; false when the failure stands.
  bool _resume(ZMURLSessionTask& task);

  void _notifyStart();
  void _notifySuccess(const std::string& path);
  void _notifyProgress(int64_t done, int64_t total);
  void _notifyFailure(int64_t code, const std::string& msg, const ZMError& error);
  void _notifyCancel();
  void _notifyRetry(int32_t retry);

  const std::string filePath_;
  const std::string url_;
  const std::string tag_;
  const std::weak_ptr<ZMOnFileDownloadListener> delegate_;

  std::mutex mutex_;  // session_ and task_, which start() and cancel() set up on first use
  std::shared_ptr<ZMURLSession> session_;
  std::weak_ptr<ZMURLSessionTask> task_;
  std::optional<std::string> fileMD5_;
  std::optional<std::string> fileBLAKE2b512_;
  bool computesBLAKE2b512_ = false;

  // Resumption (main queue, set before start()).
  std::optional<ZMPartialDownload> partial_;
  int64_t resumeAttempts_ = 0;
  int64_t resumesUsed_ = 0;
  int64_t waitsWithoutProgress_ = 0;
  ZMDownloadResumeData resumeFrom_;  // what the next task continues; offset 0: nothing
  double startDelay_ = 0;
  int64_t progressReported_ = 0;
};
