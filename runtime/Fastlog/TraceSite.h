// TraceSite: keeps one trace call from filling the events of the ring file. The first burstMax lines of a burst are
// admitted, then one in quietSeconds; a burst ends when the call has been quiet for so long. Thousands of tunnels that
// are withdrawn at once, or wait for space, thus leave the events before them readable. Scheduler thread only.
#pragma once

#include <cstdint>
#include <ctime>
#include <utility>

namespace Fastlog {

class TraceSite {
 public:
  static constexpr std::uint32_t burstMax = 64;
  static constexpr std::uint64_t quietSeconds = 10;

  constexpr TraceSite() = default;

  bool admits() { return admits(secondsNow()); }
  bool admits(std::uint64_t now) {
    if (now - seen_ >= quietSeconds) {
      count_ = 0;
    }
    seen_ = now;
    if (count_ >= burstMax && now - admitted_ < quietSeconds) {
      ++leftOut_;
      return false;
    }
    ++count_;
    admitted_ = now;
    return true;
  }
  // Whether lines that follow now are left out.
  bool isBurstOver() const { return count_ >= burstMax; }
  // Lines that were left out since the last call.
  std::uint64_t takeLeftOut() { return std::exchange(leftOut_, 0); }

 private:
  static std::uint64_t secondsNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<std::uint64_t>(now.tv_sec);
  }

  std::uint64_t seen_ = 0;
  std::uint64_t admitted_ = 0;
  std::uint64_t leftOut_ = 0;
  std::uint32_t count_ = 0;
};

}  // namespace Fastlog
