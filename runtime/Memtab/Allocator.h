// Allocator: which bytes of a region are free. Private to the writer, none of it lies in the region: what no word of
// the index names is free, so a writer that dies leaks nothing and leaves no list half-linked.
//
//   units of 16 bytes   header | block | block | free | segment | free ...     region end
//   bits                1111111  11111   111111  0000   1111111   0000
//
// The bits are the truth. Pieces come in size classes: steps of 16 bytes up to 256, then eighths of an octave, so at
// most an eighth is wasted. A freed piece is remembered in its class's list, a hint that is checked against the bits
// when the piece is wanted. Where no hint is good, a cursor moves on to the next free run that is long enough, whatever
// it was used for before; the region grows when the cursor has come to its end. The cursor starts again at the front
// when an eighth of the region has been freed meanwhile, so searching costs a word of bits for 128 bytes freed.
//
// A piece of up to a cache line does not straddle two; pieces from 512 bytes on start at a cache line, which makes a
// segment's bucket one line.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "runtime/Memtab/Region.h"

namespace Memtab {

class Allocator {
 public:
  // Everything behind the header page of region is free.
  explicit Allocator(Region& region);

  // The first unit of a piece of at least bytes. Throws NoSpace; then nothing changed.
  uint32_t allocate(size_t bytes);
  // The same without the region growing; 0: there is no room.
  uint32_t allocateInside(size_t bytes);
  // Requires: allocate(bytes), or one of the same class, gave units. The piece may be handed out again at once.
  void release(uint32_t units, size_t bytes);
  // As if allocate(bytes) had given the piece at offset. False, and nothing changed: it is not wholly free, or not
  // within the region.
  bool take(size_t offset, size_t bytes);

  // Header page and all pieces handed out, rounded up to their classes.
  size_t bytesUsed() const { return used_; }
  // Of them, in pieces from 512 bytes on.
  size_t bytesLarge() const { return large_; }
  // Where the last piece ends.
  size_t end() const;
  // Whether no part of a piece lies in [from, to), of whole units.
  bool isFree(size_t from, size_t to) const;

  // From now on pieces end at or before these offsets, until there is no more room there: then the limits are dropped.
  // large: of pieces from 512 bytes on.
  void limitsAre(size_t small, size_t large);
  void limitsDel() { limits_ = {noLimit, noLimit}; }
  bool hasLimits() const { return limits_[0] != noLimit; }
  // Whether the piece at offset lies behind the limit for its size.
  bool isBehindLimit(size_t offset, size_t bytes) const;
  static constexpr size_t noLimit = ~size_t{0} / 2;
  // The region was made shorter. Requires: end() is within it.
  void regionShrunk();

  static size_t sizeClass(size_t bytes);
  static size_t classBytes(size_t sizeClass);

 private:
  static constexpr size_t nowhere = ~size_t{0};

  // All in units.
  size_t size() const { return bits_.size() * 64; }
  size_t limit(size_t units) const;
  size_t firstUsed(size_t from, size_t to) const;
  size_t firstFree(size_t from, size_t to) const;
  void mark(size_t from, size_t to, bool isUsed);
  bool isRun(size_t at, size_t units) const {
    return at + units <= limit(units) && firstUsed(at, at + units) == at + units;
  }
  size_t find(size_t from, size_t units) const;
  size_t firstFreeLane(size_t from, size_t to) const;
  size_t search(size_t units);
  size_t extend(size_t units);
  void rewind();

  std::vector<uint32_t>& hints(size_t sizeClass);
  size_t reuse(size_t sizeClass, size_t units);
  uint32_t handOut(size_t at, size_t units);
  void count(size_t units, bool isTaken);

  Region* region_;
  std::vector<uint64_t> bits_;
  std::array<size_t, 2> limits_ = {noLimit, noLimit};  // bytes, by kind
  size_t used_;
  size_t large_ = 0;
  size_t freed_ = 0;                          // bytes, since the cursors were at the front
  std::array<size_t, 2> cursors_;             // by kind
  std::vector<std::vector<uint32_t>> hints_;  // by size class
};

}  // namespace Memtab
