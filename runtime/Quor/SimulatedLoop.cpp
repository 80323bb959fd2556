#include "runtime/Quor/SimulatedLoop.h"

#include "runtime/Zol/Assert.h"

namespace Quor {

void settle(TaskScheduler& scheduler, SimulatedTimeSource& time) {
  scheduler.runDue();
  while (scheduler.hasTasks()) {
    time.nowIs(*scheduler.nextDeadline());
    scheduler.runDue();
  }
}

void advance(TaskScheduler& scheduler, SimulatedTimeSource& time, double seconds) {
  ZOL_ASSERT(seconds >= 0);
  const double end = time.now() + seconds;
  scheduler.runDue();
  for (auto next = scheduler.nextDeadline(); next && *next <= end; next = scheduler.nextDeadline()) {
    time.nowIs(*next);
    scheduler.runDue();
  }
  time.nowIs(end);
}

}  // namespace Quor
