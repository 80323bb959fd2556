// Hashing. A hash is 32 bits, a function of the value alone (no seed, no address), so that the order of a hash
// collection is the same in every run and every process.
#pragma once

#include <array>
#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace Zol {

// Jenkins' one-at-a-time hash, byte by byte.
class OneAtATime {
 public:
  constexpr void byte(std::uint8_t value) { state_ = step(state_ + value); }
  // The eight bytes of value, least significant first.
  constexpr void word(std::uint64_t value) {
    if (state_ == 0) {
      state_ = firstSteps[value & 0xFF];
    } else {
      byte(static_cast<std::uint8_t>(value));
    }
    // Written out: compilers leave a loop in place at -O2.
    byte(static_cast<std::uint8_t>(value >>= 8));
    byte(static_cast<std::uint8_t>(value >>= 8));
    byte(static_cast<std::uint8_t>(value >>= 8));
    byte(static_cast<std::uint8_t>(value >>= 8));
    byte(static_cast<std::uint8_t>(value >>= 8));
    byte(static_cast<std::uint8_t>(value >>= 8));
    byte(static_cast<std::uint8_t>(value >>= 8));
  }
  constexpr std::uint32_t result() const {
    std::uint32_t hash = state_ * 9;
    hash ^= hash >> 11;
    return hash * 32769;
  }

 private:
  static constexpr std::uint32_t step(std::uint32_t sum) {
    sum *= 1025;
    return sum ^ (sum >> 6);
  }
  // The state after each first byte. A look-up spends most of its instructions on the hash of an id, and the fewer
  // they are, the more look-ups the processor overlaps.
  static constexpr auto firstSteps = [] {
    std::array<std::uint32_t, 256> states{};
    for (std::uint32_t byte = 0; byte < states.size(); ++byte) {
      const std::uint32_t sum = byte * 1025;
      states[byte] = sum ^ (sum >> 6);
    }
    return states;
  }();

  std::uint32_t state_ = 0;
};

// Folds words into one well-mixed hash; what composed values use.
class HashMix {
 public:
  constexpr void add(std::uint64_t word) {
    state_ = (state_ ^ word) * 0x9E3779B97F4A7C15ULL;
    state_ ^= state_ >> 32;
  }
  constexpr std::uint32_t result() const { return static_cast<std::uint32_t>((state_ * 0xD6E8FEB86659FD93ULL) >> 32); }

 private:
  std::uint64_t state_ = 0x2545F4914F6CDD1DULL;
};

template <class T>
concept HasHash = requires(const T& value) {
  { value.hash() } -> std::convertible_to<std::uint32_t>;
};

// The hash of any key of a collection: its own hash() where it has one.
template <class T>
struct Hash {
  std::uint32_t operator()(const T& value) const {
    if constexpr (HasHash<T>) {
      return value.hash();
    } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
      OneAtATime hash;
      for (const char c : std::string_view(value)) {
        hash.byte(static_cast<std::uint8_t>(c));
      }
      return hash.result();
    } else {
      static_assert(std::is_integral_v<T> || std::is_enum_v<T>, "give the type a hash()");
      HashMix mix;
      mix.add(static_cast<std::uint64_t>(value));
      return mix.result();
    }
  }
};

template <class T>
std::uint32_t hashOf(const T& value) {
  return Hash<T>()(value);
}

}  // namespace Zol
