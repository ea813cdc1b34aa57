#pragma once

#include <cstddef>
#include <functional>

// ZMGlobalQueue is the process's concurrent background queue (GCD's global queue of default
// priority). Guarantee: none about order; blocks may run at the same time on different threads.
// No block waits for the main queue, so the pool never needs the host to drain it. Blocks that need
// their object alive capture a shared_ptr; those that must not keep it alive capture a weak_ptr.
class ZMGlobalQueue {
 public:
  // Blocks do file and store work and never wait on each other; four threads keep a long sweep
  // or unzip from holding up every other operation.
  static constexpr std::size_t kThreadCount = 4;

  static void post(std::function<void()> block);

  // True once the process has begun to exit: the pool no longer starts blocks and waits only for
  // the ones running, which check this (through ZMTaskBase::isCancel) to stop at their next step.
  static bool isEnding();
};
