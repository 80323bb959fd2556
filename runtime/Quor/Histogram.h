// Histogram: how often durations of each length came, in buckets that double. Adding one is a few instructions and
// takes no memory, so what runs all the time can be measured all the time.
//
//     bucket   0      1      2      3      ...  25         last
//     up to    1 us   2 us   4 us   8 us        33.6 s     whatever is longer
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace Quor {

class Histogram {
 public:
  static constexpr std::size_t bounds = 26;  // buckets with an upper bound; one more is without

  // Seconds; less than none counts as none.
  void add(double seconds) {
    const double limited = std::clamp(seconds, 0.0, 1e9);
    const auto microseconds = static_cast<std::uint64_t>(std::ceil(limited * 1e6));
    const auto width = static_cast<std::size_t>(std::bit_width(microseconds - (microseconds > 0 ? 1 : 0)));
    ++counts_[std::min(width, bounds)];
    ++count_;
    sum_ += limited;
    longest_ = std::max(longest_, limited);
  }

  std::uint64_t count() const { return count_; }
  double sum() const { return sum_; }          // seconds
  double longest() const { return longest_; }  // seconds
  // How many fell into that bucket. Requires: bucket <= bounds.
  std::uint64_t count(std::size_t bucket) const { return counts_.at(bucket); }
  // Its longest duration in seconds. Requires: bucket < bounds.
  static double bound(std::size_t bucket) { return static_cast<double>(std::uint64_t{1} << bucket) * 1e-6; }

 private:
  std::array<std::uint64_t, bounds + 1> counts_{};
  std::uint64_t count_ = 0;
  double sum_ = 0;
  double longest_ = 0;
};

}  // namespace Quor
