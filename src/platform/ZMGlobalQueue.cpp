#include "platform/ZMGlobalQueue.h"

#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <utility>

namespace {

asio::thread_pool& pool() {
  // Destroyed at exit: the destructor stops the pool and joins its threads, so a block already
  // running finishes before the process ends; blocks not yet started are dropped.
  static asio::thread_pool p(ZMGlobalQueue::kThreadCount);
  return p;
}

}  // namespace

void ZMGlobalQueue::post(std::function<void()> block) { asio::post(pool(), std::move(block)); }
