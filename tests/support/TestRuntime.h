#pragma once

#include <memory>
#include <string>

#include "runtime/ZMGameRuntime.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"

// A runtime created for user "u1" with its storage roots and plug-in root under a fresh directory,
// the record store reopened in a fresh Documents directory, and the reference engine in the handle
// slot. Ends the runtime and empties the slot on destruction.
class TestRuntime {
 public:
  explicit TestRuntime(const std::string& userId = "u1");
  ~TestRuntime();

  // Re-creates the runtime for another user over the same roots and store.
  void switchUser(const std::string& userId);

  std::shared_ptr<ZMGameRuntime> runtime;
  std::shared_ptr<InitRecorder> init;
  ScopedSystemDirectories dirs;
  std::string root() const { return dirs.root().path(); }
  std::string app() const { return root() + "/app"; }
  std::string user() const { return root() + "/user"; }
  std::string cache() const { return root() + "/cache"; }
  std::string plugin() const { return root() + "/plugin"; }
  // The creation options: the roots above plus `extraOptions`.
  ZMValue options() const;
  ZMValue extraOptions = ZMValue::object();

  // Installs `packagePath` as app/version through the facade; true on onInstallSuccess.
  bool install(const std::string& appId, const std::string& version, const std::string& packagePath,
               const std::string& extend = "");
  // Makes a package with a "game.config.json" under the root and installs it.
  bool installGame(const std::string& appId, const std::string& version,
                   const std::string& config = R"({"deviceOrientation":"portrait"})");
  // What checkGameVersion (asked without a version when null) ends with, after its start.
  std::string checkVersion(const std::string& appId, const std::optional<std::string>& version);
};

inline const std::string kVersionMismatch =
    "onCheckVersionFailure:Error: version is not the same as local version|-1";
