// WordSums: sums over the index words of a segment, in the writer's private memory. A word that changes without
// the writer makes the sums differ, and the sums then give the former word.
//
//   bucket 1    word word word word word word word word
//   bucket 2    word word word word word word word word
//               column 0 ...                   column 7     one pair of sums a column: all words combined by exclusive
//                                                           or, and the hashes of all words and their slots added
//
// The first sum gives the difference between the damaged word and the right one, the second gives the bucket. That
// holds for one damaged word a column, so up to 57 neighbouring bytes can be restored.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "runtime/Memtab/Layout.h"

namespace Memtab {

class WordSums {
 public:
  struct Column {
    uint64_t combined = 0;
    uint64_t hashed = 0;
    friend bool operator==(const Column&, const Column&) = default;
  };

  // The word of a slot was from and is to.
  void change(size_t slot, uint64_t from, uint64_t to) {
    Column& column = columns_[slot % bucketWords];
    column.combined ^= from ^ to;
    column.hashed += hash(slot, to) - hash(slot, from);
  }
  const Column& column(size_t number) const { return columns_[number]; }
  void columnIs(size_t number, const Column& column) { columns_[number] = column; }

  // The former word of a slot, if this slot alone explains that its column adds up to found.
  std::optional<uint64_t> formerWord(size_t slot, uint64_t word, const Column& found) const {
    const Column& wanted = column(slot % bucketWords);
    const uint64_t former = word ^ wanted.combined ^ found.combined;
    const bool fits = hash(slot, former) - hash(slot, word) == wanted.hashed - found.hashed;
    return fits ? std::optional(former) : std::nullopt;
  }

 private:
  // Every bit of the word changes about half of the bits, and which ones depends on the slot.
  static uint64_t hash(size_t slot, uint64_t word) {
    uint64_t mixed = word + (slot + 1) * 0x9E37'79B9'7F4A'7C15;
    mixed = (mixed ^ mixed >> 30) * 0xBF58'476D'1CE4'E5B9;
    mixed = (mixed ^ mixed >> 27) * 0x94D0'49BB'1331'11EB;
    return mixed ^ mixed >> 31;
  }

  std::array<Column, bucketWords> columns_{};
};

}  // namespace Memtab
