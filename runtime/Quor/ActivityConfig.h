// ActivityConfig: what the activities on a scheduler share.
#pragma once

#include <utility>

#include "runtime/Quor/Clock.h"
#include "runtime/Zol/Ptr.h"

namespace Quor {

class ActivityConfig {
 public:
  explicit ActivityConfig(Zol::Ptr<Clock> clock) : clock_(std::move(clock)) {}

  const Zol::Ptr<Clock>& clock() const { return clock_; }

 private:
  const Zol::Ptr<Clock> clock_;
};

}  // namespace Quor
