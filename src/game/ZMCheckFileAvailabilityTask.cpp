#include "game/ZMCheckFileAvailabilityTask.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>

#include "platform/ZMPath.h"
#include "tavo/ZMFileUtils.h"
#include "tavo/ZMOptionKeys.h"
#include "util/ZMCoreFileUtil.h"

namespace {

constexpr std::size_t kProgressBatch = 256;
constexpr auto kProgressDelay = std::chrono::milliseconds(20);

// The integer value of a number or of a numeric text ("10" reads as 10); 0 otherwise. Values
// beyond 64 bits are clamped, for numbers as strtoll does for texts.
int64_t integerValue(const ZMValue& value) {
  if (value.is_number_unsigned()) {
    return static_cast<int64_t>(std::min<uint64_t>(value.get<uint64_t>(), INT64_MAX));
  }
  if (value.is_number_integer()) return value.get<int64_t>();
  if (value.is_number()) {
    const double number = value.get<double>();
    if (std::isnan(number)) return 0;
    if (number >= 0x1p63) return INT64_MAX;
    if (number < -0x1p63) return INT64_MIN;
    return static_cast<int64_t>(number);
  }
  if (value.is_boolean()) return value.get<bool>() ? 1 : 0;
  if (value.is_string()) return std::strtoll(value.get<std::string>().c_str(), nullptr, 10);
  return 0;
}

std::vector<std::string> textList(const ZMValue& value) {
  std::vector<std::string> list;
  if (!value.is_array()) return list;
  for (const auto& element : value) {
    if (element.is_string()) list.push_back(element.get<std::string>());
  }
  return list;
}

}  // namespace

ZMCheckFileAvailabilityTask::ZMCheckFileAvailabilityTask(
    std::weak_ptr<ZMCheckFileAvailabilityListener> listener, std::string cachePath)
    : ZMTask(std::move(listener)), cachePath_(std::move(cachePath)) {}

void ZMCheckFileAvailabilityTask::execute(const ZMValue& options) {
  if (auto listener = listener_.lock()) listener->onCheckStart();
  ZMValue extensionsValue, keepTimeValue;
  if (options.is_object()) {
    extensionsValue = options.value(ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY, ZMValue());
    keepTimeValue = options.value(ZM_KEY_CHECK_FILE_KEEP_TIME, ZMValue());
  }
  const std::vector<std::string> extensions = textList(extensionsValue);
  const int64_t keepTime = integerValue(keepTimeValue);
  postWork([self = shared_from_this(), extensions, keepTime] {
    self->_checkCacheTempFileTask(extensions, keepTime);
  });
}

void ZMCheckFileAvailabilityTask::_checkCacheTempFileTask(
    const std::vector<std::string>& extensions, int64_t keepTime) {
  if (extensions.empty()) {
    _complete(ZMError("missing options: ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY", 0));
    return;
  }
  if (keepTime < 1) {
    _complete(ZMError("missing options: ZM_KEY_CHECK_FILE_KEEP_TIME", 0));
    return;
  }
  const std::string& cachePath = cachePath_;
  const auto names = ZMCoreFileUtil::getCacheTempFileList(cachePath);
  if (!names || names->empty()) {
    _complete(std::nullopt);
    return;
  }
  // Entries are looked at and unlinked through the directory's descriptor: one lstat for the
  // age and kind, one unlink, no walk of the cache path per call. Without a descriptor the full
  // paths do the same.
  const int directory = ::open(cachePath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int at = directory >= 0 ? directory : AT_FDCWD;
  // Deletions are reported in batches, one main-queue block per batch, each path still its own
  // callback and in order: a block per file costs the host's thread a wake-up per file. A batch
  // is sent when full or when it has waited long enough, so a slow disk still shows progress.
  std::vector<std::string> batch;
  auto lastSent = std::chrono::steady_clock::now();
  auto send = [&] {
    if (batch.empty()) return;
    postReplyDespiteCancel([paths = std::move(batch)](ZMCheckFileAvailabilityListener& listener) {
      for (const auto& path : paths) listener.onCheckProgress(path);
    });
    batch.clear();
    lastSent = std::chrono::steady_clock::now();
  };
  for (const auto& name : *names) {
    if (hasOwnerEnded()) break;
    if (!_compareExtensionName(extensions, name)) continue;
    std::string path = ZMPathJoin(cachePath, name);
    const char* target = directory >= 0 ? name.c_str() : path.c_str();
    struct stat st {};
    if (::fstatat(at, target, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;  // unreadable: kept
    const double modified =
        static_cast<double>(st.st_mtim.tv_sec) + static_cast<double>(st.st_mtim.tv_nsec) / 1e9;
    if (_compareKeepTime(modified, keepTime)) continue;
    // Progress is reported whether or not it went; a failure is logged by deleteFile, which
    // also takes directories with their contents.
    if (S_ISDIR(st.st_mode) || (::unlinkat(at, target, 0) != 0 && errno != ENOENT)) {
      ZMFileUtils::deleteFile(path);
    }
    if (listener_.expired()) continue;
    batch.push_back(std::move(path));
    if (batch.size() >= kProgressBatch ||
        std::chrono::steady_clock::now() - lastSent >= kProgressDelay) {
      send();
    }
  }
  send();
  if (directory >= 0) ::close(directory);
  _complete(std::nullopt);
}

bool ZMCheckFileAvailabilityTask::_compareExtensionName(const std::vector<std::string>& extensions,
                                                        std::string_view name) {
  const auto dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) return false;
  const std::string_view extension = name.substr(dot + 1);
  for (const auto& candidate : extensions) {
    if (candidate == extension) return true;
  }
  return false;
}

bool ZMCheckFileAvailabilityTask::_compareKeepTime(double modified, int64_t keepTime) {
  const double age = ZMNow() - modified;
  return static_cast<double>(keepTime) * 60.0 > age;
}

void ZMCheckFileAvailabilityTask::_complete(std::optional<ZMError> error) {
  // The run's last block, after every progress block: the group lets go of the task here even
  // when a cancel silences the outcome.
  ZMMainQueue::post([weak = weak_from_this(), error = std::move(error)] {
    auto self = weak.lock();
    if (!self) return;
    self->finished();
    auto listener = self->listener_.lock();
    if (!listener || self->isCancel()) return;
    error ? listener->onCheckFailure(*error) : listener->onCheckSuccess();
  });
}
