#pragma once

#include <memory>
#include <string>

#include "protocol/ZMVerifiedPackageDownload.h"
#include "tavo/ZMGameListeners.h"
#include "tavo/ZMValue.h"

// ZMGameDownloadPackageTask downloads one game package to `savePath` and checks it against the
// request's "rt_game_package_hash", repeating the download once, silently, on a mismatch (see
// ZMVerifiedPackageDownload). The downloader is tagged with the app id.
//
// Create it with std::make_shared. Call from the main thread; every host callback arrives there.
// The host already had onDownloadStart from the runtime. cancel() stops the transfer silently.
class ZMGameDownloadPackageTask : public ZMVerifiedPackageDownload {
 public:
  // Removes any file already at `savePath`: the downloader never overwrites. With `trust`
  // requiring signatures, the package's signature is fetched, checked and kept beside it.
  ZMGameDownloadPackageTask(std::weak_ptr<ZMPackageDownloadListener> listener, std::string savePath,
                            std::string url, ZMPackageTrust trust = {})
      : ZMVerifiedPackageDownload(std::move(listener), std::move(savePath), std::move(url),
                                  std::move(trust)) {}

  // Stores the request's options and starts the first download.
  void execute(const ZMValue& options);

  const ZMValue& info() const { return info_; }

 private:
  ZMValue info_;
};
