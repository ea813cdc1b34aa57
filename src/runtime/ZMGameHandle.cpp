#include "tavo/ZMGameHandle.h"

#include <mutex>
#include <utility>

namespace {
std::mutex gMutex;
std::shared_ptr<ZMGameHandle> gHandle;
}  // namespace

std::shared_ptr<ZMGameHandle> ZMGameHandle::getInstance() {
  std::lock_guard lock(gMutex);
  return gHandle;
}

void ZMGameHandle::setInstance(std::shared_ptr<ZMGameHandle> handle) {
  std::shared_ptr<ZMGameHandle> previous;
  {
    std::lock_guard lock(gMutex);
    previous = std::exchange(gHandle, std::move(handle));
  }
  // `previous` is released outside the lock: a handle's destructor may join engine threads.
}
