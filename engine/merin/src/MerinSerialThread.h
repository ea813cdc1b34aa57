#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

// One thread that runs posted tasks in order. The thread starts with the first post and ends
// with stop(); a later post starts a new one.
class MerinSerialThread {
 public:
  MerinSerialThread() = default;
  ~MerinSerialThread() { stop(); }
  MerinSerialThread(const MerinSerialThread&) = delete;
  MerinSerialThread& operator=(const MerinSerialThread&) = delete;

  void post(std::function<void()> task);
  // Lets the queued tasks run, then joins the thread. Called on the thread itself (a task that
  // drops the last owner), it detaches instead: the thread ends after the queue is empty.
  void stop();
  // True on this object's current thread.
  bool isCurrent();

 private:
  struct Queue {
    std::mutex mutex;
    std::condition_variable ready;
    std::deque<std::function<void()>> tasks;
    bool stopping = false;
  };
  static void loop(const std::shared_ptr<Queue>& queue);

  std::mutex mutex_;
  std::shared_ptr<Queue> queue_;
  std::thread thread_;
};
