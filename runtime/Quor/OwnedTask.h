// OwnedTask: a timer task whose run calls a member function of its owner, such as a reactor's drain of its backlog.
#pragma once

#include <string>
#include <utility>

#include "runtime/Quor/TimerTask.h"

namespace Quor {

template <class Owner>
class OwnedTask final : public TimerTask {
 public:
  // The owner outlives the task.
  OwnedTask(Owner& owner, void (Owner::*work)(), Zol::Ptr<TaskScheduler> scheduler, TaskPriority priority,
            std::string name)
      : TimerTask(std::move(scheduler), priority, std::move(name)), owner_(owner), work_(work) {}

 private:
  void run() override { (owner_.*work_)(); }

  Owner& owner_;
  void (Owner::*const work_)();
};

}  // namespace Quor
