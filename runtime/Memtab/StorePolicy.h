// How words get into a region. Process death keeps exactly the stores already executed, so the states a reader or a
// successor can meet are the prefixes of an operation's stores. Every store to a region therefore goes through one
// policy type, word by word: a test's policy counts them, throws before the n-th, or lets somebody look in between.
//
// A policy has:  void word(Word& at, uint64_t value, std::memory_order order)
#pragma once

#include <atomic>
#include <cstdint>

#include "runtime/Memtab/Layout.h"

namespace Memtab {

// The policy of production: one plain move instruction.
struct DirectStores {
  static void word(Word& at, uint64_t value, std::memory_order order) { at.store(value, order); }
};

}  // namespace Memtab
