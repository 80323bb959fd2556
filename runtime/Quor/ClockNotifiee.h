// ClockNotifiee: waits for a point in time. Called once when the clock has reached it, and disarmed before that call,
// so that the handler may set the next one. Watchers are called in the order of their times, those of the same time in
// the order in which they were armed. A destroyed or disarmed watcher is not called.
#pragma once

#include <optional>
#include <utility>

#include "runtime/Quor/Clock.h"

namespace Quor {

class ClockNotifiee {
 public:
  explicit ClockNotifiee(Zol::PtrConst<Clock> clock) : clock_(std::move(clock)) {}
  ClockNotifiee(const ClockNotifiee&) = delete;
  ClockNotifiee& operator=(const ClockNotifiee&) = delete;
  virtual ~ClockNotifiee() { timeMinIs(Clock::never); }

  const Zol::PtrConst<Clock>& clock() const { return clock_; }

  // Calls back once clock()->now() >= time, replacing what was set before. A time in the past is due at once, from the
  // scheduler and not from inside this call. Clock::never (infinity) disarms.
  void timeMinIs(double time);
  double timeMin() const { return place_ ? place_->rank : Clock::never; }

 private:
  friend class Clock;
  virtual void handleTimeMin() = 0;

  const Zol::PtrConst<Clock> clock_;
  std::optional<Clock::Watchers::Place> place_;
};

// Calls a member function of its owner.
template <class Owner>
class OwnedClockNotifiee final : public ClockNotifiee {
 public:
  OwnedClockNotifiee(Owner& owner, void (Owner::*handler)(), Zol::PtrConst<Clock> clock)
      : ClockNotifiee(std::move(clock)), owner_(owner), handler_(handler) {}

 private:
  void handleTimeMin() override { (owner_.*handler_)(); }

  Owner& owner_;
  void (Owner::*const handler_)();
};

}  // namespace Quor
