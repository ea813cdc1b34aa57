#pragma once

#include <functional>
#include <mutex>

// ZMSerialQueue is a private serial queue that callers wait on: sync() runs its block on the
// calling thread once no other block of this queue is running, and returns when it has run.
// Guarantee: blocks run one at a time (callers waiting at once get no order among themselves);
// a block that calls sync() on its own queue runs inline. Nothing here waits for the main
// queue, so any thread may call sync() while the main thread is itself waiting.
class ZMSerialQueue {
 public:
  ZMSerialQueue() = default;
  ZMSerialQueue(const ZMSerialQueue&) = delete;
  ZMSerialQueue& operator=(const ZMSerialQueue&) = delete;

  void sync(const std::function<void()>& block) {
    std::lock_guard lock(mutex_);
    block();
  }

 private:
  std::recursive_mutex mutex_;
};
