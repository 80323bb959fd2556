// UnitSlicePolicy: a slice lasts a fixed number of units of work, whatever time they take. Makes yields repeatable.
#pragma once

#include <cstdint>

#include "runtime/Quor/SlicePolicy.h"
#include "runtime/Zol/Assert.h"

namespace Quor {

class UnitSlicePolicy final : public SlicePolicy {
 public:
  // Requires: units > 0.
  explicit UnitSlicePolicy(std::uint64_t units) : units_(units) { ZOL_ASSERT(units > 0); }

  void sliceBegin() override { done_ = 0; }
  bool shouldYield() override { return ++done_ >= units_; }

 private:
  const std::uint64_t units_;
  std::uint64_t done_ = 0;
};

}  // namespace Quor
