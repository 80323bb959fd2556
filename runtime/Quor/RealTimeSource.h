// RealTimeSource: the machine's monotonic clock. Steps of the wall clock do not reach it.
#pragma once

#include "runtime/Quor/TimeSource.h"

namespace Quor {

class RealTimeSource final : public TimeSource {
 public:
  double now() const override;
};

}  // namespace Quor
