#include "runtime/Quor/TaskScheduler.h"

#include <algorithm>

#include "runtime/Quor/ClockNotifiee.h"
#include "runtime/Quor/Task.h"
#include "runtime/Zol/Assert.h"

namespace Quor {

// No handler or task runs inside another one.
class TaskScheduler::Busy {
 public:
  explicit Busy(TaskScheduler& scheduler) : scheduler_(&scheduler) {
    ZOL_ASSERT(!scheduler.busy_);
    scheduler.busy_ = true;
  }
  ~Busy() { scheduler_->busy_ = false; }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;

 private:
  const Zol::Ptr<TaskScheduler> scheduler_;  // whoever runs may drop the last other reference
};

// One run of a task, counted however it ends.
class TaskScheduler::Slice {
 public:
  Slice(TaskScheduler& scheduler, Task& task) : scheduler_(scheduler), begin_(scheduler.now()) {
    scheduler.running_ = &task;
    scheduler.slicePolicy_.sliceBegin();
  }
  ~Slice() {
    scheduler_.running_ = nullptr;
    ++scheduler_.counters_.slices;
    scheduler_.counters_.longestSlice = std::max(scheduler_.counters_.longestSlice, scheduler_.now() - begin_);
  }
  Slice(const Slice&) = delete;
  Slice& operator=(const Slice&) = delete;

 private:
  TaskScheduler& scheduler_;
  const double begin_;
};

TaskScheduler::TaskScheduler(const TimeSource& time, SlicePolicy& slicePolicy)
    : time_(time), slicePolicy_(slicePolicy), activityConfig_(Zol::make<Clock>(time)) {}

bool TaskScheduler::runReadyTask() {
  const Busy busy(*this);
  serveDue(now());
  if (ready_.empty()) {
    return false;
  }
  Task& task = *ready_.begin()->second;
  makeIdle(task);
  task.workCount_ = 0;
  const Slice slice(*this, task);
  task.run();  // may destroy the task
  return true;
}

void TaskScheduler::runDue() {
  const Zol::Ptr<TaskScheduler> self(this);
  const auto isDue = [this] {
    const std::optional<double> next = nextDeadline();
    return next && *next <= now();
  };
  while (runReadyTask() || isDue()) {
  }
}

std::optional<double> TaskScheduler::nextTaskDeadline() const {
  if (!ready_.empty()) {
    return now();
  }
  return waiting_.empty() ? std::nullopt : std::optional(waiting_.begin()->first.rank);
}

std::optional<double> TaskScheduler::nextDeadline() const {
  const std::optional<double> task = nextTaskDeadline();
  const auto& watchers = activityConfig_.clock()->watchers_;
  if (watchers.empty()) {
    return task;
  }
  const double watcher = watchers.begin()->first.rank;
  return task ? std::min(*task, watcher) : watcher;
}

void TaskScheduler::makeReady(Task& task) {
  if (!task.readyPlace_) {
    makeIdle(task);
    task.readyPlace_ = ready_.add(task.priority(), task);
  }
}

void TaskScheduler::makeWait(Task& task, double deadline) {
  if (task.readyPlace_ || (task.waitingPlace_ && task.waitingPlace_->rank <= deadline)) {
    return;
  }
  makeIdle(task);
  task.waitingPlace_ = waiting_.add(deadline, task);
}

void TaskScheduler::makeIdle(Task& task) {
  if (task.readyPlace_) {
    ready_.remove(*task.readyPlace_);
    task.readyPlace_.reset();
  }
  if (task.waitingPlace_) {
    waiting_.remove(*task.waitingPlace_);
    task.waitingPlace_.reset();
  }
}

void TaskScheduler::serveDue(double now) {
  const Zol::Ptr<Clock> clock = activityConfig_.clock();
  const std::uint64_t armedBefore = clock->watchers_.nextArrival();
  for (;;) {
    ClockNotifiee* const watcher = clock->first(armedBefore);
    const double watcherTime = watcher == nullptr ? Clock::never : watcher->timeMin();
    const double taskTime = waiting_.empty() ? Clock::never : waiting_.begin()->first.rank;
    if (std::min(watcherTime, taskTime) > now) {
      return;
    }
    if (watcherTime <= taskTime) {
      Clock::call(*watcher);
    } else {
      makeReady(*waiting_.begin()->second);
    }
  }
}

}  // namespace Quor
