#include "util/ZMPackageLimits.h"

#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <algorithm>
#include <charconv>
#include <memory>

#include "ZMZipArchive.h"
#include "platform/ZMFileManager.h"
#include "tavo/ZMOptionKeys.h"

namespace {

std::optional<uint64_t> positiveNumber(const ZMValue& options, const char* key) {
  if (!options.is_object()) return std::nullopt;
  const auto it = options.find(key);
  if (it == options.end()) return std::nullopt;
  uint64_t number = 0;
  if (it->is_number_unsigned()) {
    number = it->get<uint64_t>();
  } else if (it->is_number()) {
    const double value = it->get<double>();
    if (!(value >= 1)) return std::nullopt;
    // Beyond 64 bits: as good as no limit.
    number = value >= 0x1p64 ? UINT64_MAX : static_cast<uint64_t>(value);
  } else if (it->is_string()) {
    const auto& text = it->get_ref<const std::string&>();
    const char* last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, number);
    if (end != last || text.empty()) return std::nullopt;
    if (error == std::errc::result_out_of_range) number = UINT64_MAX;
    if (error != std::errc() && error != std::errc::result_out_of_range) return std::nullopt;
  } else {
    return std::nullopt;
  }
  if (number == 0) return std::nullopt;
  return number;
}

}  // namespace

ZMPackageLimits ZMPackageLimits::fromOptions(const ZMValue& options) {
  ZMPackageLimits limits;
  if (auto bytes = positiveNumber(options, ZM_KEY_PACKAGE_MAX_UNPACKED_BYTES)) {
    limits.maxUnpackedBytes = *bytes;
  }
  if (auto ratio = positiveNumber(options, ZM_KEY_PACKAGE_MAX_COMPRESSION_RATIO)) {
    limits.maxCompressionRatio = *ratio;
  }
  if (auto attempts = positiveNumber(options, ZM_KEY_DOWNLOAD_RESUME_ATTEMPTS)) {
    limits.downloadResumeAttempts = static_cast<int64_t>(std::min<uint64_t>(*attempts, 1000));
  }
  return limits;
}

std::optional<std::string> ZMPackageLimits::check(const std::string& zipPath,
                                                  const std::string& name) const {
  // Like the unzip itself: only a regular file, and never a wait on a FIFO.
  struct stat st {};
  const int fd = ZMFileManager::openRegularFile(zipPath, true, &st);
  if (fd < 0) return std::nullopt;
  std::string error;
  zip_t* opened = ZMOpenZipArchive(fd, static_cast<uint64_t>(st.st_size), &error);
  if (opened == nullptr) return std::nullopt;
  const std::unique_ptr<zip_t, decltype(&zip_discard)> archive(opened, zip_discard);
  const zip_int64_t count = zip_get_num_entries(archive.get(), 0);
  uint64_t total = 0;
  for (zip_int64_t i = 0; i < count; ++i) {
    zip_stat_t entry;
    zip_stat_init(&entry);
    if (zip_stat_index(archive.get(), static_cast<zip_uint64_t>(i), 0, &entry) != 0) continue;
    if ((entry.valid & ZIP_STAT_SIZE) == 0) continue;
    total = entry.size > UINT64_MAX - total ? UINT64_MAX : total + entry.size;
  }
  const auto archiveBytes = static_cast<uint64_t>(st.st_size);
  const std::string& named = name.empty() ? zipPath : name;
  if (total > maxUnpackedBytes) {
    return "package \"" + named + "\" would unpack to " + std::to_string(total) +
           " bytes, more than the limit of " + std::to_string(maxUnpackedBytes);
  }
  if (archiveBytes > 0 && static_cast<unsigned __int128>(total) >
                              static_cast<unsigned __int128>(maxCompressionRatio) * archiveBytes) {
    return "package \"" + named + "\" would unpack to " + std::to_string(total) + " bytes from " +
           std::to_string(archiveBytes) + ", more than the limit of " +
           std::to_string(maxCompressionRatio) + " times its size";
  }
  return std::nullopt;
}
