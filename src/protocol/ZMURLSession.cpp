#include "protocol/ZMURLSession.h"

#include <dirent.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "platform/ZMFileManager.h"
#include "protocol/ZMURLSessionEngine.h"
#include "tavo/ZMSystemDirectories.h"

void ZMURLRequest::setValue(const std::string& value, const std::string& field) {
  std::erase_if(allHTTPHeaderFields,
                [&](const auto& header) { return ZMURLHeaderNameEquals(header.first, field); });
  allHTTPHeaderFields.emplace_back(field, value);
}

std::optional<std::string> ZMHTTPURLResponse::valueForHTTPHeaderField(
    std::string_view field) const {
  for (const auto& [name, value] : allHeaderFields) {
    if (ZMURLHeaderNameEquals(name, field)) return value;
  }
  return std::nullopt;
}

ZMURLSessionTask::ZMURLSessionTask(Token, Kind kind, uint64_t identifier,
                                   std::weak_ptr<ZMURLSession> session, uint64_t sessionIdentifier,
                                   ZMURLRequest request, ZMHTTPHeaderFields headers,
                                   double idleTimeout, std::string temporaryDirectory,
                                   DataCompletion completion)
    : kind_(kind),
      identifier_(identifier),
      session_(std::move(session)),
      sessionIdentifier_(sessionIdentifier),
      request_(std::move(request)),
      headers_(std::move(headers)),
      idleTimeout_(idleTimeout),
      temporaryDirectory_(std::move(temporaryDirectory)),
      completion_(std::move(completion)) {}

std::optional<ZMHTTPURLResponse> ZMURLSessionTask::response() const {
  std::lock_guard lock(mutex_);
  return response_;
}

std::optional<std::string> ZMURLSessionTask::downloadedMD5() const {
  std::lock_guard lock(mutex_);
  return downloadedMD5_;
}

std::optional<ZMDownloadResumeData> ZMURLSessionTask::resumeData() const {
  std::lock_guard lock(mutex_);
  return resumeData_;
}

std::optional<std::string> ZMURLSessionTask::downloadedBLAKE2b512() const {
  std::lock_guard lock(mutex_);
  return downloadedBLAKE2b512_;
}

std::optional<ZMError> ZMURLSessionTask::error() const {
  std::lock_guard lock(mutex_);
  return error_;
}

void ZMURLSessionTask::resume() {
  auto expected = State::suspended;
  if (!state_.compare_exchange_strong(expected, State::running)) return;
  auto session = session_.lock();
  if (!session) {
    state_.store(State::completed);
    return;
  }
  if (session->invalidated_.load()) {
    state_.store(State::canceling);
    ZMURLSessionEngine::complete(
        shared_from_this(), ZMURLSessionEngine::Outcome::failed(ZMURLCancelledError(request_.url)));
    return;
  }
  session->engine_->start(shared_from_this());
}

void ZMURLSessionTask::cancel() {
  auto state = state_.load();
  for (;;) {
    if (state == State::suspended) {
      if (!state_.compare_exchange_weak(state, State::canceling)) continue;
      ZMURLSessionEngine::complete(shared_from_this(), ZMURLSessionEngine::Outcome::failed(
                                                           ZMURLCancelledError(request_.url)));
      return;
    }
    if (state != State::running) return;
    if (state_.compare_exchange_weak(state, State::canceling)) break;
  }
  // The network thread ends the transfer, unless it has ended already.
  if (auto session = session_.lock()) session->engine_->cancel(identifier_);
}

// ---------------------------------------------------------------------------------------------

std::shared_ptr<ZMURLSession> ZMURLSession::sharedSession() {
  static const std::shared_ptr<ZMURLSession> session = std::make_shared<ZMURLSession>(
      Token{}, ZMURLSessionConfiguration::defaultSessionConfiguration(),
      std::weak_ptr<ZMURLSessionDelegate>(), true);
  return session;
}

