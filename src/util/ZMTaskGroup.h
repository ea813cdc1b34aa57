#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

class ZMTaskBase;

// ZMTaskGroup knows every task its owner (the runtime, the plug-in manager) started and the
// background work they have queued, so that the owner can end them all: end() cancels every task
// and returns only when none of their work is still running, after which no task of the group
// touches a file or calls a listener (their queued replies find them cancelled).
//
// A task is kept from add() until its last reply has run (or until end()), so a task that its
// owner does not keep (an uninstall) still reports. Work queued on the global queue is counted
// from post() until it has run or, once the group has ended, been skipped.
//
// Thread rules: every function is safe from any thread. end() blocks, so it must not be called
// from a block of the group's own work.
class ZMTaskGroup : public std::enable_shared_from_this<ZMTaskGroup> {
 public:
  // Keeps `task` and makes the group its tracker. A task added after end() is cancelled at once.
  void add(const std::shared_ptr<ZMTaskBase>& task);
  // Lets go of a task whose last reply has run.
  void remove(const ZMTaskBase* task);
  // Runs `work` on the global queue unless the group has ended by the time it starts.
  void post(std::function<void()> work);
  // Cancels every kept task, refuses new work and waits until no work of the group runs.
  void end();

  bool hasEnded() const;
  // Tasks kept at the moment, for tests.
  std::size_t sizeForTesting() const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable idle_;
  std::vector<std::shared_ptr<ZMTaskBase>> tasks_;
  std::size_t pending_ = 0;  // posted and not yet finished or skipped
  bool ended_ = false;
};
