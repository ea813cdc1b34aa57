#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "platform/ZMGlobalQueue.h"
#include "tavo/ZMError.h"
#include "tavo/ZMMainQueue.h"

class ZMTaskGroup;

// Cancels the worker held in `worker`, if any, and lets go of it: how an owner replaces or ends
// the one worker it keeps of a kind. Any type with cancel() will do.
template <typename Worker>
void ZMCancelAndClear(std::shared_ptr<Worker>& worker) {
  if (worker) {
    worker->cancel();
    worker.reset();
  }
}

// ZMTaskBase is what every task and worker of this library shares: the cancel flag and the way
// background work is started.
//
// What cancel means, once for all of them: cancel() is final. From the call on, the task's
// listener hears nothing more, not even a reply already posted to the main queue (every reply
// checks the flag when it runs). Background work stops at its next step; a step under way (one
// file written, one directory deleted, one record saved) finishes, so nothing is left half done.
// Work on another thread's behalf (a transfer, an unzip) is stopped as far as its owner allows;
// a task that differs says so beside its own cancel(). When the process exits, every task
// counts as cancelled, so work still running stops at its next step and exit does not wait for
// the rest; the same holds for work that goes on after a cancel once its owner has ended.
//
// Thread rules: cancel() and isCancel() are safe from any thread. Tasks are created, started and
// cancelled on the main thread.
class ZMTaskBase {
 public:
  virtual ~ZMTaskBase() = default;
  // Overrides stop their own work and then call this. A cancelled task reports nothing more, so
  // its group lets go of it here: no path after a cancel needs to say that the run is over.
  virtual void cancel() {
    markCancelled();
    finished();
  }
  bool isCancel() const { return isCancel_ || ZMGlobalQueue::isEnding(); }

  // True once nothing may run on this task's behalf: the group has ended (its owner's done()) or
  // the process is exiting. Work that a plain cancel does not stop stops here.
  bool hasOwnerEnded() const;

  // The group that tracks this task's background work, set by the owner before the task starts;
  // without one, work goes straight to the global queue.
  void setGroup(std::shared_ptr<ZMTaskGroup> group) { group_ = std::move(group); }

 protected:
  // Runs `work` on the global queue, counted by the group so that ending the group waits for it;
  // skipped when the group has ended before the work starts. The work holds what it needs.
  void postWork(std::function<void()> work);
  // Sets the cancel flag alone, for a task whose cancel silences only its outcome and which the
  // group must keep until its last reply has run.
  void markCancelled() { isCancel_ = true; }
  // Tells the group that this task's last reply has run, so it need not be kept any longer. A run
  // ends in exactly one of: its final reply (postFinalReply, or a step that calls this first), a
  // cancel, or a check that finds it cancelled; calling it twice is harmless.
  void finished();
  // The group set by the owner, or null; a worker puts the tasks it starts into it as well.
  const std::shared_ptr<ZMTaskGroup>& group() const { return group_; }

 private:
  std::atomic<bool> isCancel_{false};
  std::shared_ptr<ZMTaskGroup> group_;
};

// ZMTask adds the listener and the replies. `Derived` is the task class (created with
// std::make_shared), `Listener` its host listener, always held weakly.
//
// A reply posted with postReply runs on the main queue only if, when it runs, the task still
// exists (the reply holds it weakly: a task nobody keeps reports nothing), is not cancelled, and
// its listener is still there. postStep is the same without the listener condition, for work
// that must happen on the main queue even when nobody listens (an install still records the
// game).
template <typename Derived, typename Listener>
class ZMTask : public ZMTaskBase, public std::enable_shared_from_this<Derived> {
 protected:
  explicit ZMTask(std::weak_ptr<Listener> listener) : listener_(std::move(listener)) {}

  // `step` is called as step(Derived&).
  template <typename Step>
  void postStep(Step step) {
    ZMMainQueue::post([weak = this->weak_from_this(), step = std::move(step)]() mutable {
      auto self = weak.lock();
      if (self && !self->isCancel()) step(*self);
    });
  }
  // `reply` is called as reply(Listener&).
  template <typename Reply>
  void postReply(Reply reply) {
    postStep([reply = std::move(reply)](Derived& self) mutable {
      if (auto listener = self.listener_.lock()) reply(*listener);
    });
  }
  // The same, delivered also after a cancel (never after the owner has ended), for a task whose
  // cancel deliberately silences only its outcome.
  template <typename Reply>
  void postReplyDespiteCancel(Reply reply) {
    ZMMainQueue::post([weak = this->weak_from_this(), reply = std::move(reply)]() mutable {
      auto self = weak.lock();
      if (!self || self->hasOwnerEnded()) return;
      if (auto listener = self->listener_.lock()) reply(*listener);
    });
  }
  // The same for the last reply of a run: afterwards the task's group lets go of it.
  template <typename Reply>
  void postFinalReply(Reply reply) {
    postStep([reply = std::move(reply)](Derived& self) mutable {
      self.finished();
      if (auto listener = self.listener_.lock()) reply(*listener);
    });
  }

  // The outcomes that end a run, posted in order in one block: failure(listener, error) for an
  // error, success(listener) for a null. Two of them are a failure that a success of the same
  // run follows; arriving back to back, they need the owner kept alive for nothing in between.
  template <typename Failure, typename Success>
  void postFinalOutcomes(std::vector<std::optional<ZMError>> outcomes, Failure failure,
                         Success success) {
    postStep([outcomes = std::move(outcomes), failure = std::move(failure),
              success = std::move(success)](Derived& self) mutable {
      self.finished();
      auto listener = self.listener_.lock();
      for (const auto& error : outcomes) {
        if (!listener || self.isCancel()) return;
        error ? failure(*listener, *error) : success(*listener);
      }
    });
  }

  std::weak_ptr<Listener> listener_;
};
