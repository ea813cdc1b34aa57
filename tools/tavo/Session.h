#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "HostListener.h"
#include "PluginListener.h"
#include "Reporter.h"
#include "tavo/tavo.h"

// Exit statuses of `tavo`.
inline constexpr int kExitSuccess = 0;
inline constexpr int kExitFailure = 1;    // the operation's failure callback
inline constexpr int kExitNoRuntime = 2;  // the runtime could not start
inline constexpr int kExitTimedOut = 3;   // no last callback within --timeout

// One runtime for one user, and the host operations `tavo` offers on it. Each operation starts
// the runtime's call, drains the main queue until its last callback, reports it and returns an
// exit status. Everything runs on the main thread; the destructor ends the runtime.
class Session {
 public:
  struct Settings {
    std::string user = "tavo-user";
    std::string root;  // empty: the XDG directories
    std::chrono::seconds timeout{600};
    bool verbose = false;  // the library's log lines on stderr
    // Plug-in service base URLs, primary first; empty: the built-in ones.
    std::vector<std::string> pluginServices;
    // How often a package download is continued after a failure (0: never).
    int64_t resumeAttempts = 0;
    // Minisign public keys every package must be signed by one of; empty: no signatures.
    std::vector<std::string> trustedKeys;
  };

  Session(Reporter& reporter, Settings settings);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Whether a failure callback is reported on stderr (default). The demo turns it off for the
  // failures it expects and reads lastError() instead.
  void setReportFailures(bool report) { reportFailures_ = report; }
  std::optional<ZMError> lastError() const { return lastError_; }

  // Starts the runtime; false (with the reason on stderr) when it cannot.
  bool start();
  ZMZimoGameRuntime& runtime() { return *runtime_; }

  int check(const std::string& appId, const std::string& version);
  // The downloaded file's path goes to `path` when given.
  int download(const std::string& appId, const std::string& version, const std::string& url,
               const std::optional<std::string>& hash, std::string* path = nullptr);
  int install(const std::string& appId, const std::string& version, const std::string& package,
              const std::optional<std::string>& subpackageRoot,
              const std::optional<std::string>& extend);
  // Runs the game, keeps it running for `hold` (SIGINT or SIGTERM ends the hold sooner), then
  // exits it.
  // Runs the game, keeps it running for `hold` (or until `holdUntil`, when given, holds) and
  // exits it.
  int run(const std::string& appId, const std::string& version,
          const std::optional<std::string>& extend, std::chrono::milliseconds hold,
          bool loadingTimes, const std::function<bool()>& holdUntil = nullptr);
  int list(ZMValue* items = nullptr);
  int setData(const std::string& appId, const ZMValue& info);
  int remove(const std::vector<std::string>& appIds);
  int removeAll();
  int sweep(const std::vector<std::string>& extensions, const ZMValue& keepMinutes,
            int64_t* deleted = nullptr);
  // Prints the game's configuration as JSON; fails when there is none.
  int config(const std::string& appId, const std::optional<std::string>& version,
             ZMValue* out = nullptr);
  int info();

  // Plug-in operations. `info` is handed to the plug-in manager exactly as given: a plug-in info
  // object ({"provider", "version"}) for check and install, a list of them for remove.
  int pluginCheck(const ZMValue& info);
  int pluginInstall(const ZMValue& info);
  int pluginList(ZMValue* items = nullptr);
  int pluginRemove(const ZMValue& list, ZMValue* removed = nullptr);

 private:
  // Drains the main queue until `listener` has heard its last callback; reports a failure.
  int finish(const std::string& what, const HostListener& listener);
  std::shared_ptr<HostListener> listener() { return std::make_shared<HostListener>(reporter_); }
  std::shared_ptr<PluginListener> pluginListener() {
    return std::make_shared<PluginListener>(reporter_);
  }
  ZMZimoGamePluginManager& plugins() { return *plugins_; }

  Reporter& reporter_;
  Settings settings_;
  bool reportFailures_ = true;
  std::optional<ZMError> lastError_;
  std::shared_ptr<ZMZimoGameRuntime> runtime_;
  std::shared_ptr<ZMZimoGamePluginManager> plugins_;
  // The host object the game's view is attached to: the runtime holds it weakly.
  std::shared_ptr<int> viewController_ = std::make_shared<int>(0);
};
