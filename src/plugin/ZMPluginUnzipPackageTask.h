#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tavo/ZMCoreListeners.h"
#include "tavo/ZMGameListeners.h"
#include "util/ZMPackageLimits.h"
#include "util/ZMPackageTrust.h"
#include "util/ZMStagedDirectory.h"
#include "util/ZMTask.h"

// ZMPluginUnzipPackageTask unpacks one plug-in package (a zip) into one directory through the
// engine's unzip, deletes the package file afterwards, and removes the directory when the unpack
// fails. Its owner (an install or version-check flow) hears the outcome through
// ZMPackageInstallListener on the main queue; onInstallStart is never sent.
//
// The package is unpacked into a staged directory beside the destination, which replaces the
// destination in one step once the unpack is complete: an installed plug-in is never a mix of
// two packages, not even after a crash, and files that the new package no longer has are gone.
// The package is unpacked under a private name of its own (ZMCachedPackage), so another process
// that downloads or unpacks the same package meanwhile cannot take it away.
//
// When `trust` requires signatures, the package is verified against its signature
// ("<package>.minisig") on the global queue before anything is unpacked. A refusal deletes the
// package and its signature and is reported with onInstallFailure; the destination is left as it
// was.
//
// A package that unpacks but cannot be deleted is reported twice, on purpose: first
// onInstallFailure ("deleteFile failure: <package>", the directory already deleted), then
// onInstallSuccess. Owners rely on seeing both.
//
// Ownership: the owner keeps the task (std::make_shared) and is held weakly as its listener; the
// engine holds the task until its unzip ends, so the file clean-up always runs. The replies hold
// the task weakly: a task its owner dropped reports nothing.
//
// Threads: execute() and cancel() run on the main thread; the engine calls back on its own
// thread, where the files are moved and deleted; the outcome is posted to the main queue.
// cancel() does not stop the unzip (the engine cannot stop half way): it silences the outcome,
// and the staged directory is then dropped, so the destination stays as it was.
class ZMPluginUnzipPackageTask : public ZMUnzipGamePackageListener,
                                 public ZMTask<ZMPluginUnzipPackageTask, ZMPackageInstallListener> {
 public:
  // `initWithInstallDir:hash:listener:`. `pluginHash` is kept for the owner only.
  ZMPluginUnzipPackageTask(std::string installDir, std::string pluginHash,
                           std::weak_ptr<ZMPackageInstallListener> listener,
                           ZMPackageLimits limits = {}, ZMPackageTrust trust = {});

  // Unpacks the package at `zipFilePath` into installDir(); returns at once.
  void execute(const std::string& zipFilePath);

  // ZMUnzipGamePackageListener, on the engine's thread.
  void onUnzipSucceed() override;
  void onUnzipProgress(float progress) override;
  void onUnzipFailed(const std::string& message) override;

  const std::string& installDir() const { return installDir_; }
  const std::string& pluginHash() const { return pluginHash_; }
  // Set by execute() before the engine starts; read-only afterwards.
  const std::string& zipFilePath() const { return zipFilePath_; }

 private:
  // Posts the outcomes, in order and in one main-queue block: onInstallFailure for an error,
  // onInstallSuccess for null. Two of them are a failure that a success of the same unzip
  // follows; arriving back to back, they need the owner kept alive for nothing in between.
  void _complete(std::vector<std::optional<ZMError>> outcomes);

  // Deletes the package (its private name and its shared one); false when that failed.
  bool _deletePackage();
  // Checks the limits and hands the claimed package to the engine.
  void _unpack();

  const std::string installDir_;
  const std::string pluginHash_;
  const ZMPackageLimits limits_;
  const ZMPackageTrust trust_;
  std::string zipFilePath_;
  std::string claimedPath_;  // the package's private name while it is unpacked
  std::unique_ptr<ZMStagedDirectory> staging_;
};
