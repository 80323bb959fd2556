// Watchers that a handler arms while due ones are being called wait for the next round, even with a time in the past.
// So a handler that always arms itself again cannot keep the thread from tasks and file descriptors.
#include "runtime/Quor/Clock.h"

#include <algorithm>
#include <cmath>

#include "runtime/Quor/ClockNotifiee.h"
#include "runtime/Zol/Assert.h"

namespace Quor {

ClockNotifiee* Clock::first(std::uint64_t armedBefore) const {
  const auto found = std::find_if(watchers_.begin(), watchers_.end(),
                                  [armedBefore](const auto& each) { return each.first.arrival < armedBefore; });
  return found == watchers_.end() ? nullptr : found->second;
}

void Clock::call(ClockNotifiee& watcher) {
  watcher.timeMinIs(never);
  watcher.handleTimeMin();  // may destroy the watcher
}

void ClockNotifiee::timeMinIs(double time) {
  ZOL_ASSERT(!std::isnan(time));
  if (place_) {
    clock_->watchers_.remove(*place_);
    place_.reset();
  }
  if (time != Clock::never) {
    place_ = clock_->watchers_.add(time, *this);
  }
}

}  // namespace Quor
