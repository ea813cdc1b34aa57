#include "util/ZMDeleteFileFreeingLater.h"

#include <unistd.h>

#include <memory>

#include "platform/ZMFileManager.h"
#include "platform/ZMGlobalQueue.h"
#include "tavo/ZMFileUtils.h"

bool ZMDeleteFileFreeingLater(const std::string& path) {
  const int fd = ZMFileManager::openRegularFile(path, false);
  const bool deleted = ZMFileUtils::deleteFile(path);
  if (fd >= 0) {
    // Closed when the block runs, or when a block dropped at exit is destroyed.
    std::shared_ptr<void> holder(nullptr, [fd](void*) { ::close(fd); });
    ZMGlobalQueue::post([holder = std::move(holder)]() mutable { holder.reset(); });
  }
  return deleted;
}
