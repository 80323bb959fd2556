// TimeSource: where the scheduler takes the time from. Whoever builds the scheduler decides whether a run follows the
// machine's clock or a simulated one; nothing above asks for the time in another way.
#pragma once

namespace Quor {

class TimeSource {
 public:
  TimeSource() = default;
  TimeSource(const TimeSource&) = delete;
  TimeSource& operator=(const TimeSource&) = delete;
  virtual ~TimeSource() = default;

  // Seconds since a fixed moment that the source chooses; never goes back.
  virtual double now() const = 0;
};

}  // namespace Quor
