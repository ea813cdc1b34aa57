#include "util/ZMTaskGroup.h"

#include <algorithm>
#include <utility>

#include "platform/ZMGlobalQueue.h"
#include "util/ZMTask.h"

void ZMTaskBase::postWork(std::function<void()> work) {
  if (group_) {
    group_->post(std::move(work));
  } else {
    ZMGlobalQueue::post(std::move(work));
  }
}

bool ZMTaskBase::hasOwnerEnded() const {
  return ZMGlobalQueue::isEnding() || (group_ && group_->hasEnded());
}

void ZMTaskBase::finished() {
  if (group_) group_->remove(this);
}

void ZMTaskGroup::add(const std::shared_ptr<ZMTaskBase>& task) {
  task->setGroup(shared_from_this());
  {
    std::lock_guard lock(mutex_);
    if (!ended_) {
      tasks_.push_back(task);
      return;
    }
  }
  task->cancel();
}

void ZMTaskGroup::remove(const ZMTaskBase* task) {
  std::shared_ptr<ZMTaskBase> released;  // destroyed outside the lock
  std::lock_guard lock(mutex_);
  auto it = std::find_if(tasks_.begin(), tasks_.end(),
                         [task](const auto& kept) { return kept.get() == task; });
  if (it == tasks_.end()) return;
  released = std::move(*it);
  tasks_.erase(it);
}

void ZMTaskGroup::post(std::function<void()> work) {
  {
    std::lock_guard lock(mutex_);
    if (ended_) return;
    ++pending_;
  }
  // The block keeps the group alive: end() may be waiting for exactly this count.
  ZMGlobalQueue::post([group = shared_from_this(), work = std::move(work)] {
    bool run;
    {
      std::lock_guard lock(group->mutex_);
      run = !group->ended_;
    }
    if (run) work();
    std::lock_guard lock(group->mutex_);
    if (--group->pending_ == 0) group->idle_.notify_all();
  });
}

void ZMTaskGroup::end() {
  std::vector<std::shared_ptr<ZMTaskBase>> tasks;
  {
    std::lock_guard lock(mutex_);
    ended_ = true;
    tasks.swap(tasks_);
  }
  for (const auto& task : tasks) task->cancel();
  std::unique_lock lock(mutex_);
  idle_.wait(lock, [this] { return pending_ == 0; });
}

bool ZMTaskGroup::hasEnded() const {
  std::lock_guard lock(mutex_);
  return ended_;
}

std::size_t ZMTaskGroup::sizeForTesting() const {
  std::lock_guard lock(mutex_);
  return tasks_.size();
}
