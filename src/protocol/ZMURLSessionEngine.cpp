#include "protocol/ZMURLSessionEngine.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <system_error>
#include <thread>
#include <unordered_map>

#include "platform/ZMFormat.h"
#include "tavo/ZMMainQueue.h"
#include "tavo/ZMSystemDirectories.h"

namespace {

using Clock = ZMURLSessionEngine::Clock;

// Foundation codes that ZMError.h does not name.
constexpr int64_t kURLErrorHTTPTooManyRedirects = -1007;
constexpr int64_t kURLErrorBadServerResponse = -1011;
constexpr int64_t kURLErrorCannotDecodeContentData = -1016;

// Large receive buffer, and downloaded bytes gathered into writes of up to this size: curl hands
// the body over in pieces of 16 KiB at most, and a write (plus a progress report) per piece
// costs more than the copy.
constexpr long kReceiveBufferSize = 1L << 20;
constexpr std::size_t kWriteChunkSize = 1 << 20;
constexpr long kMaxRedirects = 16;
// The network thread wakes at least this often even when nothing happens.
constexpr auto kLongestWait = std::chrono::seconds(10);

std::atomic<uint64_t> nextIdentifier{1};

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

ZMError urlError(int64_t code, std::string description, const std::string& url,
                 std::string detail = {}) {
  ZMValue info = ZMValue::object();
  info[kZMLocalizedDescriptionKey] = std::move(description);
  info["NSErrorFailingURLStringKey"] = url;
  if (!detail.empty()) info["NSDebugDescription"] = std::move(detail);
  return ZMError(kZMURLErrorDomain, code, std::move(info));
}

ZMError cancelledError(const std::string& url) {
  return urlError(kZMURLErrorCancelled, "cancelled", url);
}

// Only http and https are fetched; anything else is refused before a connection is made.
std::optional<ZMError> checkURL(const std::string& url) {
  if (url.empty()) return urlError(kZMURLErrorUnsupportedURL, "unsupported URL", url);
  CURLU* handle = curl_url();
  if (!handle) return urlError(kZMURLErrorUnknown, "unknown error", url);
  std::optional<ZMError> error;
  char* scheme = nullptr;
  if (curl_url_set(handle, CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
    error = urlError(kZMURLErrorBadURL, "bad URL", url);
  } else if (curl_url_get(handle, CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK ||
             (!equalsIgnoringCase(scheme, "http") && !equalsIgnoringCase(scheme, "https"))) {
    error = urlError(kZMURLErrorUnsupportedURL, "unsupported URL", url);
  }
  curl_free(scheme);
  curl_url_cleanup(handle);
  return error;
}

int64_t contentLength(const ZMHTTPHeaderFields& fields) {
  int64_t length = -1;
  for (const auto& [name, value] : fields) {
    if (equalsIgnoringCase(name, "Transfer-Encoding")) return -1;  // chunked: no length
    if (equalsIgnoringCase(name, "Content-Length") && length < 0) {
      int64_t parsed = -1;
      const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), parsed);
      if (ec == std::errc() && end == value.data() + value.size() && parsed >= 0) {
        length = parsed;
      }
    }
  }
  return length;
}

// Whether a body of `received` bytes fails the final response's declared length: a
// Content-Length that cannot be read (not a plain number, or past 64 bits, which curl takes as no
// length at all) or that the body did not reach. A chunked body, or one that has none by its
// status, declares nothing.
bool failsDeclaredLength(const ZMHTTPHeaderFields& fields, long status, int64_t received) {
  if (status < 200 || status == 204 || status == 304) return false;
  for (const auto& [name, value] : fields) {
    if (equalsIgnoringCase(name, "Transfer-Encoding")) return false;
  }
  for (const auto& [name, value] : fields) {
    if (!equalsIgnoringCase(name, "Content-Length")) continue;
    int64_t declared = -1;
    const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), declared);
    if (ec != std::errc() || end != value.data() + value.size() || declared < 0) return true;
    if (declared != received) return true;
  }
  return false;
}

// The digest as 32 lower-case hex digits; empty without a context or when it cannot finish.
}  // namespace

namespace {

struct EngineRegistry {
  std::mutex mutex;
  std::weak_ptr<ZMURLSessionEngine> current;
};

// Never destroyed: sessions may be released during static destruction.
EngineRegistry& registry() {
  static EngineRegistry* r = new EngineRegistry();
  return *r;
}

// Joins the network thread at process exit even if some session is still alive, so that no
// transfer runs while libcurl and OpenSSL are torn down.
struct ExitGuard {
  ~ExitGuard() {
    std::shared_ptr<ZMURLSessionEngine> engine;
    {
      std::lock_guard lock(registry().mutex);
      engine = registry().current.lock();
    }
    if (engine) engine->shutdown();
  }
};

}  // namespace

