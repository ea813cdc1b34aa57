#include "PackageFiles.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>

namespace {

struct ByteRange {
  int64_t first = 0;
  int64_t last = 0;
  bool satisfiable = true;
};

std::optional<int64_t> Number(std::string_view text) {
  int64_t value = 0;
  const auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || status != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return value;
}

// "bytes=FIRST-LAST", "bytes=FIRST-" or "bytes=-SUFFIX" against a file of `size` bytes, the end
// clamped to the file; null for anything else, which the response then ignores.
std::optional<ByteRange> ParseRange(std::string_view header, int64_t size) {
  constexpr std::string_view kUnit = "bytes=";
  if (!header.starts_with(kUnit)) return std::nullopt;
  header.remove_prefix(kUnit.size());
  const auto dash = header.find('-');
  if (dash == header.npos || header.find(',') != header.npos) return std::nullopt;
  const std::string_view firstText = header.substr(0, dash), lastText = header.substr(dash + 1);
  if (firstText.empty()) {
    const auto suffix = Number(lastText);
    if (!suffix) return std::nullopt;
    if (*suffix == 0 || size == 0) return ByteRange{0, 0, false};
    return ByteRange{std::max<int64_t>(0, size - *suffix), size - 1};
  }
  const auto first = Number(firstText);
  const auto last = lastText.empty() ? std::optional<int64_t>(INT64_MAX) : Number(lastText);
  if (!first || !last || *last < *first) return std::nullopt;
  if (*first >= size) return ByteRange{0, 0, false};
  return ByteRange{*first, std::min(*last, size - 1)};
}

std::string ContentType(std::string_view name) {
  return name.ends_with(".zip") ? "application/zip" : "application/octet-stream";
}

}  // namespace

HttpResponse ServeFile(const PackageDirectory& directory, std::string_view name,
                       const HttpRequest& request) {
  const auto file = directory.file(name);
  FileDescriptor fd(file ? ::open(file->path.c_str(), O_RDONLY | O_CLOEXEC) : -1);
  struct stat info {};
  // The size of what was opened: the file may have been replaced since it was looked up.
  if (fd.get() < 0 || ::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
    return HttpResponse::error(404, "no such file");
  }
  const int64_t size = info.st_size;
  const std::string* rangeHeader = request.header("range");
  const auto range = rangeHeader ? ParseRange(*rangeHeader, size) : std::nullopt;
  if (range && !range->satisfiable) {
    HttpResponse response = HttpResponse::error(
        416, "the range is outside the file's " + std::to_string(size) + " bytes");
    response.headers.push_back({"Content-Range", "bytes */" + std::to_string(size)});
    return response;
  }
  HttpResponse response;
  response.headers = {{"Content-Type", ContentType(name)}, {"Accept-Ranges", "bytes"}};
  const int64_t first = range ? range->first : 0, last = range ? range->last : size - 1;
  if (range) {
    response.status = 206;
    response.headers.push_back({"Content-Range", "bytes " + std::to_string(first) + "-" +
                                                     std::to_string(last) + "/" +
                                                     std::to_string(size)});
  }
  response.file = HttpResponse::FileBody{std::move(fd), first, last - first + 1};
  response.note = std::to_string(last - first + 1) + " bytes";
  return response;
}
