#include "plugin/ZMPluginInstallPackageManager.h"

#include <utility>

#include "platform/ZMFileManager.h"
#include "platform/ZMFormat.h"
#include "platform/ZMJSON.h"
#include "plugin/ZMPluginConfig.h"
#include "plugin/ZMPluginManager.h"
#include "plugin/ZMPluginUnzipPackageTask.h"
#include "protocol/ZMPluginProtocolDownloadPackage.h"
#include "protocol/ZMPluginProtocolPostUrl.h"
#include "tavo/ZMFileUtils.h"
#include "tavo/ZMMainQueue.h"

ZMPluginInstallPackageManager::ZMPluginInstallPackageManager(
    std::vector<std::string> hosts, std::string cacheDir, std::string installDir,
    std::optional<std::string> deviceId, std::string appBundleId, std::string runtimeVersion,
    std::weak_ptr<ZMPluginInstallListener> listener, ZMPackageLimits limits, ZMPackageTrust trust)
    : listener_(std::move(listener)),
      limits_(limits),
      trust_(std::move(trust)),
      hostArray_(std::move(hosts)),
      cacheDir_(std::move(cacheDir)),
      installDir_(std::move(installDir)),
      deviceId_(std::move(deviceId)),
      appBundleId_(std::move(appBundleId)),
      runtimeVersion_(std::move(runtimeVersion)) {}

ZMPluginInstallPackageManager::~ZMPluginInstallPackageManager() {
  // A manager released without cancel() leaves no transfer running behind it either.
  if (getPluginResourceAddress_) getPluginResourceAddress_->cancel();
  if (downloadPackage_) downloadPackage_->cancel();
}

void ZMPluginInstallPackageManager::execute(const ZMValue& info, const std::string& pluginId,
                                            const std::string& version) {
  pluginInfo_ = info;
  pluginId_ = pluginId;
  version_ = version;
  hostIndex_ = 0;
  _tryPostUrl();
}

void ZMPluginInstallPackageManager::cancel() {
  ZMTaskBase::cancel();
  ZMCancelAndClear(getPluginResourceAddress_);
  ZMCancelAndClear(downloadPackage_);
  ZMCancelAndClear(unzipPackageTask_);
}

void ZMPluginInstallPackageManager::_tryPostUrl() {
  if (isCancel()) return;
  if (hostIndex_ == static_cast<int64_t>(hostArray_.size())) {
    // Every host failed. With no host at all there is no error to pass on.
    _fail(postUrlError_);
    return;
  }
  ZMCancelAndClear(getPluginResourceAddress_);
  const std::string& host = hostArray_[static_cast<size_t>(hostIndex_)];
  ++hostIndex_;
  getPluginResourceAddress_ = std::make_shared<ZMPluginProtocolPostUrl>(
      host, deviceId_, appBundleId_, runtimeVersion_, weak_from_this());
  // Held here as well: a query that cannot be built fails inside execute(), and that failure
  // already replaces getPluginResourceAddress_ with the next host's query.
  const auto query = getPluginResourceAddress_;
  query->execute(pluginId_, version_);
}

void ZMPluginInstallPackageManager::onPostUrlFail(const ZMError& error) {
  if (isCancel()) return;
  postUrlError_ = error;
  _tryPostUrl();
}

void ZMPluginInstallPackageManager::onPostUrlSuccess(const std::string& pluginId,
                                                     const std::string& version,
                                                     const std::optional<std::string>& hash,
                                                     const std::optional<std::string>& url) {
  if (isCancel()) return;
  ZMLogFormat("on get url success plugin id:%@ version:%@ hash:%@ url:%@",
              {pluginId, version, hash, url});
  postUrlError_.reset();
  pluginHash_ = hash;
  ZMCancelAndClear(downloadPackage_);
  // The hash names the cached package. A service that names no package for this version gives
  // neither hash nor URL; the download of the empty URL then fails and ends the install.
  const std::string hashText = hash.value_or("");
  const std::string savePath =
      ZMPluginManager::getPluginPackageDownloadPath(cacheDir_, pluginId, version, hashText);
  if (savePath.empty()) {
    // A real hash is hex; one that names no file in the cache is refused before anything is
    // touched.
    _fail(ZMError(ZMFormat("invalid plugin hash: %@", {hashText}), 0));
    return;
  }
  downloadPackage_ = std::make_shared<ZMPluginProtocolDownloadPackage>(savePath, url.value_or(""),
                                                                       weak_from_this(), trust_);
  downloadPackage_->setResumeAttempts(limits_.downloadResumeAttempts);
  const auto download = downloadPackage_;
  download->execute(hashText);
}

// The host already heard onPluginInstallStart from the plug-in manager.
void ZMPluginInstallPackageManager::onDownloadStart() {}

void ZMPluginInstallPackageManager::onDownloadProgress(int64_t done, int64_t total) {
  if (isCancel()) return;
  if (auto listener = listener_.lock())
    listener->onPluginDownloadProgress(pluginInfo_, done, total);
}

void ZMPluginInstallPackageManager::onDownloadRetry(int64_t retry) {
  if (isCancel()) return;
  if (auto listener = listener_.lock()) listener->onPluginDownloadRetry(pluginInfo_, retry);
}

void ZMPluginInstallPackageManager::onDownloadFailure(const ZMError& error) {
  if (isCancel()) return;
  _fail(error);
}

void ZMPluginInstallPackageManager::onDownloadSuccess(const std::string& path) {
  if (isCancel()) return;
  ZMCancelAndClear(unzipPackageTask_);
  // Straight into the installed directory: an unpack that fails removes it again.
  unzipPackageTask_ = std::make_shared<ZMPluginUnzipPackageTask>(
      installDir_, pluginHash_.value_or(""), weak_from_this(), limits_, trust_);
  const auto unzip = unzipPackageTask_;
  unzip->execute(path);
}

// The unpack task never sends it.
void ZMPluginInstallPackageManager::onInstallStart() {}

void ZMPluginInstallPackageManager::onInstallFailure(const ZMError& error) {
  if (isCancel()) return;
  // A package that could not be deleted is followed by the success of the same unpack, in the
  // same main-queue block, which keeps this manager alive for it.
  _fail(error);
}

void ZMPluginInstallPackageManager::onInstallSuccess() {
  if (isCancel()) return;
  _recordHash();
}

void ZMPluginInstallPackageManager::_recordHash() {
  // An "updateHash" from a prefetch and any key a host put there survive.
  ZMError error;
  if (!ZMPluginConfig::update(
          ZMPluginManager::getPluginConfigFile(installDir_),
          [&](ZMValue& config) {
            config[ZMPluginConfig::kHash] = pluginHash_ ? ZMValue(*pluginHash_) : ZMValue();
          },
          &error)) {
    // Without its hash the directory could not be told apart from an older install; it goes,
    // and an older config file stays as it was.
    ZMFileUtils::deleteFile(installDir_);
    _fail(error);
    return;
  }
  _succeed();
}

void ZMPluginInstallPackageManager::_fail(const std::optional<ZMError>& error) {
  finished();
  if (auto listener = listener_.lock()) listener->onPluginInstallFailure(pluginInfo_, error);
}

void ZMPluginInstallPackageManager::_succeed() {
  finished();
  if (auto listener = listener_.lock()) listener->onPluginInstallSuccess(pluginInfo_);
}