std::shared_ptr<ZMURLSessionEngine> ZMURLSessionEngine::acquire() {
  // curl (and OpenSSL, which registers its exit handler here) is set up before the guard is
  // constructed, so the guard runs first at exit.
  static const bool initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  static ExitGuard guard;
  (void)initialised;
  std::lock_guard lock(registry().mutex);
  auto engine = registry().current.lock();
  if (!engine) {
    engine = std::make_shared<ZMURLSessionEngine>();
    registry().current = engine;
  }
  return engine;
}

ZMURLSessionEngine::ZMURLSessionEngine() : multi_(curl_multi_init()) {
  if (!multi_) throw std::bad_alloc();
  thread_ = std::thread([this] { run(); });
}

ZMURLSessionEngine::~ZMURLSessionEngine() {
  shutdown();
  curl_multi_cleanup(multi_);
}

void ZMURLSessionEngine::shutdown() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  curl_multi_wakeup(multi_);
  std::call_once(joined_, [this] { thread_.join(); });
}

void ZMURLSessionEngine::push(Command command) {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    commands_.push_back(std::move(command));
  }
  curl_multi_wakeup(multi_);
}

void ZMURLSessionEngine::start(std::shared_ptr<ZMURLSessionTask> task) {
  push({Command::Kind::start, std::move(task), 0});
}

void ZMURLSessionEngine::cancel(uint64_t taskIdentifier) {
  push({Command::Kind::cancel, nullptr, taskIdentifier});
}

void ZMURLSessionEngine::cancelSession(uint64_t sessionIdentifier) {
  push({Command::Kind::cancelSession, nullptr, sessionIdentifier});
}

void ZMURLSessionEngine::run() {
  for (;;) {
    std::vector<Command> commands;
    bool stop;
    {
      std::lock_guard lock(mutex_);
      commands.swap(commands_);
      stop = stopping_;
    }
    for (auto& command : commands) {
      switch (command.kind) {
        case Command::Kind::start:
          begin(std::move(command.task));
          break;
        case Command::Kind::cancel:
          if (auto it = transfers_.find(command.identifier); it != transfers_.end()) {
            end(command.identifier, cancelledError(it->second->task->request_.url));
          }
          std::erase_if(delayed_, [&](auto& entry) {
            if (entry.second->identifier_ != command.identifier) return false;
            complete(std::move(entry.second),
                     Outcome::failed(cancelledError(entry.second->request_.url)));
            return true;
          });
          break;
        case Command::Kind::cancelSession: {
          // Delayed tasks of a session going away are dropped: nothing is delivered for them.
          std::erase_if(delayed_, [&](auto& entry) {
            if (entry.second->sessionIdentifier_ != command.identifier) return false;
            ZMMainQueue::post([task = std::move(entry.second)] {});
            return true;
          });
          std::vector<uint64_t> ids;
          for (const auto& [id, transfer] : transfers_) {
            if (transfer->task->sessionIdentifier_ == command.identifier) ids.push_back(id);
          }
          for (uint64_t id : ids) end(id, cancelledError(transfers_[id]->task->request_.url));
          break;
        }
      }
    }
    if (stop) break;

    int running = 0;
    curl_multi_perform(multi_, &running);
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
      if (message->msg == CURLMSG_DONE) finish(message->easy_handle, message->data.result);
    }
    flushTransfers();
    auto wait = expireIdleTransfers();
    startDelayed(wait);
    const auto waitMs = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
    curl_multi_poll(multi_, nullptr, 0, static_cast<int>(waitMs), nullptr);
  }
  // Shutting down: release what is left. Tasks are handed to the main queue so that none is
  // destroyed on this thread (a task's completion may own the last reference to a session).
  for (auto& [id, transfer] : transfers_) {
    release(*transfer, true);
    ZMMainQueue::post([task = std::move(transfer->task)] {});
  }
  transfers_.clear();
  for (auto& entry : delayed_) ZMMainQueue::post([task = std::move(entry.second)] {});
  delayed_.clear();
}

void ZMURLSessionEngine::startDelayed(Clock::duration& wait) {
  const auto now = Clock::now();
  std::vector<std::shared_ptr<ZMURLSessionTask>> due;
  std::erase_if(delayed_, [&](auto& entry) {
    if (entry.first > now) {
      wait = std::min<Clock::duration>(wait, entry.first - now);
      return false;
    }
    due.push_back(std::move(entry.second));
    return true;
  });
  for (auto& task : due) begin(std::move(task));
  if (!due.empty()) wait = Clock::duration::zero();  // their handles want a first perform
}

