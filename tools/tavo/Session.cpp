#include "Session.h"

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iostream>

namespace {

constexpr std::string_view kUnzipProgress = "unzip progress:";
// The downloader's line when it continues a download, which the bar's reader wants to see.
constexpr std::string_view kDownloadResumes = "download resumes at ";

// Set by the handler on whichever thread the signal lands: a lock-free atomic, safe there.
std::atomic<bool> holdInterrupted{false};

extern "C" void InterruptHold(int) { holdInterrupted = true; }

// Keeps the game running for `hold`, until SIGINT or SIGTERM, or until `done` holds; either way
// the game then exits as usual. Outside the hold the signals keep their usual effect.
void HoldGame(std::chrono::milliseconds hold, const std::function<bool()>& done) {
  struct sigaction interrupt {
  }, previousInt{}, previousTerm{};
  interrupt.sa_handler = InterruptHold;
  interrupt.sa_flags = SA_RESTART;
  sigemptyset(&interrupt.sa_mask);
  holdInterrupted = false;
  sigaction(SIGINT, &interrupt, &previousInt);
  sigaction(SIGTERM, &interrupt, &previousTerm);
  // A signal handler cannot wake the main queue, so the flag is looked at every 100 ms.
  const auto end = std::chrono::steady_clock::now() + hold;
  for (auto now = std::chrono::steady_clock::now(); !holdInterrupted && now < end;
       now = std::chrono::steady_clock::now()) {
    const auto slice =
        std::min<std::chrono::steady_clock::duration>(end - now, std::chrono::milliseconds(100));
    const bool finished =
        ZMMainQueue::runUntil([&] { return holdInterrupted.load() || (done && done()); },
                              std::chrono::duration_cast<std::chrono::milliseconds>(slice));
    if (finished) break;
  }
  sigaction(SIGINT, &previousInt, nullptr);
  sigaction(SIGTERM, &previousTerm, nullptr);
}

class InitListener : public ZMRuntimeInitListener {
 public:
  explicit InitListener(Reporter& reporter) : reporter_(reporter) {}
  std::shared_ptr<ZMZimoGameRuntime> runtime;
  std::optional<std::string> failure;

  void onInitializeSuccess(std::shared_ptr<ZMZimoGameRuntime> r) override {
    reporter_.event("onInitializeSuccess", ZMValue::array({"ZMZimoGameRuntime"}));
    runtime = std::move(r);
  }
  void onInitializeFailure(const ZMException& e) override {
    reporter_.event(
        "onInitializeFailure",
        ZMValue::array({ZMValue{{"name", e.name()},
                                {"reason", e.reason() ? ZMValue(*e.reason()) : ZMValue()}}}));
    failure = e.name() + ": " + e.reason().value_or("(no reason)");
  }

 private:
  Reporter& reporter_;
};

}  // namespace

Session::Session(Reporter& reporter, Settings settings)
    : reporter_(reporter), settings_(std::move(settings)) {
  // The engine reports unzip progress only through the log: it feeds the install's bar.
  ZMLog::setSink([this](std::string_view line) {
    if (line.substr(0, kDownloadResumes.size()) == kDownloadResumes) {
      const int64_t at = std::atoll(std::string(line.substr(kDownloadResumes.size())).c_str());
      reporter_.say("  download resumes at " + std::to_string(at) + " bytes");
    }
    if (line.substr(0, kUnzipProgress.size()) == kUnzipProgress) {
      const double fraction = std::atof(std::string(line.substr(kUnzipProgress.size())).c_str());
      reporter_.progress("install", static_cast<int64_t>(fraction * 100), 100, "percent");
    }
    if (settings_.verbose) std::cerr << "libtavo: " << line << std::endl;
  });
}

Session::~Session() {
  if (runtime_) runtime_->done();
  ZMLog::setSink(nullptr);
}

bool Session::start() {
  ZMValue options = ZMValue::object();
  if (!settings_.root.empty()) {
    const std::string& root = settings_.root;
    ZMSystemDirectories::setDocumentsDirectory(root + "/Documents");
    ZMSystemDirectories::setCachesDirectory(root + "/Caches");
    ZMSystemDirectories::setTemporaryDirectory(root + "/tmp");
    options[ZM_KEY_STORAGE_PATH_PLUGIN] = root + "/Caches/plugin";
  }
  if (settings_.resumeAttempts > 0) {
    options[ZM_KEY_DOWNLOAD_RESUME_ATTEMPTS] = settings_.resumeAttempts;
  }
  if (!settings_.trustedKeys.empty()) {
    options[ZM_KEY_PACKAGE_TRUSTED_KEYS] = ZMValue(settings_.trustedKeys);
  }
  auto listener = std::make_shared<InitListener>(reporter_);
  ZMZimoGame::initRuntime(settings_.user, options, listener);
  if (listener->failure || !listener->runtime) {
    reporter_.failure("the runtime could not start", listener->failure.value_or("no runtime"));
    return false;
  }
  runtime_ = listener->runtime;
  plugins_ = runtime_->getManager("plugin_manager", ZMValue::object());
  if (!plugins_) {
    reporter_.failure("the runtime could not start", "no plug-in manager");
    return false;
  }
  if (!settings_.pluginServices.empty()) plugins_->setPluginServiceHosts(settings_.pluginServices);
  return true;
}

