#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tavo/ZMGameListeners.h"
#include "tavo/ZMValue.h"

// ZMCheckFileAvailabilityTask sweeps the package cache: every direct entry whose extension is
// listed (exact, case-sensitive) and whose age has reached the keep time (minutes) is deleted.
// onCheckStart is called on the caller's thread; the sweep runs on the global queue, holding
// the task; each deletion and the final result are separate main-queue blocks, so every
// progress callback precedes the result. `cancel` suppresses only the final result.
class ZMCheckFileAvailabilityTask
    : public std::enable_shared_from_this<ZMCheckFileAvailabilityTask> {
 public:
  explicit ZMCheckFileAvailabilityTask(std::weak_ptr<ZMCheckFileAvailabilityListener> listener);

  void execute(const ZMValue& options);
  void cancel() { isCancel_ = true; }

  // True when the entry name's extension (after its last dot, not a leading one) is listed.
  static bool _compareExtensionName(const std::vector<std::string>& extensions,
                                    std::string_view name);
  // True when an entry modified at `modified` (seconds since 1970) is kept: younger than
  // keepTime minutes. An entry whose attributes cannot be read is kept too.
  static bool _compareKeepTime(double modified, int64_t keepTime);

 private:
  void _checkCacheTempFileTask(const std::vector<std::string>& extensions, int64_t keepTime,
                               const std::string& cachePath);
  void _complete(std::optional<ZMError> error);

  std::weak_ptr<ZMCheckFileAvailabilityListener> listener_;
  std::atomic<bool> isCancel_{false};
};