void ZMURLSessionEngine::begin(std::shared_ptr<ZMURLSessionTask> task) {
  const std::string& url = task->request_.url;
  if (task->state_.load() != ZMURLSessionTask::State::running) {  // cancelled before it began
    complete(std::move(task), Outcome::failed(cancelledError(url)));
    return;
  }
  if (auto error = checkURL(url)) {
    complete(std::move(task), Outcome::failed(std::move(*error)));
    return;
  }
  if (const double delay = task->request_.startDelay; delay > 0 && !task->delayed_) {
    task->delayed_ = true;
    const auto due = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(delay));
    delayed_.emplace_back(due, std::move(task));
    return;
  }
  auto transfer = std::make_unique<Transfer>();
  transfer->task = std::move(task);
  ZMURLSessionTask& t = *transfer->task;
  if (t.kind_ == ZMURLSessionTask::Kind::download) {
    ZMError error;
    if (!openDownloadFile(*transfer, error)) {
      complete(std::move(transfer->task), Outcome::failed(std::move(error)));
      return;
    }
  }
  if (!configure(*transfer)) {
    release(*transfer, true);
    complete(std::move(transfer->task),
             Outcome::failed(
                 urlError(kZMURLErrorUnknown, "unknown error", url, "transfer setup failed")));
    return;
  }
  const auto now = Clock::now();
  const auto seconds = [](double value) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(value));
  };
  transfer->lastActivity = now;
  transfer->periodStart = now;
  transfer->idleTimeout = seconds(t.idleTimeout_);
  if (t.request_.timeoutIntervalForResource > 0) {
    transfer->deadline = now + seconds(t.request_.timeoutIntervalForResource);
  }
  transfers_.emplace(t.identifier_, std::move(transfer));
}

// The digests of a download's body, computed as it is written; null when their threads could
// not start, and the file is then hashed when it is verified.
static std::shared_ptr<ZMBackgroundMD5> newDigest(const ZMURLRequest& request) {
  try {
    return std::make_shared<ZMBackgroundMD5>(request.computesBLAKE2b512);
  } catch (const std::system_error&) {
    return nullptr;
  }
}

bool ZMURLSessionEngine::openDownloadFile(Transfer& transfer, ZMError& error) {
  ZMURLSessionTask& task = *transfer.task;
  const ZMURLRequest& request = task.request_;
  if (!request.downloadFilePath.empty()) {
    const std::string& path = request.downloadFilePath;
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    // The lock is held while the file is written: another process's download of the same file
    // goes to a temporary file of its own instead.
    struct stat info {};
    if (fd >= 0 && (::flock(fd, LOCK_EX | LOCK_NB) != 0 || ::fstat(fd, &info) != 0 ||
                    !S_ISREG(info.st_mode))) {
      ::close(fd);
      fd = -1;
    }
    if (fd >= 0) {
      // Bytes past the recorded offset (or a file shorter than it) cannot be trusted: the file
      // is continued only from an offset it holds whole, and otherwise starts over.
      const auto& resume = request.resumeData;
      const int64_t offset = resume.offset <= info.st_size ? resume.offset : 0;
      if (::ftruncate(fd, offset) == 0 && ::lseek(fd, offset, SEEK_SET) == offset) {
        transfer.fd = fd;
        transfer.location = path;
        transfer.requestedFile = true;
        transfer.offset = offset;
        task.usesRequestedFile_.store(true);
        if (offset > 0) {
          transfer.md5 = resume.md5;  // null: the whole file is hashed once complete
        } else {
          transfer.md5 = newDigest(request);
        }
        return true;
      }
      ::close(fd);
    }
  }
  std::string pattern = task.temporaryDirectory_ + "/tavo-download-XXXXXX";
  const int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
  if (fd < 0) {
    const int err = errno;
    error = urlError(kZMURLErrorCannotCreateFile, "The file couldn\u2019t be created.", request.url,
                     pattern + ": " + std::strerror(err));
    return false;
  }
  // Held until the file is closed: it tells a sweep in any process that this one is alive.
  (void)::flock(fd, LOCK_EX | LOCK_NB);
  transfer.fd = fd;
  transfer.location = std::move(pattern);
  transfer.md5 = newDigest(request);
  return true;
}

