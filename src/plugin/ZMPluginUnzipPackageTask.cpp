#include "plugin/ZMPluginUnzipPackageTask.h"

#include <utility>

#include "platform/ZMFormat.h"
#include "tavo/ZMFileUtils.h"
#include "tavo/ZMGameHandle.h"
#include "util/ZMCachedPackage.h"

ZMPluginUnzipPackageTask::ZMPluginUnzipPackageTask(std::string installDir, std::string pluginHash,
                                                   std::weak_ptr<ZMPackageInstallListener> listener,
                                                   ZMPackageLimits limits, ZMPackageTrust trust)
    : ZMTask(std::move(listener)),
      installDir_(std::move(installDir)),
      pluginHash_(std::move(pluginHash)),
      limits_(limits),
      trust_(std::move(trust)) {}

void ZMPluginUnzipPackageTask::execute(const std::string& zipFilePath) {
  zipFilePath_ = zipFilePath;
  // Before anything reads it: once the package has a private name, another process that
  // finishes with the shared one may delete it, and this unpack still has its package.
  claimedPath_ = ZMCachedPackage::claim(zipFilePath_);
  if (!trust_.requiresSignatures()) {
    _unpack();
    return;
  }
  // What is verified is what is unpacked: the package under its private name. The whole package
  // is read, so not on the main thread.
  postWork([self = shared_from_this()] {
    if (self->isCancel()) {
      if (self->claimedPath_ != self->zipFilePath_) ZMFileUtils::deleteFile(self->claimedPath_);
      return;
    }
    if (auto refusal = self->trust_.verifyBeside(self->zipFilePath_, self->claimedPath_)) {
      self->_deletePackage();
      self->_complete({*refusal});
      return;
    }
    self->_unpack();
  });
}

void ZMPluginUnzipPackageTask::_unpack() {
  if (auto refusal = limits_.check(claimedPath_, zipFilePath_)) {
    onUnzipFailed(*refusal);
    return;
  }
  auto handle = ZMGameHandle::getInstance();
  if (!handle) {
    // Without an engine nothing can be unpacked; the package is cleaned up as for any failure.
    onUnzipFailed("no game engine is loaded to unzip the package");
    return;
  }
  ZMError error;
  staging_ = ZMStagedDirectory::create(installDir_, &error);
  if (!staging_) {
    onUnzipFailed(error.localizedDescription());
    return;
  }
  handle->unzipFile(claimedPath_, staging_->path(), shared_from_this());
}

void ZMPluginUnzipPackageTask::onUnzipProgress(float progress) {
  ZMLogFormat("unzip progress:%f", {static_cast<double>(progress)});
}

bool ZMPluginUnzipPackageTask::_deletePackage() {
  return ZMCachedPackage::release(zipFilePath_, claimedPath_);
}

void ZMPluginUnzipPackageTask::onUnzipFailed(const std::string& message) {
  // Neither a bad package nor a half-filled directory is left behind to be mistaken for good.
  _deletePackage();
  staging_.reset();
  ZMFileUtils::deleteFile(installDir_);
  _complete({ZMError(message, 0)});
}

void ZMPluginUnzipPackageTask::onUnzipSucceed() {
  if (isCancel()) {
    // Nobody hears of it (the outcome is silenced), and the destination stays as it was.
    _deletePackage();
    staging_.reset();
    return;
  }
  ZMError error;
  if (!staging_->commit(&error)) {
    onUnzipFailed(error.localizedDescription());
    return;
  }
  staging_.reset();
  if (!_deletePackage()) {
    // The owner is told of the failure, and then of the success all the same.
    ZMFileUtils::deleteFile(installDir_);
    _complete({ZMError(ZMFormat("deleteFile failure: %@", {zipFilePath_}), 0), std::nullopt});
    return;
  }
  _complete({std::nullopt});
}

void ZMPluginUnzipPackageTask::_complete(std::vector<std::optional<ZMError>> outcomes) {
  postFinalOutcomes(
      std::move(outcomes), [](auto& listener, const ZMError& e) { listener.onInstallFailure(e); },
      [](auto& listener) { listener.onInstallSuccess(); });
}
