#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

// What the engine's callbacks did, in order, and on which threads; filled on engine threads and
// read by the test.
class EngineEvents {
 public:
  void add(std::string event) {
    {
      std::lock_guard lock(mutex_);
      events_.push_back(std::move(event));
      threads_.insert(std::this_thread::get_id());
    }
    changed_.notify_all();
  }
  // Waits until at least `count` events arrived.
  bool waitFor(size_t count, std::chrono::seconds timeout = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return events_.size() >= count; });
  }
  std::vector<std::string> events() const {
    std::lock_guard lock(mutex_);
    return events_;
  }
  std::set<std::thread::id> threads() const {
    std::lock_guard lock(mutex_);
    return threads_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> events_;
  std::set<std::thread::id> threads_;
};
