#include "merin/MerinGameHandle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <future>
#include <mutex>
#include <utility>

#include "MerinSerialThread.h"
#include "MerinZipExtractor.h"
#include "tavo/ZMError.h"
#include "tavo/ZMOptionKeys.h"

extern "C" MERIN_EXPORT const char __watermark_sign[] = "merin-reference-engine";

namespace {

constexpr const char* kGameConfigFile = "game.config.json";

ZMError MakeError(const std::string& domain, const std::string& description) {
  return ZMError(domain, -1, ZMValue{{kZMLocalizedDescriptionKey, description}});
}

std::shared_ptr<MerinGameView> MakeView(const std::string& appId, const ZMValue& config) {
  auto view = std::make_shared<MerinGameView>();
  view->appId = appId;
  const auto found = config.find("deviceOrientation");
  const bool portrait = found != config.end() && found->is_string() &&
                        found->get_ref<const std::string&>() == "portrait";
  view->orientation = portrait ? "portrait" : "landscape";
  view->width = portrait ? 720 : 1280;
  view->height = portrait ? 1280 : 720;
  return view;
}

// Reads the game configuration of the package directory named by the run options; on failure
// returns the error to report.
std::optional<ZMError> ReadGameConfig(const ZMValue& options, ZMValue* config) {
  const std::string key = ZM_SYSTEM_KEY_FILE_APP_PACKAGE_PATH;
  const ZMValue* dir = nullptr;
  if (options.is_object()) {
    if (auto found = options.find(key); found != options.end()) dir = &*found;
  }
  if (dir == nullptr || !dir->is_string() || dir->get_ref<const std::string&>().empty()) {
    return MakeError("missing run option: " + key, "the run options name no package directory");
  }
  const std::string path = dir->get_ref<const std::string&>() + "/" + kGameConfigFile;
  // A game without a configuration runs with the defaults, as the runtime reads it. Only a
  // regular file is read, without waiting: a FIFO there must not hold the engine's thread.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0 && errno == ENOENT) {
    *config = ZMValue::object();
    return std::nullopt;
  }
  std::string text;
  int error = fd < 0 ? errno : 0;
  struct stat st {};
  if (fd >= 0 && (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) error = EINVAL;
  for (char buffer[16384]; fd >= 0 && error == 0;) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) error = errno;
    if (got <= 0) break;
    text.append(buffer, static_cast<size_t>(got));
  }
  if (fd >= 0) ::close(fd);
  if (error != 0) {
    return MakeError("game.config.json is unreadable",
                     path + ": " + (error == EINVAL ? "not a regular file" : std::strerror(error)));
  }
  try {
    *config = ZMValue::parse(text);
  } catch (const nlohmann::json::exception& e) {
    return MakeError("game.config.json is invalid", path + ": " + e.what());
  }
  if (!config->is_object()) {
    return MakeError("game.config.json is invalid", path + ": not a JSON object");
  }
  return std::nullopt;
}

}  // namespace

struct MerinGameHandle::Impl {
  std::mutex mutex;
  std::weak_ptr<ZMOnGameQueryExitListener> queryExitListener;
  std::shared_ptr<ZMCorePermissionListener> permissionListener;
  std::optional<std::string> appId;  // the running or last game
  bool running = false;
  ZMValue options;
  std::shared_ptr<MerinGameView> view;

  // Declared last: destroyed (stopped and joined) first, while the state above still exists.
  MerinSerialThread engine;
  MerinSerialThread unzip;

  // The running game's id and the permission listener, when both exist.
  std::pair<std::string, std::shared_ptr<ZMCorePermissionListener>> permissionTarget() {
    std::lock_guard lock(mutex);
    if (!running || !appId || !permissionListener) return {};
    return {*appId, permissionListener};
  }

  // Runs `work` on the engine thread and waits for its result (inline on the engine thread).
  template <typename Result, typename Work>
  Result onEngine(Work work) {
    if (engine.isCurrent()) return work();
    std::packaged_task<Result()> task(std::move(work));
    auto result = task.get_future();
    engine.post([&task] { task(); });
    return result.get();
  }
};

std::shared_ptr<MerinGameHandle> MerinGameHandle::install() {
  auto handle = std::make_shared<MerinGameHandle>();
  ZMGameHandle::setInstance(handle);
  return handle;
}

MerinGameHandle::MerinGameHandle() : impl_(std::make_shared<Impl>()) {}

MerinGameHandle::~MerinGameHandle() {
  // Queued work finishes first, as in done(); the tasks hold the state they use.
  impl_->unzip.stop();
  impl_->engine.stop();
}

void MerinGameHandle::setOnGameQueryExitListener(
    std::weak_ptr<ZMOnGameQueryExitListener> listener) {
  std::lock_guard lock(impl_->mutex);
  impl_->queryExitListener = std::move(listener);
}

