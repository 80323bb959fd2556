// TaskScheduler: runs the agent's tasks, one at a time, on the thread that calls it.
//
// A task is idle, ready or waiting for its delay. Ready tasks run in the order of their priority, and within one
// priority in the order in which they became ready. A less urgent task runs only when no more urgent one is ready: a
// task with much to do must yield and come back with a delay (scheduleTaskLowestDelay), which lets all others run.
//
// Before a task runs, everything whose time has come is served in the order of time: waiting tasks become ready and the
// watchers of the clock are called (at the same time, watchers first).
//
// The scheduler never sleeps and never looks at the machine's clock by itself; a driver (EventLoop, settle(),
// advance()) calls it and decides about time. Handlers and tasks run to completion: they must not call the run...
// operations.
#pragma once

#include <cstdint>
#include <optional>

#include "runtime/Quor/ActivityConfig.h"
#include "runtime/Quor/RankedQueue.h"
#include "runtime/Quor/SlicePolicy.h"
#include "runtime/Quor/TaskPriority.h"
#include "runtime/Quor/TimeSource.h"
#include "runtime/Zol/Ptr.h"

namespace Quor {

class Task;

class TaskScheduler final : public Zol::PtrInterface {
 public:
  struct Counters {
    std::uint64_t slices = 0;  // runs of tasks
    std::uint64_t units = 0;   // work that tasks have counted
    double longestSlice = 0;   // seconds
  };

  // Both outlive the scheduler and whatever holds its clock.
  TaskScheduler(const TimeSource& time, SlicePolicy& slicePolicy);

  const ActivityConfig& activityConfig() const { return activityConfig_; }
  double now() const { return time_.now(); }
  const Counters& counters() const { return counters_; }

  // Serves what is due, then runs the first ready task; false when there is none.
  bool runReadyTask();
  // Serves and runs until nothing is due any more. Does not return while tasks or watchers keep making each other due.
  void runDue();

  // Whether a task is ready or waiting. Watchers of the clock do not count.
  bool hasTasks() const { return !ready_.empty() || !waiting_.empty(); }
  // When the next task wants to run: now if one is ready.
  std::optional<double> nextTaskDeadline() const;
  // The same for tasks and watchers of the clock. May lie in the past.
  std::optional<double> nextDeadline() const;

 private:
  friend class Task;
  friend class TimerTask;
  class Busy;
  class Slice;

  ~TaskScheduler() override = default;

  void makeReady(Task& task);
  // Keeps an earlier deadline, or readiness.
  void makeWait(Task& task, double deadline);
  void makeIdle(Task& task);
  void serveDue(double now);

  const TimeSource& time_;
  SlicePolicy& slicePolicy_;
  const ActivityConfig activityConfig_;
  RankedQueue<TaskPriority, Task> ready_;
  RankedQueue<double, Task> waiting_;
  Task* running_ = nullptr;  // null again when it destroys itself
  bool busy_ = false;
  Counters counters_;
};

}  // namespace Quor
