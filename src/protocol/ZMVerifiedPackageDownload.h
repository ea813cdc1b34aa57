#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "protocol/ZMOnFileDownloadListener.h"
#include "protocol/ZMSingleThreadFileDownloader.h"
#include "protocol/ZMURLSession.h"
#include "tavo/ZMGameListeners.h"
#include "util/ZMPackageTrust.h"

// ZMVerifiedPackageDownload downloads one package to `savePath` with a
// ZMSingleThreadFileDownloader and checks the file's MD5 (32 lower-case hex digits, compared
// exactly) against the expected hash. A mismatch deletes the file and downloads once more without
// telling the listener; a second mismatch is reported as "package hash check failure". An absent
// or empty hash turns the check off, but only while a listener is there to hear the success:
// with nobody listening the comparison runs and fails. A transfer failure is reported at once and
// never repeated here. Game and plug-in package downloads are both this piece.
//
// The transfer lands at a name of this download's own beside `savePath`, and only a verified
// package is put at `savePath`, replacing whatever another process put there meanwhile: several
// processes downloading one package all succeed, and none ever sees a package half written or
// unverified at that name.
//
// When `trust` requires signatures, the package's signature (`url` + ".minisig") is fetched
// beside the transfer, which also computes the package's BLAKE2b-512 as it writes, so that a
// prehashed signature is checked without reading the package again. A package that passes its
// MD5 check is verified before it is put at `savePath`, and its signature is kept beside it
// ("<savePath>.minisig"). A signature that cannot be had (any HTTP failure) or does not verify
// ends the download with the refusal (see ZMPackageTrust), nothing kept and nothing repeated.
// Like the MD5 check, verification runs on the main thread: at once for a prehashed signature,
// while a legacy one, which covers the whole package, reads it there.
//
// Create it (or a subclass) with std::make_shared: it is its downloader's listener. Call from the
// main thread; every listener callback arrives there. onDownloadStart is never sent: the caller
// already told its own host that a download starts. cancel() stops the transfer silently.
class ZMVerifiedPackageDownload : public ZMOnFileDownloadListener,
                                  public std::enable_shared_from_this<ZMVerifiedPackageDownload> {
 public:
  // Removes any file already at `savePath` (and, when signatures are required, its signature)
  // at once: the downloader never overwrites.
  ZMVerifiedPackageDownload(std::weak_ptr<ZMPackageDownloadListener> listener, std::string savePath,
                            std::string url, ZMPackageTrust trust = {});

  // Cancels the current download and drops the downloader; the listener hears nothing more.
  void cancel();
  // How often a failed transfer is continued where it stopped (see ZMSingleThreadFileDownloader);
  // 0, the default, never. Set before the download starts.
  void setResumeAttempts(int64_t attempts) { resumeAttempts_ = attempts; }

  const std::string& savePath() const { return savePath_; }
  const std::string& url() const { return url_; }
  const std::shared_ptr<ZMSingleThreadFileDownloader>& downloader() const { return downloader_; }
  // Set once the one repeat has started, and never reset: a second run on the same object that
  // meets a mismatch fails at once.
  bool isRetryDownload() const { return isRetryDownload_; }

  // ZMOnFileDownloadListener, on the main queue (onDownloadStart on the caller's thread).
  void onDownloadStart(const std::string& tag) override;
  void onDownloadProgress(int64_t done, int64_t total) override;
  void onDownloadSuccess(const std::string& path) override;
  void onDownloadFailure(int32_t code, const std::string& msg, const ZMError& error) override;
  void onDownloadCancel() override;
  void onDownloadRetry(int32_t retry) override;

 protected:
  // Starts the first download, expecting `hash` and tagging the downloader with `tag`.
  void start(std::optional<std::string> hash, std::string tag);

 private:
  void _ensureFile();
  void _downloadFile();
  void _checkPackageHash(const std::string& path);
  // Verifies the signature of a download whose MD5 passed, once both are here, then succeeds.
  void _checkSignature(const std::shared_ptr<ZMPackageDownloadListener>& listener);
  void _fetchSignature();
  void _onSignature(const std::optional<std::string>& data,
                    const std::optional<ZMHTTPURLResponse>& response,
                    const std::optional<ZMError>& error);
  // Puts the verified download at savePath_ and reports it.
  void _succeed(const std::shared_ptr<ZMPackageDownloadListener>& listener);
  // Ends the download with `error`: the transfers stop and nothing is kept.
  void _fail(const ZMError& error);
  std::string signatureUrl() const { return ZMPackageTrust::signatureOf(url_); }

  const std::string savePath_;
  const std::string downloadPath_;  // where the transfer puts the package before it is verified
  const std::string url_;
  std::optional<std::string> hash_;
  std::string tag_;
  std::weak_ptr<ZMPackageDownloadListener> listener_;
  std::shared_ptr<ZMSingleThreadFileDownloader> downloader_;
  bool isRetryDownload_ = false;
  int64_t resumeAttempts_ = 0;
  const ZMPackageTrust trust_;
  std::shared_ptr<ZMURLSessionTask> signatureTask_;
  std::optional<std::string> signature_;  // the signature file's text, once fetched
  bool awaitingSignature_ = false;        // the package passed its MD5 check before it came
  bool transferring_ = false;             // the current downloader's transfer is under way
  bool ended_ = false;                    // a failure was reported, or cancel() was called
};