bool ZMURLSessionEngine::configure(Transfer& transfer) {
  const ZMURLSessionTask& task = *transfer.task;
  const ZMURLRequest& request = task.request_;
  CURL* easy = curl_easy_init();
  if (!easy) return false;
  transfer.easy = easy;
  bool ok = true;
  auto set = [&](CURLoption option, auto value) {
    ok = ok && curl_easy_setopt(easy, option, value) == CURLE_OK;
  };
  set(CURLOPT_URL, request.url.c_str());
  set(CURLOPT_PRIVATE, &transfer);
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  set(CURLOPT_FOLLOWLOCATION, 1L);
  set(CURLOPT_MAXREDIRS, kMaxRedirects);
  // The cookie engine, in memory and without a file: a cookie set on a redirect hop is sent on
  // the hops that follow.
  set(CURLOPT_COOKIEFILE, "");
  set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  set(CURLOPT_ERRORBUFFER, transfer.errorBuffer);
  set(CURLOPT_HEADERFUNCTION, &ZMURLSessionEngine::onHeader);
  set(CURLOPT_HEADERDATA, &transfer);
  set(CURLOPT_WRITEFUNCTION, &ZMURLSessionEngine::onBody);
  set(CURLOPT_WRITEDATA, &transfer);
  set(CURLOPT_NOPROGRESS, 0L);
  set(CURLOPT_XFERINFOFUNCTION, &ZMURLSessionEngine::onProgress);
  set(CURLOPT_XFERINFODATA, &transfer);
  if (task.kind_ == ZMURLSessionTask::Kind::download) {
    set(CURLOPT_BUFFERSIZE, kReceiveBufferSize);
    if (transfer.offset > 0) set(CURLOPT_RANGE, (std::to_string(transfer.offset) + "-").c_str());
  } else {
    set(CURLOPT_ACCEPT_ENCODING, "");  // whatever curl can decode; data tasks get plain bytes
  }

  const std::string& method = request.httpMethod;
  if (method == "HEAD") {
    set(CURLOPT_NOBODY, 1L);
  } else if (method == "GET" && request.httpBody.empty()) {
    set(CURLOPT_HTTPGET, 1L);
  } else {
    set(CURLOPT_POSTFIELDS, request.httpBody.data());
    set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.httpBody.size()));
    if (method != "POST") set(CURLOPT_CUSTOMREQUEST, method.c_str());
  }

  bool expectSet = false;
  for (const auto& [name, value] : task.headers_) {
    // "Name;" is curl's way to send a header with an empty value.
    const std::string line = value.empty() ? name + ";" : name + ": " + value;
    curl_slist* next = curl_slist_append(transfer.headers, line.c_str());
    if (!next) return false;
    transfer.headers = next;
    expectSet = expectSet || equalsIgnoringCase(name, "Expect");
  }
  if (transfer.offset > 0 && !request.resumeData.validator.empty()) {
    // The range only if the file is still the one the bytes came from; else the whole file.
    const std::string line = "If-Range: " + request.resumeData.validator;
    curl_slist* next = curl_slist_append(transfer.headers, line.c_str());
    if (!next) return false;
    transfer.headers = next;
  }
  if (!expectSet) {  // no "Expect: 100-continue" round trip for large bodies
    curl_slist* next = curl_slist_append(transfer.headers, "Expect:");
    if (!next) return false;
    transfer.headers = next;
  }
  set(CURLOPT_HTTPHEADER, transfer.headers);
  return ok && curl_multi_add_handle(multi_, easy) == CURLM_OK;
}

void ZMURLSessionEngine::release(Transfer& transfer, bool removeFile) {
  if (transfer.easy) {
    curl_multi_remove_handle(multi_, transfer.easy);
    curl_easy_cleanup(transfer.easy);
    transfer.easy = nullptr;
  }
  curl_slist_free_all(transfer.headers);
  transfer.headers = nullptr;
  if (transfer.fd >= 0) {
    ::close(transfer.fd);
    transfer.fd = -1;
  }
  transfer.md5.reset();
  if (removeFile && !transfer.requestedFile && !transfer.location.empty()) {
    ::unlink(transfer.location.c_str());
    transfer.location.clear();
  }
}

