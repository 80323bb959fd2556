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
// The end of the region is a reserve. Insertions leave it alone, so a full file system stops no replacement and no
// deletion:
//
//   | header | pieces, free pieces           | reserve: first half | second half |     region end
//            '--- every purpose -------------'---- growth ---------'
//                                            '---- exchange ---------------------'
//
// The region grows such that the reserve is there before a piece is handed out. Only when it cannot grow does a piece
// come from the reserve. Bytes count too: an insertion is refused as long as fewer bytes than the reserve are free, so
// what replacements have taken is replaced by the next pieces that are released.
//
// A piece of up to a cache line does not straddle two; pieces from 512 bytes on start at a cache line, which makes a
// segment's bucket one line.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "runtime/Memtab/Layout.h"
#include "runtime/Memtab/Region.h"

namespace Memtab {

// The reason for an allocation. It decides how much of the reserve an allocation may use.
enum class Purpose : uint8_t {
  insertion,  // a new record, with its place in the index: none
  growth,     // a larger record in place of another, or a larger index for such a change: the first half
  exchange,   // a change that releases as much as it takes, and the upkeep of the table: all of it
};

class Allocator {
 public:
  static constexpr size_t reserveMin = size_t{128} << 10;
  static constexpr size_t reserveShare = 64;  // a reserve is this part of its region at least

  // Everything behind the header page of region is free.
  explicit Allocator(Region& region);

  // The first unit of a piece of at least bytes, for the current purpose. Throws NoSpace; then nothing changed.
  uint32_t allocate(size_t bytes);
  // The same without the region growing, and outside the reserve; 0: there is no space.
  uint32_t allocateInside(size_t bytes);
  // The same, or else a place in the reserve that ends at or before units; 0: there is none.
  uint32_t allocateBelow(uint32_t units, size_t bytes);
  // Requires: allocate(bytes), or one of the same class, gave units. The piece may be handed out again at once.
  void release(uint32_t units, size_t bytes);
  // As if allocate(bytes) had given the piece at offset. False, and nothing changed: it is not wholly free, or not
  // within the region.
  bool take(size_t offset, size_t bytes);

  Purpose purpose() const { return purpose_; }
  void purposeIs(Purpose purpose) { purpose_ = purpose; }
  bool isInReserve(uint32_t units) const { return units >= bodyEnd_; }
  // The size that the region needs for its pieces and the reserve.
  size_t bytesNeeded() const { return bytesWithReserve(end()); }

  // Header page and all pieces handed out, rounded up to their classes.
  size_t bytesUsed() const { return used_; }
  // The rest of the region, the reserve included.
  size_t bytesFree() const { return size() * unitBytes - used_; }
  // The size of the reserve.
  size_t bytesReserved() const { return (size() - bodyEnd_) * unitBytes; }
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
  // The size of a piece for bytes.
  static size_t roomFor(size_t bytes) { return classBytes(sizeClass(bytes)); }

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
  static size_t reserveOf(size_t bytes);
  static size_t bytesWithReserve(size_t bytes);
  size_t reserveLeft() const;
  bool isAllowed(size_t units) const { return bytesFree() >= units * unitBytes + reserveLeft(); }
  size_t find(size_t from, size_t units, size_t end) const;
  size_t firstFreeLane(size_t from, size_t to) const;
  size_t search(size_t units);
  size_t extend(size_t units);
  size_t withoutGrowth(size_t units);
  void sizeIsOfRegion();
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
  size_t bodyEnd_ = 0;  // units; where the reserve begins
  Purpose purpose_ = Purpose::exchange;
  size_t freed_ = 0;                          // bytes, since the cursors were at the front
  std::array<size_t, 2> cursors_;             // by kind
  std::vector<std::vector<uint32_t>> hints_;  // by size class
};

// Allocations are for `purpose` as long as this lives.
class PurposeScope {
 public:
  PurposeScope(Allocator& allocator, Purpose purpose) : allocator_(allocator), before_(allocator.purpose()) {
    allocator.purposeIs(purpose);
  }
  PurposeScope(const PurposeScope&) = delete;
  PurposeScope& operator=(const PurposeScope&) = delete;
  ~PurposeScope() { allocator_.purposeIs(before_); }

 private:
  Allocator& allocator_;
  const Purpose before_;
};

}  // namespace Memtab
