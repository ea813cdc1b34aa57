#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tavo/ZMError.h"

// ZMURLSession is libtavo's HTTP client, shaped after Foundation's URL session and built on
// libcurl's multi interface. One network thread per process drives every transfer of every
// session; it starts with the first session and is joined when the last session goes away (or
// at process exit, whichever comes first).
//
// Two kinds of task:
//   - data tasks: any method (POST with a body for the service requests); the reply is collected
//     in memory and handed to a completion function (or the delegate's didCompleteWithError);
//   - download tasks: the body is streamed into a fresh file in
//     ZMSystemDirectories::temporaryDirectory(), through a write buffer of 1 MiB; it is never
//     held in memory as a whole. The delegate hears
//     didWriteData (progress), didFinishDownloadingToLocation (the file is removed when that
//     callback returns, unless the delegate moved it), then didCompleteWithError.
// Every delegate callback and completion runs on ZMMainQueue, in that order, one task's callbacks
// never overtaking each other. An HTTP status is not an error: a 404 body is downloaded like a
// 200 one and the status is read from the task's response.
//
// Errors are kZMURLErrorDomain errors with Foundation's codes (-999 cancelled, -1001 timed out,
// -1103 reply too large,
// -1004 cannot connect, -1005 connection lost, -1003 unknown host, -1000/-1002 bad or
// unsupported URL, -1200/-1202 TLS, -3000/-3003 temporary file), whose user information holds
// "NSLocalizedDescription" (a cancellation's is exactly "cancelled") and
// "NSErrorFailingURLStringKey". The time-out is an idle time-out: a task fails when no byte has
// gone either way for that long, however long the whole transfer takes.
//
// Ownership: a running task is kept alive by the network thread until its completion has been
// delivered. The session holds its delegate weakly and its tasks weakly; a task holds its session
// weakly. Destroying a session cancels its transfers silently: nothing more is delivered for them.
// HTTPS certificates are verified against the system's trust store. Cookies are kept in memory
// for the length of one task: a Set-Cookie on a redirect hop is sent on the next hop.

class ZMURLSession;
class ZMURLSessionEngine;
class ZMBackgroundMD5;

using ZMHTTPHeaderFields = std::vector<std::pair<std::string, std::string>>;

// Where a download stopped, for a later download task to continue from (Foundation's resume
// data): the file holding the bytes received so far, how many there are, the validator the
// server gave for them (its ETag, else its Last-Modified), and the digest of those bytes so far
// (null when it was not kept: the file is then hashed whole once it is complete).
struct ZMDownloadResumeData {
  std::string filePath;
  int64_t offset = 0;
  std::string validator;
  std::shared_ptr<ZMBackgroundMD5> md5;
};

struct ZMURLRequest {
  ZMURLRequest() = default;
  explicit ZMURLRequest(std::string url) : url(std::move(url)) {}

  // Replaces every header of that name (names compare case-insensitively), or adds it.
  void setValue(const std::string& value, const std::string& field);

  std::string url;
  std::string httpMethod = "GET";
  ZMHTTPHeaderFields allHTTPHeaderFields;
  std::string httpBody;
  // Idle time-out in seconds; 0 takes the session configuration's.
  double timeoutInterval = 0;
  // How long the whole transfer may take, however steadily bytes arrive; 0: no limit. Past it
  // the task fails with -1001.
  double timeoutIntervalForResource = 0;
  // The most bytes a data task's reply body may hold after content decoding (a small compressed
  // body may inflate to gigabytes); 0: no limit. Checked as the body arrives: past it the task
  // fails with -1103 without keeping more.
  int64_t maximumResponseSize = 0;
  // The slowest a transfer may be, in bytes a second averaged over each period as long as the
  // idle time-out; 0: no rule. A transfer that receives fewer bytes than that in one such period
  // fails with -1001, so a trickle cannot hold it open for ever while a slow but moving one goes
  // on. A silent connection fails at the end of its first period, just as the idle time-out says.
  int64_t minimumBytesPerSecond = 0;

  // Download tasks only. The file the body goes to, instead of a fresh temporary file: created
  // when missing and locked while written, so two processes never write it at once (a file
  // whose lock another holds is left alone, and a fresh temporary file is used instead). The
  // task's owner owns it: the session neither deletes it nor leaves it where it is.
  std::string downloadFilePath;
  // With downloadFilePath and an offset: continue the bytes already in it (its filePath is not
  // looked at: the file is downloadFilePath). The request then asks for
  // "Range: bytes=<offset>-" with "If-Range: <validator>"; a 206 whose Content-Range continues
  // the file appends to it, a 200 (the server ignores ranges, or the file changed) starts it
  // over from byte 0, and any other status leaves it untouched.
  ZMDownloadResumeData resumeData;
  // Seconds to wait before the request is sent; a cancel meanwhile ends the task at once.
  double startDelay = 0;
  // A download task also computes the BLAKE2b-512 of its body as it is written (see
  // ZMURLSessionTask::downloadedBLAKE2b512).
  bool computesBLAKE2b512 = false;
};

