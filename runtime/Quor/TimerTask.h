// TimerTask: a task that can also wait before it runs.
#pragma once

#include "runtime/Quor/Task.h"
#include "runtime/Zol/Assert.h"

namespace Quor {

class TimerTask : public Task {
 public:
  using Task::Task;

  // Runs after that many seconds (>= 0, finite), or earlier if it was scheduled to run sooner: the shorter delay wins.
  void scheduleTaskLowestDelay(double seconds) {
    ZOL_ASSERT(seconds >= 0 && seconds < Clock::never);
    scheduler()->makeWait(*this, scheduler()->now() + seconds);
  }
};

}  // namespace Quor
