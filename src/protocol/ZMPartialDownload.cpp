#include "protocol/ZMPartialDownload.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/ZMFileManager.h"
#include "platform/ZMJSON.h"
#include "platform/ZMPath.h"
#include "platform/ZMValueAccess.h"
#include "tavo/ZMFileUtils.h"

namespace {

constexpr std::string_view kSuffix = ".partial";
constexpr std::string_view kRecordSuffix = ".partial.json";

std::optional<std::string> validatorOf(const ZMHTTPURLResponse& response) {
  for (const char* field : {"ETag", "Last-Modified"}) {
    if (auto value = response.valueForHTTPHeaderField(field); value && !value->empty()) {
      return value;
    }
  }
  return std::nullopt;
}

}  // namespace

ZMPartialDownload::ZMPartialDownload(const std::string& packagePath, std::string url,
                                     std::string hash)
    : path_(packagePath + std::string(kSuffix)),
      recordPath_(packagePath + std::string(kRecordSuffix)),
      url_(std::move(url)),
      hash_(std::move(hash)) {}

std::optional<ZMDownloadResumeData> ZMPartialDownload::load() const {
  const auto text = ZMFileManager::readFile(recordPath_, nullptr);
  const auto record = text ? ZMJSONParse(*text) : std::nullopt;
  if (!record || ZMTextOption(*record, "url") != url_ || ZMTextOption(*record, "hash") != hash_) {
    return std::nullopt;
  }
  const auto validator = ZMTextOption(*record, "validator");
  struct stat info {};
  if (!validator || validator->empty() || ::lstat(path_.c_str(), &info) != 0 ||
      !S_ISREG(info.st_mode) || info.st_size <= 0) {
    return std::nullopt;
  }
  return ZMDownloadResumeData{path_, info.st_size, *validator, nullptr};
}

void ZMPartialDownload::record(const ZMHTTPURLResponse& response) const {
  const auto validator = validatorOf(response);
  if (!validator || (response.statusCode != 200 && response.statusCode != 206)) {
    forget();
    return;
  }
  int64_t length = response.expectedContentLength;
  if (response.statusCode == 206) {
    // "bytes a-b/total": the whole length is after the slash.
    const auto range = response.valueForHTTPHeaderField("Content-Range").value_or("");
    const auto slash = range.rfind('/');
    length = slash == std::string::npos ? -1 : std::atoll(range.c_str() + slash + 1);
  }
  const ZMValue record = {
      {"url", url_}, {"hash", hash_}, {"validator", *validator}, {"length", length}};
  ZMFileManager::writeFileAtomically(recordPath_, ZMJSONPrettyString(record), nullptr);
}

void ZMPartialDownload::discard() const {
  ::unlink(path_.c_str());
  forget();
}

void ZMPartialDownload::forget() const { ::unlink(recordPath_.c_str()); }

int64_t ZMPartialDownload::removeStale(const std::string& directory) {
  const auto names = ZMFileManager::contentsOfDirectory(directory, nullptr);
  if (!names) return 0;
  const double now = ZMNow();
  int64_t removed = 0;
  for (const auto& name : *names) {
    if (!name.ends_with(kSuffix)) continue;
    const std::string path = ZMPathJoin(directory, name);
    struct stat info {};
    const int fd = ZMFileManager::openRegularFile(path, false, &info);
    if (fd < 0) continue;
    const double modified = static_cast<double>(info.st_mtim.tv_sec);
    if (now - modified >= kKeepSeconds && ::flock(fd, LOCK_EX | LOCK_NB) == 0 &&
        ::unlink(path.c_str()) == 0) {
      ::unlink((path + ".json").c_str());
      ++removed;
    }
    ::close(fd);
  }
  return removed;
}
