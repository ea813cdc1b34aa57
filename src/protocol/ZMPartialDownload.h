#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "protocol/ZMURLSession.h"

// ZMPartialDownload is a package download that can be continued later, by this process or by
// another one: the bytes received so far in "<package path>.partial", and beside them
// "<package path>.partial.json", which says where they came from:
//   {"url" : ..., "hash" : the expected MD5, "validator" : ETag or Last-Modified, "length" : n}
// A later download continues the bytes only when its URL and expected hash are the same and the
// record names a validator for the server to confirm. The download holds the file's lock while
// it writes (see ZMURLRequest::downloadFilePath), so two processes never write it at once.
//
// A value; its functions touch the two files only. Any thread.
class ZMPartialDownload {
 public:
  // Partial downloads nobody has continued for this long are removed by removeStale().
  static constexpr double kKeepSeconds = 24 * 60 * 60;

  ZMPartialDownload(const std::string& packagePath, std::string url, std::string hash);

  const std::string& path() const { return path_; }
  // Where to continue from (the whole file, and no digest: the file is hashed whole once it is
  // complete); null when there is nothing to continue.
  std::optional<ZMDownloadResumeData> load() const;
  // Notes the validator and the whole length of the response whose body the file receives; a
  // response without a validator leaves no record, and its bytes are never continued.
  void record(const ZMHTTPURLResponse& response) const;
  // Removes the bytes and the record.
  void discard() const;
  // Removes the record alone (the bytes were moved away, complete).
  void forget() const;

  // Deletes from `directory` the partial downloads (and records) untouched for kKeepSeconds
  // whose lock nobody holds. Returns how many were deleted.
  static int64_t removeStale(const std::string& directory);

 private:
  const std::string path_;
  const std::string recordPath_;
  const std::string url_;
  const std::string hash_;
};
