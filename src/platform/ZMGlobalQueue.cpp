#include "platform/ZMGlobalQueue.h"

#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <utility>

namespace {

// Eight threads: uninstalls and sweeps block in ZMMainQueue::sync while the host drains the main
// queue, and several of them may be queued at once.
constexpr std::size_t kThreads = 8;

asio::thread_pool& pool() {
  // Destroyed at exit, after which the destructor has joined every thread; a process that exits
  // with blocks in flight waits for them, as leveldb's DBImpl waits for its compaction.
  static asio::thread_pool p(ZMGlobalQueue::kThreadCount);
  return p;
}

}  // namespace

void ZMGlobalQueue::post(std::function<void()> block) { asio::post(pool(), std::move(block)); }
