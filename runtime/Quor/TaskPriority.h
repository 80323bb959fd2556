// TaskPriority: which of two ready tasks runs first. 0 is the most urgent; larger numbers give way to smaller ones.
#pragma once

#include <compare>

namespace Quor {

class TaskPriority {
 public:
  constexpr TaskPriority(unsigned value) : value_(value) {}  // NOLINT: priorities are written as plain numbers

  constexpr unsigned value() const { return value_; }
  friend constexpr auto operator<=>(const TaskPriority&, const TaskPriority&) = default;

 private:
  unsigned value_;
};

}  // namespace Quor
