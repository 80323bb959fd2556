// Drivers for a scheduler that lives in simulated time: waits pass at once, in the order of time.
#pragma once

#include "runtime/Quor/SimulatedTimeSource.h"
#include "runtime/Quor/TaskScheduler.h"

namespace Quor {

// Runs until no task is ready or waiting, moving the time from one task's deadline to the next. Watchers of the clock
// that come due on the way are called at their time; the time is never moved for a watcher alone.
// Does not return while tasks schedule themselves for ever.
void settle(TaskScheduler& scheduler, SimulatedTimeSource& time);

// Lets exactly that many seconds (>= 0) pass and runs everything that comes due in them, each at its time.
void advance(TaskScheduler& scheduler, SimulatedTimeSource& time, double seconds);

}  // namespace Quor
