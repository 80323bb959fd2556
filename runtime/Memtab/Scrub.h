// Scrubbing: a writer compares its region with its private memory, one segment at a time, and repairs damage.
// StoreScrub.h lists the comparisons.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "runtime/Memtab/Damage.h"
#include "runtime/Memtab/Layout.h"

namespace Memtab {

// The place where the next step of a pass begins. Changes of the table keep it valid.
struct ScrubPlace {
  bool isBegun = false;     // false: at the header
  unsigned collection = 0;  // collections are visited from the last to the first
  uint64_t hash = 0;
};

// Receives the sound records of a step. Must not change the store.
class ScrubVisitor {
 public:
  virtual void visit(unsigned collection, Bytes key, Bytes record) = 0;

 protected:
  ~ScrubVisitor() = default;
};

// The findings of a step.
struct ScrubFinding {
  Damage damage;
  std::vector<std::byte> key = {};  // of the record; empty: unknown, or not of one record
};
struct ScrubReport {
  // Header, ring, directory and index words that are restored. Changes of a key may have been lost while its index word
  // was damaged: the owner must check the keys of the step.
  std::vector<ScrubFinding> repaired;
  bool hasRepairedIndex = false;
  std::vector<ScrubFinding> damaged;   // records that cannot be read: their owner must write them again
  const char* beyondRepair = nullptr;  // why only a take-over can repair the table; null: it need not
  unsigned collection = 0;
  // Of the keys in the step; none: firstHash is greater.
  uint64_t firstHash = 1;
  uint64_t lastHash = 0;
  size_t entries = 0;
};

}  // namespace Memtab