struct ZMHTTPURLResponse {
  // Header lookup; names compare case-insensitively, the first match wins.
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;

  std::string url;  // after redirects
  long statusCode = 0;
  ZMHTTPHeaderFields allHeaderFields;  // as received
  int64_t expectedContentLength = -1;  // -1 when the server sent no length
};

struct ZMURLSessionConfiguration {
  static ZMURLSessionConfiguration defaultSessionConfiguration() { return {}; }

  double timeoutIntervalForRequest = 60;     // idle time-out in seconds
  ZMHTTPHeaderFields HTTPAdditionalHeaders;  // sent unless the request sets the same field
};

class ZMURLSessionTask : public std::enable_shared_from_this<ZMURLSessionTask> {
  struct Token {};

 public:
  enum class Kind { data, download };
  enum class State { running, suspended, canceling, completed };
  using DataCompletion = std::function<void(const std::optional<std::string>& data,
                                            const std::optional<ZMHTTPURLResponse>& response,
                                            const std::optional<ZMError>& error)>;

  ZMURLSessionTask(Token, Kind kind, uint64_t identifier, std::weak_ptr<ZMURLSession> session,
                   uint64_t sessionIdentifier, ZMURLRequest request, ZMHTTPHeaderFields headers,
                   double idleTimeout, std::string temporaryDirectory, DataCompletion completion);
  ZMURLSessionTask(const ZMURLSessionTask&) = delete;
  ZMURLSessionTask& operator=(const ZMURLSessionTask&) = delete;

  uint64_t taskIdentifier() const { return identifier_; }
  Kind kind() const { return kind_; }
  const ZMURLRequest& originalRequest() const { return request_; }
  State state() const { return state_.load(); }
  // The last response received (the final one after redirects); null before any arrived.
  std::optional<ZMHTTPURLResponse> response() const;
  // The error the task completed with; null while running or after a success.
  std::optional<ZMError> error() const;
  int64_t countOfBytesReceived() const { return bytesReceived_.load(); }
  int64_t countOfBytesExpectedToReceive() const { return bytesExpected_.load(); }
  // A download's MD5 (32 lower-case hex digits), computed from the bytes as they were written to
  // its file; null before the file is handed over, for data tasks, or when it could not be made.
  std::optional<std::string> downloadedMD5() const;
  // The same for the BLAKE2b-512 (64 bytes), when the request asked for it.
  std::optional<std::string> downloadedBLAKE2b512() const;
  // A download task whose request named its file: whether the body went there (false when
  // another process held the file, and a fresh temporary file was used). Set when it starts.
  bool usesRequestedFile() const { return usesRequestedFile_.load(); }
  // The offset a 206 continued the request's file from; 0 when the body started at byte 0.
  int64_t resumedFrom() const { return resumedFrom_.load(); }
  // Where a failed download that wrote its request's file stopped, when it can be continued:
  // bytes arrived and the response named a validator. Null otherwise.
  std::optional<ZMDownloadResumeData> resumeData() const;

  // Starts a suspended task; does nothing otherwise. On an invalidated session the task
  // completes as cancelled. Any thread.
  void resume();
  // Ends the transfer; the task completes with -999 "cancelled" unless its completion is already
  // on its way. A suspended task completes as cancelled too. Any thread.
  void cancel();

 private:
  friend class ZMURLSession;
  friend class ZMURLSessionEngine;

  const Kind kind_;
  const uint64_t identifier_;
  const std::weak_ptr<ZMURLSession> session_;
  const uint64_t sessionIdentifier_;
  const ZMURLRequest request_;
  const ZMHTTPHeaderFields headers_;  // the request's and the configuration's, as sent
  const double idleTimeout_;
  const std::string temporaryDirectory_;
  DataCompletion completion_;  // called (and dropped) on the main queue

  std::atomic<State> state_{State::suspended};
  std::atomic<int64_t> bytesReceived_{0};
  std::atomic<int64_t> bytesExpected_{-1};
  std::atomic<bool> progressPending_{false};
  std::atomic<bool> usesRequestedFile_{false};
  std::atomic<int64_t> resumedFrom_{0};
  int64_t bytesReported_ = 0;  // main queue only
  bool delayed_ = false;       // network thread only: its start delay has been waited

