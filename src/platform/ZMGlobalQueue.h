#pragma once

#include <cstddef>
#include <functional>

// ZMGlobalQueue is the process's concurrent background queue (GCD's global queue of default
// priority). Guarantee: none about order; blocks may run at the same time on different threads.
// The pool is large enough that blocks waiting in ZMMainQueue::sync (the record store) cannot
// starve it. Blocks that need their object alive capture a shared_ptr; those that must not keep
// it alive capture a weak_ptr.
class ZMGlobalQueue {
 public:
  // Eight threads: uninstalls and sweeps block in ZMMainQueue::sync while the host drains the
  // main queue, and several of them may be queued at once.
  static constexpr std::size_t kThreadCount = 8;

  static void post(std::function<void()> block);
};
