#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tavo/ZMGameListeners.h"
#include "tavo/ZMValue.h"
#include "util/ZMTask.h"

// ZMCheckFileAvailabilityTask sweeps the package cache: every direct entry whose extension is
// listed (exact, case-sensitive) and whose age has reached the keep time (minutes) is deleted.
// onCheckStart is called on the caller's thread; the sweep runs on the global queue; each
// deletion gets its own progress callback on the main queue, in order (delivered in batches:
// several may come in one turn of the queue), and every progress callback precedes the result.
//
// Cancelling differs from the other tasks on purpose: the sweep is the host's way to free disk
// space, so a cancelled sweep still deletes every stale entry and reports each deletion; only
// its result (success or failure) is not sent. Ending the runtime stops it before its next
// entry, silently.
class ZMCheckFileAvailabilityTask
    : public ZMTask<ZMCheckFileAvailabilityTask, ZMCheckFileAvailabilityListener> {
 public:
  // Silences the outcome only: the progress already found still arrives, so the task stays in
  // its group until its last block has run.
  void cancel() override { markCancelled(); }
  // `cachePath` is the package cache, the only directory the sweep looks at.
  ZMCheckFileAvailabilityTask(std::weak_ptr<ZMCheckFileAvailabilityListener> listener,
                              std::string cachePath);

  void execute(const ZMValue& options);

  // True when the entry name's extension (after its last dot, not a leading one) is listed.
  static bool _compareExtensionName(const std::vector<std::string>& extensions,
                                    std::string_view name);
  // True when an entry modified at `modified` (seconds since 1970) is kept: younger than
  // keepTime minutes. An entry whose attributes cannot be read is kept too.
  static bool _compareKeepTime(double modified, int64_t keepTime);

 private:
  void _checkCacheTempFileTask(const std::vector<std::string>& extensions, int64_t keepTime);
  void _complete(std::optional<ZMError> error);

  const std::string cachePath_;
};