  mutable std::mutex mutex_;
  std::optional<ZMHTTPURLResponse> response_;
  std::optional<ZMError> error_;
  std::optional<std::string> downloadedMD5_;
  std::optional<ZMDownloadResumeData> resumeData_;
  std::optional<std::string> downloadedBLAKE2b512_;
};

// Delegate callbacks arrive on the main queue. Every one has an empty default.
class ZMURLSessionDelegate {
 public:
  virtual ~ZMURLSessionDelegate() = default;
  // A download task wrote `bytesWritten` more bytes; `totalBytesExpectedToWrite` is -1 when the
  // server sent no length.
  virtual void didWriteData(ZMURLSession& /*session*/, ZMURLSessionTask& /*task*/,
                            int64_t /*bytesWritten*/, int64_t /*totalBytesWritten*/,
                            int64_t /*totalBytesExpectedToWrite*/) {}
  // A download task received the headers of its final response (after redirects), before any
  // of its body.
  virtual void didReceiveResponse(ZMURLSession& /*session*/, ZMURLSessionTask& /*task*/,
                                  const ZMHTTPURLResponse& /*response*/) {}
  // A download task received its whole body, which is in the file at `location`. Move it away
  // during this call to keep it (a file the request named is never removed).
  virtual void didFinishDownloadingToLocation(ZMURLSession& /*session*/, ZMURLSessionTask& /*task*/,
                                              const std::string& /*location*/) {}
  // The task ended; `error` is null on success (whatever the HTTP status). Data tasks created
  // with a completion function report there instead.
  virtual void didCompleteWithError(ZMURLSession& /*session*/, ZMURLSessionTask& /*task*/,
                                    const std::optional<ZMError>& /*error*/) {}
};

class ZMURLSession : public std::enable_shared_from_this<ZMURLSession> {
  struct Token {};

 public:
  using DataCompletion = ZMURLSessionTask::DataCompletion;

  // The process-wide session without delegate, for data tasks with completion functions. It
  // cannot be invalidated.
  static std::shared_ptr<ZMURLSession> sharedSession();
  static std::shared_ptr<ZMURLSession> sessionWithConfiguration(
      ZMURLSessionConfiguration configuration, std::weak_ptr<ZMURLSessionDelegate> delegate = {});
  // Deletes from `directory` the download files ("tavo-download-XXXXXX") that a process killed
  // mid-download left behind: those older than a minute whose lock nobody holds. A download in
  // progress, in this process or another, holds its file's lock, so its file stays. Returns how
  // many were deleted.
  static int64_t removeStaleDownloads(const std::string& directory);

  ZMURLSession(Token, ZMURLSessionConfiguration configuration,
               std::weak_ptr<ZMURLSessionDelegate> delegate, bool shared);
  ~ZMURLSession();
  ZMURLSession(const ZMURLSession&) = delete;
  ZMURLSession& operator=(const ZMURLSession&) = delete;

  const ZMURLSessionConfiguration& configuration() const { return configuration_; }
  std::shared_ptr<ZMURLSessionDelegate> delegate() const { return delegate_.lock(); }

  // New tasks are suspended: call resume(). Any thread.
  std::shared_ptr<ZMURLSessionTask> dataTask(ZMURLRequest request,
                                             DataCompletion completion = nullptr);
  std::shared_ptr<ZMURLSessionTask> downloadTask(ZMURLRequest request);

  // Cancels every task of the session (each completes with -999) and refuses new ones: tasks
  // resumed afterwards complete as cancelled at once.
  void invalidateAndCancel();
  // Lets running tasks finish and refuses new ones.
  void finishTasksAndInvalidate();
  bool isInvalidated() const { return invalidated_.load(); }

 private:
  friend class ZMURLSessionTask;
  friend class ZMURLSessionEngine;

  std::shared_ptr<ZMURLSessionTask> makeTask(ZMURLSessionTask::Kind kind, ZMURLRequest request,
                                             DataCompletion completion);

  const uint64_t identifier_;
  const ZMURLSessionConfiguration configuration_;
  const std::weak_ptr<ZMURLSessionDelegate> delegate_;
  const bool shared_;
  const std::shared_ptr<ZMURLSessionEngine> engine_;
  std::atomic<bool> invalidated_{false};

  std::mutex tasksMutex_;
  std::vector<std::weak_ptr<ZMURLSessionTask>> tasks_;
};
