#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
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

  static bool _compareExtensionName(const std::vector<std::string>& extensions,
                                    const std::string& path);
  // True when the entry is kept: younger than keepTime minutes, or its attributes unreadable.
  static bool _compareKeepTime(const std::string& path, int64_t keepTime);

 private:
  void _checkCacheTempFileTask(const std::vector<std::string>& extensions, int64_t keepTime,
                               const std::string& cachePath);
  void _complete(std::optional<ZMError> error);

  std::weak_ptr<ZMCheckFileAvailabilityListener> listener_;
  std::atomic<bool> isCancel_{false};
};
