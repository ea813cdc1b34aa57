#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "protocol/ZMBackgroundMD5.h"
#include "protocol/ZMURLSession.h"

// ZMURLSessionEngine is the transport under ZMURLSession: one network thread and its curl multi
// handle, shared by every session alive. Sessions and tasks talk to it; nothing else does.
// Commands (start, cancel) may come from any thread; every transfer is driven on the network
// thread, and every callback is handed to the main queue from there.
class ZMURLSessionEngine {
 public:
  using Clock = std::chrono::steady_clock;

  struct Outcome {
    std::optional<ZMError> error;
    std::optional<ZMHTTPURLResponse> response;
    std::optional<std::string> data;  // data tasks that succeeded
    std::string location;             // download tasks that succeeded
    bool ownsLocation = true;         // false for the file the request named: never removed
    std::string md5;                  // of the bytes written to `location`, lower-case hex
    std::optional<ZMDownloadResumeData> resumeData;  // a failed download that can be continued
    std::string blake2b512;  // of the same bytes, when the request asked for it

    static Outcome failed(ZMError error) {
      Outcome outcome;
      outcome.error = std::move(error);
      return outcome;
    }
  };

  static std::shared_ptr<ZMURLSessionEngine> acquire();

  ZMURLSessionEngine();
  ~ZMURLSessionEngine();
  ZMURLSessionEngine(const ZMURLSessionEngine&) = delete;
  ZMURLSessionEngine& operator=(const ZMURLSessionEngine&) = delete;

  void start(std::shared_ptr<ZMURLSessionTask> task);
  void cancel(uint64_t taskIdentifier);
  // Ends the transfers of a session that is going away; nothing is delivered for them.
  void cancelSession(uint64_t sessionIdentifier);
  // Stops the thread after it has released every transfer, and joins it. Idempotent.
  void shutdown();

  // Hands a task's end to the main queue, which delivers it.
  static void complete(std::shared_ptr<ZMURLSessionTask> task, Outcome outcome);

 private:
  struct Transfer {
    std::shared_ptr<ZMURLSessionTask> task;
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    int fd = -1;  // download file
    std::string location;
    bool requestedFile = false;  // `location` is the file the request named, which stays
    // A continued download: the bytes already in the file before this response's body. A 200
    // to a range request starts the file over (0); a status that is neither leaves the file
    // alone and its body is dropped.
    int64_t offset = 0;
    bool discardBody = false;
    bool rangeMismatch = false;
    std::string data;     // data task reply
    std::string pending;  // download bytes not yet written to the file
    ZMHTTPHeaderFields headerFields;
    long headerStatus = 0;
    Clock::time_point lastActivity;
    Clock::duration idleTimeout{};
    std::optional<Clock::time_point> deadline;  // the request's whole-transfer limit
    // The slow-transfer rule: bytes received (headers and body) and where the current period
    // began.
    int64_t received = 0;
    int64_t periodReceived = 0;
    Clock::time_point periodStart;
    bool tooLarge = false;  // a data task's reply passed the request's maximum
    curl_off_t lastDown = 0;
    curl_off_t lastUp = 0;
    int writeErrno = 0;
    // MD5 of the bytes written so far, so the file need not be read again to be verified;
    // computed beside the transfer on a thread of its own.
    std::shared_ptr<ZMBackgroundMD5> md5;
    char errorBuffer[CURL_ERROR_SIZE] = {};
  };
  struct Command {
    enum class Kind { start, cancel, cancelSession } kind;
    std::shared_ptr<ZMURLSessionTask> task;
    uint64_t identifier = 0;
  };

  void push(Command command);
  void run();
  // Starts the delayed tasks whose time has come; lowers `wait` to the next one's.
  void startDelayed(Clock::duration& wait);
  void begin(std::shared_ptr<ZMURLSessionTask> task);
  // Opens the download file of a new transfer (the request's, or a fresh temporary one); false
  // with the error filled when neither can be made.
  bool openDownloadFile(Transfer& transfer, ZMError& error);
  // At the headers of a download's final response: continue, restart or leave its file.
  static void onFinalDownloadResponse(Transfer& transfer, long status);
  static std::optional<ZMDownloadResumeData> resumeDataOf(Transfer& transfer, long status);
  bool configure(Transfer& transfer);
  void finish(CURL* easy, CURLcode result);
  // Ends a transfer with an error, removing its file.
  void end(uint64_t taskIdentifier, ZMError error);
  // Writes a download's pending bytes to its file and reports progress; false when the write
  // failed (errno in writeErrno).
  static bool flush(Transfer& transfer);
  // Flushes every download after a round of network work, ending those whose write fails.
  void flushTransfers();
  static ZMError writeError(const Transfer& transfer);
  // Releases the curl handles and the file descriptor; removes the file when asked.
  void release(Transfer& transfer, bool removeFile);
  // Ends the transfers that broke their request's time rules; returns how long the thread may
  // wait before the next one could.
  Clock::duration expireIdleTransfers();
  // Why `transfer` must end at `now`, or null; lowers `wait` to its next moment of reckoning.
  static std::optional<std::string> timeRuleBroken(Transfer& transfer, Clock::time_point now,
                                                   Clock::duration& wait);

  static std::optional<ZMHTTPURLResponse> responseOf(const Transfer& transfer, long status);
  static ZMError errorOf(CURLcode result, const Transfer& transfer);
  static void deliverProgress(const std::weak_ptr<ZMURLSessionTask>& weakTask);
  static void deliverResponse(const std::weak_ptr<ZMURLSessionTask>& weakTask,
                              const ZMHTTPURLResponse& response);
  static void deliver(const std::shared_ptr<ZMURLSessionTask>& task, Outcome& outcome);
  static size_t onHeader(char* buffer, size_t size, size_t count, void* userdata);
  static size_t onBody(char* buffer, size_t size, size_t count, void* userdata);
  static int onProgress(void* userdata, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal,
                        curl_off_t ulnow);

  CURLM* const multi_;
  std::mutex mutex_;
  std::vector<Command> commands_;  // guarded by mutex_
  bool stopping_ = false;          // guarded by mutex_
  std::once_flag joined_;
  std::thread thread_;
  std::unordered_map<uint64_t, std::unique_ptr<Transfer>> transfers_;  // network thread only
  // Tasks whose request asked to wait before it is sent, with when (network thread only).
  std::vector<std::pair<Clock::time_point, std::shared_ptr<ZMURLSessionTask>>> delayed_;
};

// Shared by the engine and the session facade.
bool ZMURLHeaderNameEquals(std::string_view a, std::string_view b);
// The error of a cancelled task: -999, described "cancelled".
ZMError ZMURLCancelledError(const std::string& url);
// Identifiers of sessions and tasks, unique in the process.
uint64_t ZMURLNextIdentifier();