void ZMURLSessionEngine::finish(CURL* easy, CURLcode result) {
  Transfer* transfer = nullptr;
  curl_easy_getinfo(easy, CURLINFO_PRIVATE, &transfer);
  if (!transfer) return;
  const uint64_t id = transfer->task->identifier_;
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);

  Outcome outcome;
  outcome.response = responseOf(*transfer, status);
  // Also before a failure: the bytes that did arrive are reported as progress.
  const bool flushed = flush(*transfer);
  if (result != CURLE_OK) {
    outcome.error = errorOf(result, *transfer);
  } else if (!flushed) {
    outcome.error = writeError(*transfer);
  }
  if (transfer->fd >= 0) {
    const int closed = ::close(transfer->fd);
    const int err = errno;
    transfer->fd = -1;
    if (closed != 0 && !outcome.error) {
      outcome.error = urlError(kZMURLErrorCannotWriteToFile, "The file couldn\u2019t be written.",
                               transfer->task->request_.url, std::strerror(err));
    }
  }
  if (!outcome.error && transfer->task->kind_ == ZMURLSessionTask::Kind::download &&
      !transfer->discardBody &&
      failsDeclaredLength(transfer->headerFields, status,
                          transfer->task->bytesReceived_.load() - transfer->offset)) {
    outcome.error =
        urlError(kURLErrorBadServerResponse, "bad server response", transfer->task->request_.url,
                 "the body does not match its declared Content-Length");
  }
  if (!outcome.error) {
    if (transfer->task->kind_ == ZMURLSessionTask::Kind::download) {
      outcome.location = std::move(transfer->location);
      outcome.ownsLocation = !transfer->requestedFile;
      transfer->location.clear();
      outcome.md5 = transfer->md5 ? transfer->md5->finish() : std::string();
      if (transfer->md5) outcome.blake2b512 = transfer->md5->blake2b512();
    } else {
      outcome.data = std::move(transfer->data);
    }
  } else {
    outcome.resumeData = resumeDataOf(*transfer, status);
  }
  release(*transfer, true);
  complete(std::move(transfer->task), std::move(outcome));
  transfers_.erase(id);
}

void ZMURLSessionEngine::end(uint64_t taskIdentifier, ZMError error) {
  auto it = transfers_.find(taskIdentifier);
  if (it == transfers_.end()) return;
  Transfer& transfer = *it->second;
  flush(transfer);  // what arrived before the failure is reported; a write error changes nothing
  long status = 0;
  curl_easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &status);
  Outcome outcome;
  outcome.response = responseOf(transfer, status);
  outcome.error = std::move(error);
  outcome.resumeData = resumeDataOf(transfer, status);
  release(transfer, true);
  complete(std::move(transfer.task), std::move(outcome));
  transfers_.erase(it);
}

Clock::duration ZMURLSessionEngine::expireIdleTransfers() {
  const auto now = Clock::now();
  Clock::duration wait = kLongestWait;
  std::vector<std::pair<uint64_t, std::string>> expired;
  for (const auto& [id, transfer] : transfers_) {
    if (auto why = timeRuleBroken(*transfer, now, wait)) expired.emplace_back(id, std::move(*why));
  }
  for (auto& [id, why] : expired) {
    end(id, urlError(kZMURLErrorTimedOut, "The request timed out.",
                     transfers_[id]->task->request_.url, std::move(why)));
  }
  return wait;
}

std::optional<std::string> ZMURLSessionEngine::timeRuleBroken(Transfer& transfer,
                                                              Clock::time_point now,
                                                              Clock::duration& wait) {
  const auto seconds = [](Clock::duration d) { return std::chrono::duration<double>(d).count(); };
  const auto until = [&](Clock::time_point moment) {
    wait = std::min<Clock::duration>(wait, moment - now);
    return moment <= now;
  };
  if (until(transfer.lastActivity + transfer.idleTimeout)) {
    return ZMFormat("no byte for %@ s", {seconds(transfer.idleTimeout)});
  }
  if (transfer.deadline && until(*transfer.deadline)) {
    return ZMFormat("longer than %@ s in all",
                    {transfer.task->request_.timeoutIntervalForResource});
  }
  const int64_t rate = transfer.task->request_.minimumBytesPerSecond;
  if (rate > 0 && until(transfer.periodStart + transfer.idleTimeout)) {
    const double period = seconds(transfer.idleTimeout);
    if (static_cast<double>(transfer.received - transfer.periodReceived) < rate * period) {
      return ZMFormat("slower than %@ bytes/s for %@ s", {rate, period});
    }
    transfer.periodStart = now;
    transfer.periodReceived = transfer.received;
    until(now + transfer.idleTimeout);
  }
  return std::nullopt;
}

std::optional<ZMDownloadResumeData> ZMURLSessionEngine::resumeDataOf(Transfer& transfer,
                                                                     long status) {
  if (!transfer.requestedFile || transfer.discardBody || transfer.rangeMismatch ||
      (status != 200 && status != 206)) {
    return std::nullopt;
  }
  std::string validator;
  for (const char* field : {"ETag", "Last-Modified"}) {
    for (const auto& [name, value] : transfer.headerFields) {
      if (validator.empty() && equalsIgnoringCase(name, field)) validator = value;
    }
  }
  const int64_t offset = transfer.task->bytesReceived_.load();
  if (validator.empty() || offset <= 0 || transfer.writeErrno != 0) return std::nullopt;
  // The digest so far goes with the bytes, to be continued over the rest.
  return ZMDownloadResumeData{transfer.location, offset, std::move(validator), transfer.md5};
}

