#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "tavo/ZMCoreListeners.h"
#include "tavo/ZMGameListeners.h"
#include "tavo/ZMValue.h"
#include "util/ZMPackageLimits.h"
#include "util/ZMPackageTrust.h"
#include "util/ZMTask.h"

// ZMGameInstallPackageTask turns a downloaded package (a zip) into an installed game: a whole
// game clears the app directory first, the engine unzips into the version directory, the app's
// "detail.json" is written (atomically, on the engine's thread), and on the main queue the
// package file is deleted, the user's record upserted and the host told. A subpackage install
// clears nothing and appends its root to "detail.json"'s "subpackages".
//
// When `trust` requires signatures, the package is first verified against
// "<package>.minisig" on the global queue; a refusal is an install failure, reported before
// anything is cleared, and a successful install deletes the signature with the package.
//
// The engine holds the task until its unzip ends, so the unzip and "detail.json" always finish
// (an unzip cannot be stopped half way); cancelling skips the final main-queue step.
class ZMGameInstallPackageTask : public ZMUnzipGamePackageListener,
                                 public ZMTask<ZMGameInstallPackageTask, ZMPackageInstallListener> {
 public:
  ZMGameInstallPackageTask(std::weak_ptr<ZMPackageInstallListener> listener, std::string userId,
                           int64_t reqId, std::string appDir, std::string installDir,
                           std::string detailFile, ZMPackageLimits limits = {},
                           ZMPackageTrust trust = {});

  void execute(const ZMValue& options);

  void onUnzipSucceed() override;
  void onUnzipProgress(float progress) override;
  void onUnzipFailed(const std::string& message) override;

 private:
  bool isSubpackage() const { return subpackageRoot_.has_value(); }
  void _installGame(const ZMValue& options);
  // Checks the limits, clears what a whole game replaces and hands the package to the engine.
  void _unpack();
  void _complete(std::optional<ZMError> error);

  const std::string userId_;
  const int64_t reqId_;
  const std::string appDir_;
  const std::string installDir_;
  const std::string detailFilePath_;
  const ZMPackageLimits limits_;
  const ZMPackageTrust trust_;
  // Set by execute on the caller's thread before the engine starts; read-only afterwards.
  std::string packagePath_;
  ZMValue info_;
  std::optional<std::string> subpackageRoot_;
};
