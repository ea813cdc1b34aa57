#pragma once

#include <cstdint>
#include <string>

#include "tavo/ZMError.h"

// What ZMSingleThreadFileDownloader reports to its user. onDownloadStart comes synchronously from
// start(); every other callback arrives on the main queue. A download ends with exactly one of
// onDownloadSuccess, onDownloadFailure or onDownloadCancel.
class ZMOnFileDownloadListener {
 public:
  virtual ~ZMOnFileDownloadListener() = default;
  // The tag given to the downloader.
  virtual void onDownloadStart(const std::string& tag) = 0;
  // Bytes written so far and bytes expected (-1 when the server sent no length).
  virtual void onDownloadProgress(int64_t done, int64_t total) = 0;
  // The file is at `path`.
  virtual void onDownloadSuccess(const std::string& path) = 0;
  // `code`: the HTTP status (with `msg` its decimal text), -1 ("move file fail") when the file
  // could not be moved into place, or the status or 0 with "download fail" for a transfer error.
  virtual void onDownloadFailure(int32_t code, const std::string& msg, const ZMError& error) = 0;
  virtual void onDownloadCancel() = 0;
  // Declared for listeners; the downloader itself never sends it.
  virtual void onDownloadRetry(int32_t retry) = 0;
};