void ZMURLSessionEngine::onFinalDownloadResponse(Transfer& transfer, long status) {
  ZMURLSessionTask& task = *transfer.task;
  if (transfer.offset == 0) return;
  if (status == 206) {
    // Only a range that starts where the file stops continues it.
    int64_t first = -1;
    for (const auto& [name, value] : transfer.headerFields) {
      if (!equalsIgnoringCase(name, "Content-Range")) continue;
      std::string_view range = trim(value);
      if (!range.starts_with("bytes ")) continue;
      range.remove_prefix(6);
      std::from_chars(range.data(), range.data() + range.size(), first);
    }
    if (first != transfer.offset) {
      transfer.rangeMismatch = true;
      return;
    }
    task.resumedFrom_.store(transfer.offset);
    task.bytesReceived_.store(transfer.offset);
    const int64_t rest = contentLength(transfer.headerFields);
    task.bytesExpected_.store(rest >= 0 ? transfer.offset + rest : -1);
    return;
  }
  if (status == 200) {
    // The server sends the whole file (it ignores ranges, or the file changed): start over.
    if (::ftruncate(transfer.fd, 0) != 0 || ::lseek(transfer.fd, 0, SEEK_SET) != 0) {
      transfer.writeErrno = errno;
      transfer.rangeMismatch = true;
      return;
    }
    transfer.offset = 0;
    transfer.md5 = newDigest(transfer.task->request_);
    return;
  }
  // Any other answer leaves the bytes already there alone; its body is not kept.
  transfer.discardBody = true;
}

std::optional<ZMHTTPURLResponse> ZMURLSessionEngine::responseOf(const Transfer& transfer,
                                                                long status) {
  if (status <= 0) return std::nullopt;
  ZMHTTPURLResponse response;
  char* effective = nullptr;
  if (transfer.easy) curl_easy_getinfo(transfer.easy, CURLINFO_EFFECTIVE_URL, &effective);
  response.url = effective ? effective : transfer.task->request_.url;
  response.statusCode = status;
  response.allHeaderFields = transfer.headerFields;
  response.expectedContentLength = contentLength(transfer.headerFields);
  return response;
}

ZMError ZMURLSessionEngine::errorOf(CURLcode result, const Transfer& transfer) {
  const std::string& url = transfer.task->request_.url;
  std::string detail = transfer.errorBuffer[0] ? transfer.errorBuffer : curl_easy_strerror(result);
  switch (result) {
    case CURLE_UNSUPPORTED_PROTOCOL:
      return urlError(kZMURLErrorUnsupportedURL, "unsupported URL", url, detail);
    case CURLE_URL_MALFORMAT:
      return urlError(kZMURLErrorBadURL, "bad URL", url, detail);
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
      return urlError(kZMURLErrorCannotFindHost,
                      "A server with the specified hostname could not be found.", url, detail);
    case CURLE_COULDNT_CONNECT:
      return urlError(kZMURLErrorCannotConnectToHost, "Could not connect to the server.", url,
                      detail);
    case CURLE_OPERATION_TIMEDOUT:
      return urlError(kZMURLErrorTimedOut, "The request timed out.", url, detail);
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return urlError(kZMURLErrorNetworkConnectionLost, "The network connection was lost.", url,
                      detail);
    case CURLE_WEIRD_SERVER_REPLY:
      return urlError(kURLErrorBadServerResponse, "bad server response", url, detail);
    case CURLE_BAD_CONTENT_ENCODING:
      return urlError(kURLErrorCannotDecodeContentData, "cannot decode content data", url, detail);
    case CURLE_TOO_MANY_REDIRECTS:
      return urlError(kURLErrorHTTPTooManyRedirects, "too many HTTP redirects", url, detail);
    case CURLE_PEER_FAILED_VERIFICATION:
      return urlError(kZMURLErrorServerCertificateUntrusted,
                      "The certificate for this server is invalid.", url, detail);
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_USE_SSL_FAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CLIENTCERT:
      return urlError(kZMURLErrorSecureConnectionFailed,
                      "An SSL error has occurred and a secure connection to the server cannot "
                      "be made.",
                      url, detail);
    case CURLE_WRITE_ERROR:
      if (transfer.rangeMismatch && transfer.writeErrno == 0) {
        return urlError(kURLErrorBadServerResponse, "bad server response", url,
                        "the range sent does not continue the file");
      }
      if (transfer.tooLarge) {
        return urlError(kZMURLErrorDataLengthExceedsMaximum, "resource exceeds maximum size", url,
                        "the reply is longer than " +
                            std::to_string(transfer.task->request_.maximumResponseSize) + " bytes");
      }
      if (transfer.writeErrno != 0) return writeError(transfer);
      return urlError(kZMURLErrorCannotWriteToFile, "The file couldn\u2019t be written.", url,
                      detail);
    default:
      return urlError(kZMURLErrorUnknown, "unknown error", url, detail);
  }
}

