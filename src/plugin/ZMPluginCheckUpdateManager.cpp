#include "plugin/ZMPluginCheckUpdateManager.h"

#include <string_view>
#include <utility>

#include "platform/ZMFileManager.h"
#include "platform/ZMFormat.h"
#include "platform/ZMJSON.h"
#include "platform/ZMValueAccess.h"
#include "plugin/ZMPluginConfig.h"
#include "plugin/ZMPluginManager.h"
#include "protocol/ZMPluginProtocolDownloadPackage.h"
#include "protocol/ZMPluginProtocolPostHash.h"
#include "tavo/ZMFileUtils.h"

ZMPluginCheckUpdateManager::ZMPluginCheckUpdateManager(
    std::string pluginRootPath, std::string pluginZipSaveRootPath, std::vector<std::string> hosts,
    std::optional<std::string> deviceId, std::string gameId, std::string appBundleId,
    std::string runtimeVersion, ZMPackageLimits limits, ZMPackageTrust trust)
    : pluginRootPath_(std::move(pluginRootPath)),
      limits_(limits),
      pluginZipSavePath_(std::move(pluginZipSaveRootPath)),
      hostArr_(std::move(hosts)),
      deviceId_(std::move(deviceId)),
      gameId_(std::move(gameId)),
      appBundleId_(std::move(appBundleId)),
      runtimeVersion_(std::move(runtimeVersion)),
      trust_(std::move(trust)) {}

ZMPluginCheckUpdateManager::~ZMPluginCheckUpdateManager() {
  // A worker released without cancel() leaves no transfer running behind it either.
  if (postHash_) postHash_->cancel();
  if (downloadPackage_) downloadPackage_->cancel();
}

void ZMPluginCheckUpdateManager::execute(std::shared_ptr<const ZMZimoGameConfig> gameConfig) {
  gameConfig_ = std::move(gameConfig);
  hostIndex_ = 0;
  currentUpdateIndex_ = 0;
  _tryPostHash();
}

void ZMPluginCheckUpdateManager::cancel() {
  ZMTaskBase::cancel();
  ZMCancelAndClear(postHash_);
  ZMCancelAndClear(downloadPackage_);
}

void ZMPluginCheckUpdateManager::_tryPostHash() {
  if (isCancel()) return;
  if (!gameConfig_ || hostIndex_ >= static_cast<int64_t>(hostArr_.size())) {
    _end();  // every host failed: the update ends without a word
    return;
  }
  ZMCancelAndClear(postHash_);
  const std::string& host = hostArr_[static_cast<size_t>(hostIndex_)];
  ++hostIndex_;
  postHash_ = std::make_shared<ZMPluginProtocolPostHash>(
      pluginRootPath_, host, deviceId_, gameId_, appBundleId_, runtimeVersion_, weak_from_this(),
      &ZMPluginConfig::installedHash);
  // Held here as well: a reply made during execute() may replace postHash_.
  const auto query = postHash_;
  // When none of the game's plug-ins is installed with a hash, nothing is sent and no reply
  // ever comes: the run simply ends here.
  if (!query->execute(*gameConfig_)) _end();
}

void ZMPluginCheckUpdateManager::_downloadUpdatePlugin() {
  if (isCancel()) return;
  if (!pluginUpdateList_) {
    _end();
    return;
  }
  const ZMValue& list = *pluginUpdateList_;
  while (currentUpdateIndex_ < static_cast<int64_t>(list.size())) {
    const ZMValue& entry = list[static_cast<size_t>(currentUpdateIndex_)];
    const auto provider = ZMTextOption(entry, "plugin_id");
    const auto version = ZMTextOption(entry, "version");
    const auto hash = ZMTextOption(entry, "hash");
    const auto url = ZMTextOption(entry, "url");
    // Provider, version and hash each end up inside one file name ("p_1.0.detail.json",
    // "h_p_1.0.zip"); an entry that names no file safely is passed over, config and package alike.
    const std::string configPath = provider && version ? ZMPluginManager::getPluginConfigFile(
                                                             pluginRootPath_, *provider, *version)
                                                       : std::string();
    const std::string packagePath = provider && version && hash
                                        ? ZMPluginManager::getPluginPackageDownloadPath(
                                              pluginZipSavePath_, *provider, *version, *hash)
                                        : std::string();
    if (!url || configPath.empty() || packagePath.empty()) {
      ZMLogFormat("skip plugin update entry: %@", {entry});
      ++currentUpdateIndex_;
      continue;
    }
    // Recorded before the download, so that a later version check knows which cached package
    // belongs to the plug-in, even while it is still on its way.
    _writeUpdateHash(configPath, *hash);
    // The MD5 is recomputed rather than remembered, so a damaged copy is fetched again. A missing
    // file's digest is "", which an empty hash matches; a failed digest matches nothing.
    // A package that needs a signature is intact only with one.
    if (ZMFileUtils::getFileMD5(packagePath) == *hash &&
        (!trust_.requiresSignatures() ||
         ZMFileUtils::isExist(ZMPackageTrust::signatureOf(packagePath)))) {
      ++currentUpdateIndex_;
      continue;
    }
    ZMCancelAndClear(downloadPackage_);
    downloadPackage_ = std::make_shared<ZMPluginProtocolDownloadPackage>(packagePath, *url,
                                                                         weak_from_this(), trust_);
    downloadPackage_->setResumeAttempts(limits_.downloadResumeAttempts);
    // The index moves on before the download starts, so that a result reported from inside
    // execute() continues with the next entry instead of this one.
    ++currentUpdateIndex_;
    const auto download = downloadPackage_;
    download->execute(*hash);
    return;
  }
  _end();  // the list is done
}

void ZMPluginCheckUpdateManager::_writeUpdateHash(const std::string& configPath,
                                                  const std::string& hash) {
  // A failed write only costs the next version check its shortcut; the prefetch goes on.
  ZMPluginConfig::update(
      configPath, [&](ZMValue& config) { config[ZMPluginConfig::kUpdateHash] = hash; }, nullptr);
}

void ZMPluginCheckUpdateManager::_end() { finished(); }

void ZMPluginCheckUpdateManager::onGetUpdatePluginList(const ZMValue& pluginResults) {
  if (isCancel()) return;
  // Anything but a list is taken as no list: there is nothing to walk.
  pluginUpdateList_.reset();
  if (pluginResults.is_array()) pluginUpdateList_ = pluginResults;
  _downloadUpdatePlugin();
}

void ZMPluginCheckUpdateManager::onPostHashFailure(const ZMError&) {
  if (isCancel()) return;
  _tryPostHash();
}

// Progress and retries mean nothing to a prefetch nobody watches; the start is never sent.
void ZMPluginCheckUpdateManager::onDownloadStart() {}
void ZMPluginCheckUpdateManager::onDownloadProgress(int64_t, int64_t) {}
void ZMPluginCheckUpdateManager::onDownloadRetry(int64_t) {}

void ZMPluginCheckUpdateManager::onDownloadSuccess(const std::string&) {
  if (isCancel()) return;
  _downloadUpdatePlugin();
}

void ZMPluginCheckUpdateManager::onDownloadFailure(const ZMError& error) {
  if (isCancel()) return;
  if (ZMPackageTrust::isRefusal(error)) ZMLogFormat("plugin update refused: %@", {error.domain});
  _downloadUpdatePlugin();
}
