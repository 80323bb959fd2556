// Clock: the agent's clock. Shows the scheduler's time and calls its watchers (ClockNotifiee) when theirs has come.
// The scheduler does the calling, before it runs the next task; arming a watcher never calls it.
#pragma once

#include <cstdint>
#include <limits>

#include "runtime/Quor/RankedQueue.h"
#include "runtime/Quor/TimeSource.h"
#include "runtime/Zol/Ptr.h"

namespace Quor {

class ClockNotifiee;

class Clock final : public Zol::PtrInterface {
 public:
  static constexpr double never = std::numeric_limits<double>::infinity();

  // The source outlives the clock.
  explicit Clock(const TimeSource& time) : time_(time) {}

  // Seconds, as the source counts them.
  double now() const { return time_.now(); }

 private:
  friend class ClockNotifiee;
  friend class TaskScheduler;
  using Watchers = RankedQueue<double, ClockNotifiee>;

  // The earliest watcher that was armed before that arrival number, or null.
  ClockNotifiee* first(std::uint64_t armedBefore) const;
  static void call(ClockNotifiee& watcher);

  const TimeSource& time_;
  mutable Watchers watchers_;  // watching a clock does not change it
};

}  // namespace Quor