size_t ZMURLSessionEngine::onHeader(char* buffer, size_t size, size_t count, void* userdata) {
  auto& transfer = *static_cast<Transfer*>(userdata);
  const size_t length = size * count;
  transfer.lastActivity = Clock::now();
  transfer.received += static_cast<int64_t>(length);
  std::string_view line(buffer, length);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  if (line.starts_with("HTTP/")) {  // a new response (after a redirect or a 1xx)
    transfer.headerFields.clear();
    transfer.headerStatus = 0;
    const auto space = line.find(' ');
    if (space != std::string_view::npos) {
      const auto code = line.substr(space + 1);
      std::from_chars(code.data(), code.data() + code.size(), transfer.headerStatus);
    }
  } else if (line.empty()) {
    if (transfer.headerStatus >= 200) {  // the headers of a final response are complete
      auto response = responseOf(transfer, transfer.headerStatus);
      ZMURLSessionTask& task = *transfer.task;
      task.bytesExpected_.store(response->expectedContentLength);
      const bool redirect = transfer.headerStatus / 100 == 3;
      if (task.kind_ == ZMURLSessionTask::Kind::download && !redirect) {
        onFinalDownloadResponse(transfer, transfer.headerStatus);
        ZMMainQueue::post([weak = std::weak_ptr<ZMURLSessionTask>(transfer.task), response] {
          deliverResponse(weak, *response);
        });
      }
      std::lock_guard lock(task.mutex_);
      task.response_ = std::move(response);
    }
  } else if ((line.front() == ' ' || line.front() == '\t') && !transfer.headerFields.empty()) {
    auto& value = transfer.headerFields.back().second;  // a folded line continues the value
    value += ' ';
    value += trim(line);
  } else if (const auto colon = line.find(':'); colon != std::string_view::npos) {
    transfer.headerFields.emplace_back(trim(line.substr(0, colon)), trim(line.substr(colon + 1)));
  }
  return length;
}

size_t ZMURLSessionEngine::onBody(char* buffer, size_t size, size_t count, void* userdata) {
  auto& transfer = *static_cast<Transfer*>(userdata);
  const size_t length = size * count;
  transfer.lastActivity = Clock::now();
  transfer.received += static_cast<int64_t>(length);
  ZMURLSessionTask& task = *transfer.task;
  if (task.kind_ == ZMURLSessionTask::Kind::data) {
    const int64_t maximum = task.request_.maximumResponseSize;
    if (maximum > 0 && static_cast<int64_t>(transfer.data.size() + length) > maximum) {
      transfer.tooLarge = true;
      return 0;  // curl ends the transfer with CURLE_WRITE_ERROR
    }
    transfer.data.append(buffer, length);
    task.bytesReceived_.fetch_add(static_cast<int64_t>(length));
    return length;
  }
  if (transfer.discardBody) return length;
  if (transfer.rangeMismatch) return 0;  // curl ends the transfer with CURLE_WRITE_ERROR
  if (transfer.pending.size() + length > kWriteChunkSize && !flush(transfer)) {
    return 0;  // curl ends the transfer with CURLE_WRITE_ERROR
  }
  if (transfer.pending.capacity() < kWriteChunkSize) transfer.pending.reserve(kWriteChunkSize);
  transfer.pending.append(buffer, length);
  return length;
}

bool ZMURLSessionEngine::flush(Transfer& transfer) {
  if (transfer.pending.empty()) return true;
  const char* data = transfer.pending.data();
  const size_t length = transfer.pending.size();
  size_t written = 0;
  while (written < length) {
    const ssize_t n = ::write(transfer.fd, data + written, length - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      transfer.writeErrno = errno;
      return false;
    }
    written += static_cast<size_t>(n);
  }
  if (transfer.md5) {
    transfer.md5->update(transfer.pending);  // hands the bytes over, leaves an empty buffer
  } else {
    transfer.pending.clear();
  }
  ZMURLSessionTask& task = *transfer.task;
  task.bytesReceived_.fetch_add(static_cast<int64_t>(length));
  // One progress block in the queue at a time; it reports the count as of when it runs.
  if (!task.progressPending_.exchange(true)) {
    ZMMainQueue::post(
        [weak = std::weak_ptr<ZMURLSessionTask>(transfer.task)] { deliverProgress(weak); });
  }
  return true;
}

