// SimulatedTimeSource: time that stands still until somebody moves it, so that waits cost nothing and a run is a pure
// function of its inputs.
#pragma once

#include "runtime/Quor/TimeSource.h"
#include "runtime/Zol/Assert.h"

namespace Quor {

class SimulatedTimeSource final : public TimeSource {
 public:
  explicit SimulatedTimeSource(double now = 0) : now_(now) {}

  double now() const override { return now_; }
  // Requires: now >= now().
  void nowIs(double now) {
    ZOL_ASSERT(now >= now_);
    now_ = now;
  }

 private:
  double now_;
};

}  // namespace Quor
