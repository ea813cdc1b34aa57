#pragma once

#include <memory>
#include <string>

#include "protocol/ZMVerifiedPackageDownload.h"

// ZMPluginProtocolDownloadPackage downloads one plug-in package into the package cache and checks
// it against the hash that the plug-in service announced, repeating the download once, silently,
// on a mismatch (see ZMVerifiedPackageDownload). The install and update flows each make one per
// package (std::make_shared), keep it, and are its listener; everything arrives on the main queue.
class ZMPluginProtocolDownloadPackage : public ZMVerifiedPackageDownload {
 public:
  // `initWithSavePath:url:listener:`. Removes any file already at `savePath`. With `trust`
  // requiring signatures, the package's signature is fetched, checked and kept beside it.
  ZMPluginProtocolDownloadPackage(std::string savePath, std::string url,
                                  std::weak_ptr<ZMPackageDownloadListener> listener,
                                  ZMPackageTrust trust = {})
      : ZMVerifiedPackageDownload(std::move(listener), std::move(savePath), std::move(url),
                                  std::move(trust)) {}

  // Downloads, expecting `pluginHash`; the downloader is tagged with the hash too.
  void execute(const std::string& pluginHash) {
    pluginHash_ = pluginHash;
    start(pluginHash, pluginHash);
  }

  const std::string& pluginHash() const { return pluginHash_; }

 private:
  std::string pluginHash_;
};