std::shared_ptr<ZMURLSession> ZMURLSession::sessionWithConfiguration(
    ZMURLSessionConfiguration configuration, std::weak_ptr<ZMURLSessionDelegate> delegate) {
  return std::make_shared<ZMURLSession>(Token{}, std::move(configuration), std::move(delegate),
                                        false);
}

ZMURLSession::ZMURLSession(Token, ZMURLSessionConfiguration configuration,
                           std::weak_ptr<ZMURLSessionDelegate> delegate, bool shared)
    : identifier_(ZMURLNextIdentifier()),
      configuration_(std::move(configuration)),
      delegate_(std::move(delegate)),
      shared_(shared),
      engine_(ZMURLSessionEngine::acquire()) {}

ZMURLSession::~ZMURLSession() { engine_->cancelSession(identifier_); }

std::shared_ptr<ZMURLSessionTask> ZMURLSession::dataTask(ZMURLRequest request,
                                                         DataCompletion completion) {
  return makeTask(ZMURLSessionTask::Kind::data, std::move(request), std::move(completion));
}

std::shared_ptr<ZMURLSessionTask> ZMURLSession::downloadTask(ZMURLRequest request) {
  return makeTask(ZMURLSessionTask::Kind::download, std::move(request), nullptr);
}

std::shared_ptr<ZMURLSessionTask> ZMURLSession::makeTask(ZMURLSessionTask::Kind kind,
                                                         ZMURLRequest request,
                                                         DataCompletion completion) {
  ZMHTTPHeaderFields headers = request.allHTTPHeaderFields;
  for (const auto& extra : configuration_.HTTPAdditionalHeaders) {
    const bool overridden = std::any_of(headers.begin(), headers.end(), [&](const auto& header) {
      return ZMURLHeaderNameEquals(header.first, extra.first);
    });
    if (!overridden) headers.push_back(extra);
  }
  const double idleTimeout = request.timeoutInterval > 0 ? request.timeoutInterval
                                                         : configuration_.timeoutIntervalForRequest;
  std::string temporaryDirectory = kind == ZMURLSessionTask::Kind::download
                                       ? ZMSystemDirectories::temporaryDirectory()
                                       : std::string();
  auto task = std::make_shared<ZMURLSessionTask>(
      ZMURLSessionTask::Token{}, kind, ZMURLNextIdentifier(), weak_from_this(), identifier_,
      std::move(request), std::move(headers), idleTimeout > 0 ? idleTimeout : 60.0,
      std::move(temporaryDirectory), std::move(completion));
  std::lock_guard lock(tasksMutex_);
  std::erase_if(tasks_, [](const auto& weak) { return weak.expired(); });
  tasks_.push_back(task);
  return task;
}

void ZMURLSession::invalidateAndCancel() {
  if (shared_) return;
  invalidated_.store(true);
  std::vector<std::shared_ptr<ZMURLSessionTask>> live;
  {
    std::lock_guard lock(tasksMutex_);
    for (const auto& weak : tasks_) {
      if (auto task = weak.lock()) live.push_back(std::move(task));
    }
  }
  for (const auto& task : live) task->cancel();
}

void ZMURLSession::finishTasksAndInvalidate() {
  if (!shared_) invalidated_.store(true);
}

int64_t ZMURLSession::removeStaleDownloads(const std::string& directory) {
  constexpr std::string_view kPrefix = "tavo-download-";
  // Younger files are left alone: their writer may not have taken its lock yet.
  constexpr time_t kMinimumAge = 60;
  DIR* dir = ::opendir(directory.c_str());
  if (!dir) return 0;
  int64_t removed = 0;
  const time_t now = ::time(nullptr);
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.size() != kPrefix.size() + 6 || !name.starts_with(kPrefix)) continue;
    const std::string path = directory + "/" + name;
    struct stat info {};
    const int fd = ZMFileManager::openRegularFile(path, false, &info);
    if (fd < 0) continue;
    if (now - info.st_mtime >= kMinimumAge && ::flock(fd, LOCK_EX | LOCK_NB) == 0 &&
        ::unlink(path.c_str()) == 0) {
      ++removed;
    }
    ::close(fd);
  }
  ::closedir(dir);
  return removed;
}
