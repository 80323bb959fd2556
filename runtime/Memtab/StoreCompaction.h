// When a region is made smaller, and how the two walks of it are led through all collections (IndexCompaction.h).
#pragma once

#include "runtime/Memtab/Store.h"

namespace Memtab {

template <class Stores>
bool BasicStore<Stores>::isWorthCompacting() const {
  const bool isTried = bytesMapped() == compacting_.bytesMapped && bytesUsed() > compacting_.bytesUsed / 2;
  const size_t bytes = bytesMapped() - allocator().bytesReserved();
  return bytesMapped() > options_.bytesKept && bytesUsed() * 4 < bytes && !isTried;
}

// A few steps towards a smaller region, if it is worth it.
template <class Stores>
void BasicStore<Stores>::compact() {
  constexpr size_t effortAtOnce = 64;
  Allocator& allocator = pen_.allocator();
  if (compacting_.walk == 0) {
    if (!isWorthCompacting()) {
      return;
    }
    compacting_ = {1, bytesUsed() * 2, 0, {}, 0, 0};
    allocator.limitsAre(compacting_.limit, Allocator::noLimit);
  } else if (!allocator.hasLimits()) {  // a put needed more
    endCompaction();
    return;
  }
  size_t effort = effortAtOnce;
  while (compacting_.walk != 0) {
    using Compaction = typename Index<Stores>::Compaction;
    switch (index(compacting_.collection).compact(compacting_.place, effort)) {
      case Compaction::more:
        return;
      case Compaction::noRoom:
        endCompaction();
        return;
      case Compaction::done:
        nextCollection();
    }
  }
}

template <class Stores>
void BasicStore<Stores>::nextCollection() {
  compacting_.place = {};
  if (++compacting_.collection < indexes_.size()) {
    return;
  }
  compacting_.collection = 0;
  if (compacting_.walk == 2) {
    endCompaction();
    return;
  }
  compacting_.walk = 2;
  const size_t large = pen_.allocator().bytesLarge();
  pen_.allocator().limitsAre(compacting_.limit, compacting_.limit + large + large / 2);
}

// What is free at the end goes, even if not all could be moved.
template <class Stores>
void BasicStore<Stores>::endCompaction() {
  pen_.shrink();
  compacting_ = {0, 0, 0, {}, bytesUsed(), bytesMapped()};
}

}  // namespace Memtab
