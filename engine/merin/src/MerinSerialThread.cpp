#include "MerinSerialThread.h"

#include <cstdio>
#include <exception>

namespace {
thread_local const void* tCurrentQueue = nullptr;
}

void MerinSerialThread::post(std::function<void()> task) {
  std::lock_guard lock(mutex_);
  if (!queue_) {
    queue_ = std::make_shared<Queue>();
    thread_ = std::thread(&MerinSerialThread::loop, queue_);
  }
  {
    std::lock_guard queueLock(queue_->mutex);
    queue_->tasks.push_back(std::move(task));
  }
  queue_->ready.notify_one();
}

void MerinSerialThread::stop() {
  std::shared_ptr<Queue> queue;
  std::thread thread;
  {
    std::lock_guard lock(mutex_);
    queue = std::move(queue_);
    thread = std::move(thread_);
  }
  if (!queue) return;
  {
    std::lock_guard queueLock(queue->mutex);
    queue->stopping = true;
  }
  queue->ready.notify_one();
  if (thread.get_id() == std::this_thread::get_id()) {
    thread.detach();
  } else {
    thread.join();
  }
}

bool MerinSerialThread::isCurrent() {
  std::lock_guard lock(mutex_);
  return queue_ && tCurrentQueue == queue_.get();
}

void MerinSerialThread::loop(const std::shared_ptr<Queue>& queue) {
  tCurrentQueue = queue.get();
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock lock(queue->mutex);
      queue->ready.wait(lock, [&] { return !queue->tasks.empty() || queue->stopping; });
      if (queue->tasks.empty()) break;
      task = std::move(queue->tasks.front());
      queue->tasks.pop_front();
    }
    try {
      task();
    } catch (const std::exception& e) {
      std::fprintf(stderr, "merin: a listener threw: %s\n", e.what());
    } catch (...) {
      std::fprintf(stderr, "merin: a listener threw\n");
    }
  }
  tCurrentQueue = nullptr;
}
