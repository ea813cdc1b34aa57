#include "tavo/ZMMainQueue.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

namespace {

// The queue's state. Heap-allocated and never destroyed, so that blocks posted by background
// threads during process exit never touch a destroyed mutex.
struct MainQueueState {
  std::mutex mutex;
  std::condition_variable ready;
  std::deque<ZMMainQueue::Block> blocks;
  std::function<void()> wakeupHook;
  std::thread::id mainThread = std::this_thread::get_id();
  bool stopRequested = false;
};

MainQueueState& state() {
  static MainQueueState* s = new MainQueueState();
  return *s;
}

// Binds the main thread to the thread running static initialisation.
[[maybe_unused]] const bool kBoundAtLoad = (state(), true);

bool runOne() {
  ZMMainQueue::Block block;
  {
    std::lock_guard lock(state().mutex);
    if (state().blocks.empty()) return false;
    block = std::move(state().blocks.front());
    state().blocks.pop_front();
  }
  block();
  return true;
}

}  // namespace

void ZMMainQueue::post(Block block) {
  std::function<void()> hook;
  {
    std::lock_guard lock(state().mutex);
    state().blocks.push_back(std::move(block));
    hook = state().wakeupHook;
  }
  state().ready.notify_all();
  if (hook) hook();
}

void ZMMainQueue::sync(const Block& block) {
  if (isMainThread()) {
    block();
    return;
  }
  struct Waiter {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    std::exception_ptr error;
  };
  auto waiter = std::make_shared<Waiter>();
  post([waiter, &block] {
    try {
      block();
    } catch (...) {
      std::lock_guard lock(waiter->mutex);
      waiter->error = std::current_exception();
    }
    {
      std::lock_guard lock(waiter->mutex);
      waiter->done = true;
    }
    waiter->cv.notify_all();
  });
  std::exception_ptr error;
  {
    std::unique_lock lock(waiter->mutex);
    waiter->cv.wait(lock, [&] { return waiter->done; });
    // Taken out so that the exception is released on this thread, not when the main thread
    // destroys the block.
    error = std::move(waiter->error);
  }
  if (error) std::rethrow_exception(error);
}

bool ZMMainQueue::isMainThread() {
  std::lock_guard lock(state().mutex);
  return state().mainThread == std::this_thread::get_id();
}

void ZMMainQueue::bindToCurrentThread() {
  std::lock_guard lock(state().mutex);
  state().mainThread = std::this_thread::get_id();
}

std::size_t ZMMainQueue::poll() {
  std::size_t pending;
  {
    std::lock_guard lock(state().mutex);
    pending = state().blocks.size();
  }
  std::size_t ran = 0;
  while (ran < pending && runOne()) ++ran;
  return ran;
}

bool ZMMainQueue::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (done()) return true;
    if (runOne()) continue;
    std::unique_lock lock(state().mutex);
    if (std::chrono::steady_clock::now() >= deadline) {
      lock.unlock();
      return done();
    }
    // Background work can satisfy `done` without posting, so idle waits are short.
    const auto slice =
        std::min(deadline, std::chrono::steady_clock::now() + std::chrono::milliseconds(5));
    state().ready.wait_until(lock, slice, [] { return !state().blocks.empty(); });
  }
}

void ZMMainQueue::run() {
  for (;;) {
    {
      std::lock_guard lock(state().mutex);
      if (state().stopRequested) {
        state().stopRequested = false;
        return;
      }
    }
    if (runOne()) continue;
    std::unique_lock lock(state().mutex);
    state().ready.wait(lock, [] { return state().stopRequested || !state().blocks.empty(); });
  }
}

void ZMMainQueue::stop() {
  {
    std::lock_guard lock(state().mutex);
    state().stopRequested = true;
  }
  state().ready.notify_all();
}

void ZMMainQueue::setWakeupHook(std::function<void()> hook) {
  std::lock_guard lock(state().mutex);
  state().wakeupHook = std::move(hook);
}
