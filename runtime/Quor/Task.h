// Task: deferred work, cut into runs. run() does units of work in a loop, counts them, asks taskShouldYield() after
// each and returns when that is true or nothing is left; what remains it schedules again.
//
// A task may schedule, unschedule or destroy itself and others at any time, also from inside a run. Scheduler's thread
// only.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "runtime/Quor/TaskScheduler.h"
#include "runtime/Zol/Ptr.h"

namespace Quor {

class Task {
 public:
  Task(Zol::Ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name);
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;
  // A task that is destroyed is unscheduled.
  virtual ~Task();

  const Zol::Ptr<TaskScheduler>& scheduler() const { return scheduler_; }
  TaskPriority priority() const { return priority_; }
  const std::string& name() const { return name_; }

  // Runs as soon as its turn comes, also when it was waiting for a delay. A ready task keeps its turn.
  void scheduleTask() { scheduler_->makeReady(*this); }
  // It is no longer ready or waiting. A run in progress goes on to its end.
  void unscheduleTask() { scheduler_->makeIdle(*this); }
  // Whether it is ready or waiting. False inside its own run unless that has scheduled it again.
  bool taskScheduled() const { return readyPlace_ || waitingPlace_; }

  // True when this run has used its share; call it once after each unit of work. False outside a run of this task:
  // who calls the work directly has no turn to give back.
  bool taskShouldYield();

  // Units of work done in the present run, or else in the last one.
  std::size_t taskWorkCount() const { return workCount_; }
  void taskWorkCountInc(std::size_t units);
  // How much work the last run has left over, as the task itself reports it.
  std::size_t taskWorkPending() const { return workPending_; }
  void taskWorkPendingIs(std::size_t units) { workPending_ = units; }

 private:
  friend class TaskScheduler;
  virtual void run() = 0;

  const Zol::Ptr<TaskScheduler> scheduler_;
  const TaskPriority priority_;
  const std::string name_;
  std::optional<RankedQueue<TaskPriority, Task>::Place> readyPlace_;
  std::optional<RankedQueue<double, Task>::Place> waitingPlace_;  // at most one of the two
  std::size_t workCount_ = 0;
  std::size_t workPending_ = 0;
};

}  // namespace Quor
