// walkRange: visits the readable keys of a table whose hashes lie in a range, without visiting the others.
#pragma once

#include <cstdint>

#include "runtime/Memtab/CorruptionException.h"

namespace Tunnel::TunnelTable {

// f(key) for each entry with a hash in [first, last], in the order of the table. Skips damaged entries.
template <class Map, class F>
void walkRange(const Map& map, std::uint32_t first, std::uint32_t last, F&& f) {
  typename Map::Hint hint;
  bool isStarted = false;
  for (;;) {
    try {
      const bool isMore = isStarted ? map.next(hint) : map.firstFrom(first, hint);
      isStarted = true;
      if (!isMore || hint.key().hash() > last) {
        return;
      }
    } catch (const Memtab::CorruptionException&) {
      isStarted = true;
      continue;
    }
    f(hint.key());
  }
}

}  // namespace Tunnel::TunnelTable
