#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "protocol/ZMOnFileDownloadListener.h"
#include "protocol/ZMSingleThreadFileDownloader.h"
#include "tavo/ZMGameListeners.h"
#include "tavo/ZMValue.h"

// ZMGameDownloadPackageTask downloads one game package to `savePath` with a
// ZMSingleThreadFileDownloader and checks it against "rt_game_package_hash" (the file's MD5 as 32
// lower-case hex digits, compared exactly). A mismatch deletes the file and downloads once more
// without telling the host; a second mismatch is reported as "package hash check failure". An
// absent or empty hash turns the check off when a listener is there to hear the success.
//
// Create it with std::make_shared (it is its downloader's listener). Call from the main thread;
// every host callback arrives there. The host already had onDownloadStart from the runtime, so
// this task never sends it. cancel() stops the transfer silently.
class ZMGameDownloadPackageTask : public ZMOnFileDownloadListener,
                                  public std::enable_shared_from_this<ZMGameDownloadPackageTask> {
 public:
  // Removes any file already at `savePath`: the downloader never overwrites.
  ZMGameDownloadPackageTask(std::weak_ptr<ZMPackageDownloadListener> listener, std::string savePath,
                            std::string url);

  // Stores the request's options and starts the first download, tagged with the app id.
  void execute(const ZMValue& options);
  // Cancels the current download and drops the downloader; the host hears nothing more.
  void cancel();

  const std::string& savePath() const { return savePath_; }
  const std::string& url() const { return url_; }
  const ZMValue& info() const { return info_; }
  const std::shared_ptr<ZMSingleThreadFileDownloader>& downloader() const { return downloader_; }
  bool isRetryDownload() const { return isRetryDownload_; }

  // ZMOnFileDownloadListener, on the main queue (onDownloadStart on the caller's thread).
  void onDownloadStart(const std::string& tag) override;
  void onDownloadProgress(int64_t done, int64_t total) override;
  void onDownloadSuccess(const std::string& path) override;
  void onDownloadFailure(int32_t code, const std::string& msg, const ZMError& error) override;
  void onDownloadCancel() override;
  void onDownloadRetry(int32_t retry) override;

 private:
  void _ensureFile();
  void _downloadFile();
  void _checkPackageHash(const std::string& path);

  const std::string savePath_;
  const std::string url_;
  ZMValue info_;
  std::weak_ptr<ZMPackageDownloadListener> listener_;
  std::shared_ptr<ZMSingleThreadFileDownloader> downloader_;
  bool isRetryDownload_ = false;
};
