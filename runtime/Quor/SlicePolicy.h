// SlicePolicy: decides when a running task has used its share. The scheduler tells it when a run (a slice) begins; the
// task asks once after each unit of work.
#pragma once

namespace Quor {

class SlicePolicy {
 public:
  SlicePolicy() = default;
  SlicePolicy(const SlicePolicy&) = delete;
  SlicePolicy& operator=(const SlicePolicy&) = delete;
  virtual ~SlicePolicy() = default;

  virtual void sliceBegin() = 0;
  // Stays true once it was true in a slice.
  virtual bool shouldYield() = 0;
};

}  // namespace Quor
