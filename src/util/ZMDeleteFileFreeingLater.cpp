#include "util/ZMDeleteFileFreeingLater.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "platform/ZMGlobalQueue.h"
#include "tavo/ZMFileUtils.h"

bool ZMDeleteFileFreeingLater(const std::string& path) {
  // O_NONBLOCK: a FIFO in the package's place must not hold the caller.
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  struct stat st;
  if (fd >= 0 && (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
    ::close(fd);
    return ZMFileUtils::deleteFile(path);
  }
  if (fd < 0) return ZMFileUtils::deleteFile(path);
  const bool deleted = ZMFileUtils::deleteFile(path);
  // Closed when the block runs, or when a block dropped at exit is destroyed.
  std::shared_ptr<void> holder(nullptr, [fd](void*) { ::close(fd); });
  ZMGlobalQueue::post([holder = std::move(holder)]() mutable { holder.reset(); });
  return deleted;
}
