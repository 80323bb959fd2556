// EndlessSlicePolicy: no task is ever asked to yield.
#pragma once

#include "runtime/Quor/SlicePolicy.h"

namespace Quor {

class EndlessSlicePolicy final : public SlicePolicy {
 public:
  void sliceBegin() override {}
  bool shouldYield() override { return false; }
};

}  // namespace Quor
