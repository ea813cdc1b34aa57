#include "platform/ZMGlobalQueue.h"

#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <atomic>
#include <utility>

namespace {

std::atomic<bool> gEnding{false};

// Destroyed at exit: blocks not yet started are dropped, and the running ones are told to stop
// at their next step and then waited for, so none runs on while the process tears down.
struct Pool {
  asio::thread_pool threads{ZMGlobalQueue::kThreadCount};
  ~Pool() {
    gEnding = true;
    threads.stop();
    threads.join();
  }
};

Pool& pool() {
  static Pool p;
  return p;
}

}  // namespace

void ZMGlobalQueue::post(std::function<void()> block) {
  asio::post(pool().threads, std::move(block));
}

bool ZMGlobalQueue::isEnding() { return gEnding.load(std::memory_order_relaxed); }