int Session::finish(const std::string& what, const HostListener& listener) {
  if (!ZMMainQueue::runUntil([&] { return listener.finished(); }, settings_.timeout)) {
    reporter_.failure(what, "no answer within " + std::to_string(settings_.timeout.count()) + " s");
    return kExitTimedOut;
  }
  lastError_ = listener.error();
  if (lastError_) {
    if (reportFailures_) reporter_.failure(what + " failed", *lastError_);
    return kExitFailure;
  }
  return kExitSuccess;
}

int Session::check(const std::string& appId, const std::string& version) {
  auto l = listener();
  reporter_.say("Checking " + appId + " " + version);
  runtime_->checkGameVersion(
      {{ZM_KEY_GAME_PACKAGE_APP_ID, appId}, {ZM_KEY_GAME_PACKAGE_VERSION, version}}, l);
  return finish("check", *l);
}

int Session::download(const std::string& appId, const std::string& version, const std::string& url,
                      const std::optional<std::string>& hash, std::string* path) {
  auto l = listener();
  ZMValue options = {{ZM_KEY_GAME_PACKAGE_APP_ID, appId},
                     {ZM_KEY_GAME_PACKAGE_VERSION, version},
                     {ZM_KEY_GAME_PACKAGE_URL, url}};
  if (hash) options[ZM_KEY_GAME_PACKAGE_HASH] = *hash;
  reporter_.say("Downloading " + url + (hash ? " (MD5 " + *hash + ")" : ""));
  runtime_->downloadGamePackage(options, l);
  const int status = finish("download", *l);
  if (path) *path = l->downloadedPath();
  return status;
}

int Session::install(const std::string& appId, const std::string& version,
                     const std::string& package, const std::optional<std::string>& subpackageRoot,
                     const std::optional<std::string>& extend) {
  auto l = listener();
  ZMValue options = {{ZM_KEY_GAME_PACKAGE_APP_ID, appId},
                     {ZM_KEY_GAME_PACKAGE_VERSION, version},
                     {ZM_KEY_GAME_PACKAGE_PATH, package}};
  if (subpackageRoot) options[ZM_KEY_GAME_PACKAGE_SUBPACKAGE_ROOT] = *subpackageRoot;
  if (extend) options[ZM_KEY_GAME_PACKAGE_EXTEND_DATA] = *extend;
  reporter_.say("Installing " + package + " as " + appId + " " + version);
  runtime_->installGamePackage(options, l);
  return finish("install", *l);
}

int Session::run(const std::string& appId, const std::string& version,
                 const std::optional<std::string>& extend, std::chrono::milliseconds hold,
                 bool loadingTimes, const std::function<bool()>& holdUntil) {
  auto l = listener();
  ZMValue options = {{ZM_KEY_RUN_OPT_VERSION, version}};
  if (extend) options[ZM_KEY_RUN_OPT_EXTEND] = *extend;
  if (loadingTimes) options[ZM_KEY_RUN_DEBUG_SHOW_GAME_LOADING_TIME_LOG] = true;
  reporter_.say("Running " + appId + " " + version);
  runtime_->setGameQueryExitListener(l);
  runtime_->runGame(viewController_, appId, options, l);
  if (int status = finish("run", *l); status != kExitSuccess) return status;
  if (hold.count() > 0) {
    reporter_.say("  keeping it running for " + std::to_string(hold.count()) +
                  " ms (SIGINT or SIGTERM ends it sooner)");
    HoldGame(hold, holdUntil);
  }
  auto exit = listener();
  reporter_.say("Exiting " + appId);
  runtime_->exitGame(appId, exit);
  return finish("exit", *exit);
}

int Session::list(ZMValue* items) {
  auto l = listener();
  reporter_.say("Games of " + settings_.user + ":");
  runtime_->listGame(l);
  const int status = finish("list", *l);
  if (items) *items = l->items();
  return status;
}

int Session::setData(const std::string& appId, const ZMValue& info) {
  auto l = listener();
  reporter_.say("Storing " + ToJSON(info) + " for " + appId);
  runtime_->setGameData(appId, info, l);
  return finish("set-data", *l);
}

