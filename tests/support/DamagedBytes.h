// Damage to the bytes of a table in memory.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>

#include "runtime/Memtab/Region.h"

namespace Support {

// Flips a bit where bytes stand first; false: they stand nowhere.
inline bool damageFirst(const Memtab::View& view, std::span<const std::uint8_t> bytes) {
  auto* const begin = const_cast<std::byte*>(view.base);
  auto* const end = begin + view.size();
  auto* const at = std::search(begin, end, bytes.begin(), bytes.end(),
                               [](std::byte a, std::uint8_t b) { return a == std::byte(b); });
  if (at == end) {
    return false;
  }
  *at ^= std::byte(1);
  return true;
}

}  // namespace Support
