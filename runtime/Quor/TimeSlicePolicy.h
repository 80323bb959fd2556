// TimeSlicePolicy: a slice lasts a fixed time, so that the loop looks at its file descriptors every few milliseconds.
#pragma once

#include "runtime/Quor/SlicePolicy.h"
#include "runtime/Quor/TimeSource.h"

namespace Quor {

class TimeSlicePolicy final : public SlicePolicy {
 public:
  explicit TimeSlicePolicy(const TimeSource& time, double seconds = 0.002) : time_(time), seconds_(seconds) {}

  void sliceBegin() override { end_ = time_.now() + seconds_; }
  // Reads the time in every call: one unit of work may be long, and reading costs far less than a unit.
  bool shouldYield() override { return time_.now() >= end_; }

 private:
  const TimeSource& time_;
  const double seconds_;
  double end_ = 0;
};

}  // namespace Quor
