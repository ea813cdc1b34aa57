#include "game/ZMCheckFileAvailabilityTask.h"

#include <cmath>
#include <cstdlib>

#include "platform/ZMFileManager.h"
#include "platform/ZMGlobalQueue.h"
#include "platform/ZMPath.h"
#include "runtime/ZMGameRuntime.h"
#include "tavo/ZMMainQueue.h"
#include "tavo/ZMOptionKeys.h"
#include "util/ZMCoreFileUtil.h"
#include "util/ZMFileUtils.h"

namespace {

// The integer value of a number or of a numeric text ("10" reads as 10); 0 otherwise.
int64_t integerValue(const ZMValue& value) {
  if (value.is_number_integer()) return value.get<int64_t>();
  if (value.is_number()) return static_cast<int64_t>(value.get<double>());
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
    std::weak_ptr<ZMCheckFileAvailabilityListener> listener)
    : listener_(std::move(listener)) {}

void ZMCheckFileAvailabilityTask::execute(const ZMValue& options) {
  if (auto listener = listener_.lock()) listener->onCheckStart();
  ZMValue extensionsValue, keepTimeValue;
  if (options.is_object()) {
    extensionsValue = options.value(ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY, ZMValue());
    keepTimeValue = options.value(ZM_KEY_CHECK_FILE_KEEP_TIME, ZMValue());
  }
  const std::vector<std::string> extensions = textList(extensionsValue);
  const int64_t keepTime = integerValue(keepTimeValue);
  std::string cachePath;
  try {
    cachePath = ZMGameRuntime::getInstance()->getAppPackageCache();
  } catch (const ZMException& exception) {
    _complete(ZMError(exception.reason().value_or(exception.name()), 0));
    return;
  }
  ZMGlobalQueue::post([self = shared_from_this(), extensions, keepTime, cachePath] {
    self->_checkCacheTempFileTask(extensions, keepTime, cachePath);
  });
}

void ZMCheckFileAvailabilityTask::_checkCacheTempFileTask(const std::vector<std::string>& extensions,
                                                          int64_t keepTime,
                                                          const std::string& cachePath) {
  if (extensions.empty()) {
    _complete(ZMError("missing options: ZM_KEY_CHECK_FILE_EXTENSION_NAME_ARRAY", 0));
    return;
  }
  if (keepTime < 1) {
    _complete(ZMError("missing options: ZM_KEY_CHECK_FILE_KEEP_TIME", 0));
    return;
  }
  const auto names = ZMCoreFileUtil::getCacheTempFileList(cachePath);
  for (const auto& name : names.value_or(std::vector<std::string>())) {
    const std::string path = ZMPathJoin(cachePath, name);
    if (!_compareExtensionName(extensions, path) || _compareKeepTime(path, keepTime)) continue;
    ZMFileUtils::deleteFile(path);  // progress is reported whether or not it went
    if (!listener_.expired()) {
      ZMMainQueue::post([self = shared_from_this(), path] {
        if (auto listener = self->listener_.lock()) listener->onCheckProgress(path);
      });
    }
  }
  _complete(std::nullopt);
}

bool ZMCheckFileAvailabilityTask::_compareExtensionName(const std::vector<std::string>& extensions,
                                                        const std::string& path) {
  const std::string extension = ZMPathExtension(path);
  if (extension.empty()) return false;
  for (const auto& candidate : extensions) {
    if (candidate == extension) return true;
  }
  return false;
}

bool ZMCheckFileAvailabilityTask::_compareKeepTime(const std::string& path, int64_t keepTime) {
  const auto modified = ZMFileManager::modificationDate(path);
  if (!modified) return true;
  const double age = ZMNow() - *modified;
  return static_cast<double>(keepTime) * 60.0 > age;
}

void ZMCheckFileAvailabilityTask::_complete(std::optional<ZMError> error) {
  if (isCancel_ || listener_.expired()) return;
  ZMMainQueue::post([self = shared_from_this(), error = std::move(error)] {
    auto listener = self->listener_.lock();
    if (!listener) return;
    if (error) {
      listener->onCheckFailure(*error);
    } else {
      listener->onCheckSuccess();
    }
  });
}
