#include "runtime/Quor/Task.h"

#include <utility>

namespace Quor {

Task::Task(Zol::Ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name)
    : scheduler_(std::move(scheduler)), priority_(priority), name_(std::move(name)) {}

Task::~Task() {
  unscheduleTask();
  if (scheduler_->running_ == this) {
    scheduler_->running_ = nullptr;
  }
}

bool Task::taskShouldYield() { return scheduler_->running_ == this && scheduler_->slicePolicy_.shouldYield(); }

void Task::taskWorkCountInc(std::size_t units) {
  workCount_ += units;
  scheduler_->counters_.units += units;
}

}  // namespace Quor