int Session::remove(const std::vector<std::string>& appIds) {
  auto l = listener();
  reporter_.say("Removing " + ToJSON(ZMValue(appIds)));
  runtime_->removeGameList(appIds, l);
  return finish("remove", *l);
}

int Session::removeAll() {
  // The runtime says nothing at all when the user has no games, so there would be nothing to
  // wait for: look first.
  auto games = listener();
  runtime_->listGame(games);
  if (finish("list", *games) != kExitSuccess) return kExitFailure;
  if (games->items().empty()) {
    reporter_.say("No games of " + settings_.user + " to remove");
    return kExitSuccess;
  }
  auto l = listener();
  reporter_.say("Removing every game of " + settings_.user);
  runtime_->removeGameAll(l);
  return finish("remove-all", *l);
}

int Session::sweep(const std::vector<std::string>& extensions, const ZMValue& keepMinutes,
                   int64_t* deleted) {
  auto l = listener();
  reporter_.say("Sweeping the package cache: " + ToJSON(ZMValue(extensions)) + " older than " +
                ToJSON(keepMinutes) + " min");
  runtime_->checkFileAvailability({{ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY, extensions},
                                   {ZM_KEY_CHECK_FILE_KEEP_TIME, keepMinutes}},
                                  l);
  const int status = finish("sweep", *l);
  if (deleted) *deleted = l->deletedCount();
  return status;
}

int Session::config(const std::string& appId, const std::optional<std::string>& version,
                    ZMValue* out) {
  ZMValue options = {{ZM_KEY_GAME_PACKAGE_APP_ID, appId}};
  if (version) options[ZM_KEY_GAME_PACKAGE_VERSION] = *version;
  auto config = runtime_->getGameConfig(options);
  if (!config) {
    reporter_.failure("config",
                      "no installed configuration for " + appId + (version ? " " + *version : ""));
    return kExitFailure;
  }
  ZMValue value = {{"deviceOrientation", config->deviceOrientation()},
                   {"showStatusBar", config->showStatusBar()},
                   {"runtimeVersion", config->runtimeVersion()},
                   {"subpackages", config->subpackages()},
                   {"plugins", config->plugins()}};
  reporter_.result(value);
  if (out) *out = value;
  return kExitSuccess;
}

int Session::info() {
  const std::string caches = ZMSystemDirectories::cachesDirectory();
  ZMValue value = {{"version", runtime_->getVersionInfo().value_or("")},
                   {"user", settings_.user},
                   {"database", ZMSystemDirectories::documentsDirectory() + "/zimo_client_sdk.db"},
                   {"caches", caches},
                   {"apps", caches + "/app"},
                   {"userData", caches + "/user"},
                   {"engineCore", caches + "/core"},
                   {"packageCache", ZMSystemDirectories::temporaryDirectory()},
                   {"engine", ZMGameHandle::getInstance() ? "loaded" : "none"}};
  if (reporter_.tracing()) {
    reporter_.result(value);
    return kExitSuccess;
  }
  reporter_.say("libtavo " + value["version"].get<std::string>());
  const std::pair<const char*, const char*> rows[] = {{"user", "user"},
                                                      {"record store", "database"},
                                                      {"caches", "caches"},
                                                      {"installed apps", "apps"},
                                                      {"user data", "userData"},
                                                      {"engine core", "engineCore"},
                                                      {"package cache", "packageCache"},
                                                      {"engine", "engine"}};
  for (const auto& [label, key] : rows) {
    std::string line = label;
    line.resize(15, ' ');
    reporter_.say(line + value[key].get<std::string>());
  }
  return kExitSuccess;
}

int Session::pluginCheck(const ZMValue& info) {
  auto l = pluginListener();
  reporter_.say("Checking plug-in " + ToJSON(info));
  plugins().checkPluginVersion(info, l);
  return finish("plugin check", *l);
}

int Session::pluginInstall(const ZMValue& info) {
  auto l = pluginListener();
  reporter_.say("Installing plug-in " + ToJSON(info) + " from " +
                ToJSON(ZMValue(plugins().pluginServiceHosts())));
  plugins().installPlugin(info, l);
  return finish("plugin install", *l);
}

int Session::pluginList(ZMValue* items) {
  auto l = pluginListener();
  reporter_.say("Plug-ins:");
  plugins().listPlugin(l);
  const int status = finish("plugin list", *l);
  if (items) *items = l->items();
  return status;
}

int Session::pluginRemove(const ZMValue& list, ZMValue* removed) {
  auto l = pluginListener();
  reporter_.say("Removing plug-ins " + ToJSON(list));
  plugins().removePluginList(list, l);
  const int status = finish("plugin remove", *l);
  if (removed) *removed = l->items();
  return status;
}