void MerinGameHandle::setOnGamePermissionListener(
    std::shared_ptr<ZMCorePermissionListener> listener) {
  std::lock_guard lock(impl_->mutex);
  impl_->permissionListener = std::move(listener);
}

void MerinGameHandle::runGame(std::weak_ptr<void> /*viewController*/, const std::string& appId,
                              const ZMValue& options, std::weak_ptr<ZMCoreRunListener> listener) {
  impl_->engine.post([self = impl_, appId, options, listener = std::move(listener)] {
    ZMValue config;
    if (auto error = ReadGameConfig(options, &config)) {
      if (auto target = listener.lock()) target->onRunFailure(*error);
      return;
    }
    auto view = MakeView(appId, config);
    {
      std::lock_guard lock(self->mutex);
      self->appId = appId;
      self->running = true;
      self->options = options;
      self->view = view;
    }
    if (auto target = listener.lock()) target->onGameViewCreated(view);
    if (auto target = listener.lock()) target->onRunSuccess();
  });
}

void MerinGameHandle::exitGame(const std::string& appId,
                               std::weak_ptr<ZMCoreExitListener> listener) {
  impl_->engine.post([self = impl_, appId, listener = std::move(listener)] {
    bool exited = false;
    {
      std::lock_guard lock(self->mutex);
      if (self->running && self->appId == appId) {
        self->running = false;
        self->view.reset();
        exited = true;
      }
    }
    auto target = listener.lock();
    if (!target) return;
    if (exited) {
      target->onCoreExitSuccess();
    } else {
      target->onCoreExitFailure(
          MakeError("no game running", "no game with app id " + appId + " runs"));
    }
  });
}

std::optional<std::string> MerinGameHandle::getAppId() {
  std::lock_guard lock(impl_->mutex);
  return impl_->appId;
}

void MerinGameHandle::done() {
  impl_->unzip.stop();
  impl_->engine.stop();
  std::lock_guard lock(impl_->mutex);
  impl_->appId.reset();
  impl_->running = false;
  impl_->options = ZMValue();
  impl_->view.reset();
  impl_->queryExitListener.reset();
  impl_->permissionListener.reset();
}

void MerinGameHandle::unzipFile(const std::string& zipPath, const std::string& destDir,
                                std::shared_ptr<ZMUnzipGamePackageListener> listener) {
  impl_->unzip.post([zipPath, destDir, listener = std::move(listener)]() mutable {
    // Progress comes while the extraction threads run: a throwing listener must not unwind
    // through them.
    auto progress = [&listener](float fraction) {
      if (!listener) return;
      try {
        listener->onUnzipProgress(fraction);
      } catch (const std::exception& e) {
        std::fprintf(stderr, "merin: onUnzipProgress threw: %s\n", e.what());
      } catch (...) {
        std::fprintf(stderr, "merin: onUnzipProgress threw\n");
      }
    };
    std::optional<std::string> failure;
    try {
      failure = MerinExtractZip(zipPath, destDir, progress);
    } catch (const std::exception& e) {
      failure = "cannot extract zip archive \"" + zipPath + "\": " + e.what();
    }
    // The listener is released with its terminal callback.
    const auto target = std::move(listener);
    if (!target) return;
    if (failure) {
      target->onUnzipFailed(*failure);
    } else {
      target->onUnzipSucceed();
    }
  });
}

void MerinGameHandle::requestQuit(const ZMValue& result) {
  impl_->engine.post([self = impl_, result] {
    std::shared_ptr<ZMOnGameQueryExitListener> target;
    {
      std::lock_guard lock(self->mutex);
      if (!self->running) return;
      target = self->queryExitListener.lock();
    }
    if (target) target->onCoreQueryExit(result);
  });
}

bool MerinGameHandle::grantPermissions(const std::vector<std::string>& granted,
                                       const std::vector<std::string>& denied) {
  return impl_->onEngine<bool>([&, self = impl_] {
    auto [appId, target] = self->permissionTarget();
    if (!target) return false;
    target->updatePermission(appId, granted, denied);
    return true;
  });
}

std::optional<int64_t> MerinGameHandle::queryPermission(const std::string& name) {
  return impl_->onEngine<std::optional<int64_t>>([&, self = impl_]() -> std::optional<int64_t> {
    auto [appId, target] = self->permissionTarget();
    if (!target) return std::nullopt;
    return target->getSinglePermission(appId, name);
  });
}

ZMValue MerinGameHandle::queryAllPermissions() {
  return impl_->onEngine<ZMValue>([self = impl_] {
    auto [appId, target] = self->permissionTarget();
    if (!target) return ZMValue();
    return target->getAllPermission(appId);
  });
}

bool MerinGameHandle::isRunning() {
  std::lock_guard lock(impl_->mutex);
  return impl_->running;
}

std::shared_ptr<MerinGameView> MerinGameHandle::getView() {
  std::lock_guard lock(impl_->mutex);
  return impl_->view;
}