void ZMURLSessionEngine::flushTransfers() {
  std::vector<uint64_t> failed;
  for (const auto& [id, transfer] : transfers_) {
    if (!flush(*transfer)) failed.push_back(id);
  }
  for (uint64_t id : failed) end(id, writeError(*transfers_[id]));
}

ZMError ZMURLSessionEngine::writeError(const Transfer& transfer) {
  return urlError(kZMURLErrorCannotWriteToFile, "The file couldn\u2019t be written.",
                  transfer.task->request_.url, std::strerror(transfer.writeErrno));
}

int ZMURLSessionEngine::onProgress(void* userdata, curl_off_t, curl_off_t dlnow, curl_off_t,
                                   curl_off_t ulnow) {
  auto& transfer = *static_cast<Transfer*>(userdata);
  if (dlnow != transfer.lastDown || ulnow != transfer.lastUp) {
    transfer.lastDown = dlnow;
    transfer.lastUp = ulnow;
    transfer.lastActivity = Clock::now();
  }
  return 0;
}

void ZMURLSessionEngine::complete(std::shared_ptr<ZMURLSessionTask> task, Outcome outcome) {
  ZMMainQueue::post(
      [task = std::move(task), outcome = std::move(outcome)]() mutable { deliver(task, outcome); });
}

void ZMURLSessionEngine::deliverProgress(const std::weak_ptr<ZMURLSessionTask>& weakTask) {
  auto task = weakTask.lock();
  if (!task) return;
  task->progressPending_.store(false);  // before reading the count: later bytes post again
  if (task->state_.load() != ZMURLSessionTask::State::running) return;
  auto session = task->session_.lock();
  if (!session) return;
  const int64_t total = task->bytesReceived_.load();
  const int64_t written = total - task->bytesReported_;
  if (written <= 0) return;
  task->bytesReported_ = total;
  if (auto delegate = session->delegate_.lock()) {
    delegate->didWriteData(*session, *task, written, total, task->bytesExpected_.load());
  }
}

void ZMURLSessionEngine::deliverResponse(const std::weak_ptr<ZMURLSessionTask>& weakTask,
                                         const ZMHTTPURLResponse& response) {
  auto task = weakTask.lock();
  if (!task || task->state_.load() != ZMURLSessionTask::State::running) return;
  auto session = task->session_.lock();
  if (!session) return;
  if (auto delegate = session->delegate_.lock()) {
    delegate->didReceiveResponse(*session, *task, response);
  }
}

void ZMURLSessionEngine::deliver(const std::shared_ptr<ZMURLSessionTask>& task, Outcome& outcome) {
  {
    std::lock_guard lock(task->mutex_);
    if (outcome.response) task->response_ = outcome.response;
    task->error_ = outcome.error;
    task->resumeData_ = std::move(outcome.resumeData);
  }
  task->state_.store(ZMURLSessionTask::State::completed);
  auto completion = std::move(task->completion_);
  task->completion_ = nullptr;
  auto session = task->session_.lock();
  if (!session) {  // a session that went away hears nothing
    if (!outcome.location.empty() && outcome.ownsLocation) ::unlink(outcome.location.c_str());
    return;
  }
  if (task->kind_ == ZMURLSessionTask::Kind::download && !outcome.error) {
    {
      std::lock_guard lock(task->mutex_);
      if (!outcome.md5.empty()) task->downloadedMD5_ = outcome.md5;
      if (!outcome.blake2b512.empty()) task->downloadedBLAKE2b512_ = outcome.blake2b512;
    }
    if (auto delegate = session->delegate_.lock()) {
      delegate->didFinishDownloadingToLocation(*session, *task, outcome.location);
    }
    // Gone already when the delegate moved it; the file a request named is its owner's.
    if (outcome.ownsLocation) ::unlink(outcome.location.c_str());
  }
  if (completion) {
    completion(outcome.data, outcome.response, outcome.error);
  } else if (auto delegate = session->delegate_.lock()) {
    delegate->didCompleteWithError(*session, *task, outcome.error);
  }
}

bool ZMURLHeaderNameEquals(std::string_view a, std::string_view b) {
  return equalsIgnoringCase(a, b);
}

ZMError ZMURLCancelledError(const std::string& url) { return cancelledError(url); }

uint64_t ZMURLNextIdentifier() { return nextIdentifier.fetch_add(1); }
