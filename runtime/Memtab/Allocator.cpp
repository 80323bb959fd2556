// Size classes as arithmetic on the bits of the size, and searches in the bits of the units, a word at a time.
#include "runtime/Memtab/Allocator.h"

#include <algorithm>
#include <bit>

#include "runtime/Memtab/Layout.h"
#include "runtime/Zol/Assert.h"

namespace Memtab {
namespace {

constexpr size_t fineMax = 256;  // classes up to here are steps of a unit
constexpr size_t fineClasses = fineMax / unitBytes;
constexpr size_t lineUnits = lineBytes / unitBytes;
constexpr size_t wholeLinesFrom = 512 / unitBytes;
constexpr size_t headerUnits = headerBytes / unitBytes;
constexpr size_t bitsPerWord = 64;
constexpr size_t laneUnits = 16;  // a quarter of a word of bits
constexpr uint64_t laneLowBits = 0x0001'0001'0001'0001;

// Small or large: what is large starts at a line, has a limit of its own, and is searched for by itself.
constexpr size_t kindOf(size_t units) { return units >= wholeLinesFrom ? 1 : 0; }

// The first unit from at on where a piece of so many units may start.
constexpr size_t aligned(size_t at, size_t units) {
  const bool straddles = at % lineUnits + units > lineUnits;
  const bool isAligned = units >= wholeLinesFrom || (units <= lineUnits && straddles);
  return isAligned ? (at + lineUnits - 1) / lineUnits * lineUnits : at;
}

// The bits of a word from one position to another, of which the second may be 64.
constexpr uint64_t maskOf(size_t from, size_t to) { return ~uint64_t{0} >> (bitsPerWord - (to - from)) << from; }

}  // namespace

size_t Allocator::sizeClass(size_t bytes) {
  if (bytes <= fineMax) {
    return bytes == 0 ? 0 : (bytes - 1) / unitBytes;
  }
  const size_t last = bytes - 1;
  const auto octave = static_cast<size_t>(std::bit_width(last)) - 1;  // 8 for 257..512
  const size_t eighth = (last >> (octave - 3)) & 7;
  return fineClasses + (octave - 8) * 8 + eighth;
}

size_t Allocator::classBytes(size_t sizeClass) {
  if (sizeClass < fineClasses) {
    return (sizeClass + 1) * unitBytes;
  }
  const size_t octave = 8 + (sizeClass - fineClasses) / 8;
  const size_t eighth = (sizeClass - fineClasses) % 8;
  return (size_t{1} << octave) + (eighth + 1) * (size_t{1} << (octave - 3));
}

// 128 KiB hold, in either half, the largest FIB entry with as many label stacks.
size_t Allocator::reserveOf(size_t bytes) { return std::min(bytes, std::max(reserveMin, bytes / reserveShare)); }

// The least size of a region of which so many bytes do not lie in the reserve.
size_t Allocator::bytesWithReserve(size_t bytes) {
  return std::max(bytes + reserveMin, bytes + bytes / (reserveShare - 1) + unitBytes);
}

// How many bytes an allocation for the current purpose must leave free.
size_t Allocator::reserveLeft() const {
  const size_t reserve = reserveOf(size() * unitBytes);
  return purpose_ == Purpose::insertion ? reserve : purpose_ == Purpose::growth ? reserve / 2 : 0;
}

void Allocator::sizeIsOfRegion() {
  bits_.resize(region_->size() / unitBytes / bitsPerWord);
  bodyEnd_ = size() - reserveOf(size() * unitBytes) / unitBytes;
}

Allocator::Allocator(Region& region) : region_(&region), used_(headerBytes) {
  sizeIsOfRegion();
  mark(0, headerUnits, true);
  rewind();
}

// The first unit in [from, to) that is used; to: none is.
size_t Allocator::firstUsed(size_t from, size_t to) const {
  while (from < to) {
    const size_t bit = from % bitsPerWord;
    const size_t length = std::min(bitsPerWord - bit, to - from);
    if (const uint64_t used = bits_[from / bitsPerWord] & maskOf(bit, bit + length)) {
      return from - bit + static_cast<size_t>(std::countr_zero(used));
    }
    from += length;
  }
  return to;
}

size_t Allocator::firstFree(size_t from, size_t to) const {
  while (from < to) {
    const size_t bit = from % bitsPerWord;
    const size_t length = std::min(bitsPerWord - bit, to - from);
    if (const uint64_t free = ~bits_[from / bitsPerWord] & maskOf(bit, bit + length)) {
      return from - bit + static_cast<size_t>(std::countr_zero(free));
    }
    from += length;
  }
  return to;
}

void Allocator::mark(size_t from, size_t to, bool isUsed) {
  while (from < to) {
    const size_t bit = from % bitsPerWord;
    const size_t length = std::min(bitsPerWord - bit, to - from);
    const uint64_t mask = maskOf(bit, bit + length);
    uint64_t& word = bits_[from / bitsPerWord];
    word = isUsed ? word | mask : word & ~mask;
    from += length;
  }
}

std::vector<uint32_t>& Allocator::hints(size_t sizeClass) {
  if (sizeClass >= hints_.size()) {
    hints_.resize(sizeClass + 1);
  }
  return hints_[sizeClass];
}

size_t Allocator::reuse(size_t sizeClass, size_t units) {
  std::vector<uint32_t>& list = hints(sizeClass);
  while (!list.empty()) {
    const size_t at = list.back();
    list.pop_back();
    if (isRun(at, units)) {
      return at;
    }
  }
  return nowhere;
}

// Where the free units begin that hold the first wholly free lane in [from, to).
size_t Allocator::firstFreeLane(size_t from, size_t to) const {
  for (size_t word = from / bitsPerWord; word * bitsPerWord < to; ++word) {
    const size_t skipped = from > word * bitsPerWord ? from - word * bitsPerWord : 0;
    const uint64_t used = bits_[word] | ((uint64_t{1} << skipped) - 1);
    if (const uint64_t lanes = (used - laneLowBits) & ~used & (laneLowBits << (laneUnits - 1)); lanes != 0) {
      size_t at = word * bitsPerWord + static_cast<size_t>(std::countr_zero(lanes)) / laneUnits * laneUnits;
      while (at > from && isFree((at - 1) * unitBytes, at * unitBytes)) {
        --at;
      }
      return at;
    }
  }
  return to;
}

// Between small pieces lie many holes of a few units. A large piece needs a whole lane at least, by which it is found
// without looking into them.
size_t Allocator::find(size_t from, size_t units, size_t end) const {
  static_assert(wholeLinesFrom >= 2 * laneUnits - 1);
  for (size_t at = aligned(from, units); at + units <= end;) {
    const size_t used = firstUsed(at, at + units);
    if (used == at + units) {
      return at;
    }
    at = aligned(kindOf(units) != 0 ? firstFreeLane(used, end) : firstFree(used, end), units);
  }
  return nowhere;
}

void Allocator::rewind() {
  cursors_ = {headerUnits, headerUnits};
  freed_ = 0;
}

size_t Allocator::search(size_t units) {
  size_t& cursor = cursors_[kindOf(units)];
  size_t at = find(cursor, units, limit(units));
  if (at == nowhere && freed_ * 8 >= size() * unitBytes) {
    rewind();
    at = find(cursor, units, limit(units));
  }
  cursor = at == nowhere ? limit(units) : at + units;
  return at;
}

// After the last piece, with the reserve after it.
size_t Allocator::extend(size_t units) {
  if (hasLimits()) {
    limitsDel();
    rewind();
    if (const size_t at = isAllowed(units) ? search(units) : nowhere; at != nowhere) {
      return at;
    }
  }
  const size_t at = aligned(end() / unitBytes, units);
  try {
    region_->extendTo(bytesWithReserve((at + units) * unitBytes));
  } catch (const NoSpace&) {
    if (const size_t hole = withoutGrowth(units); hole != nowhere) {
      return hole;
    }
    if (purpose_ != Purpose::exchange) {
      throw;
    }
    region_->extendTo((at + units) * unitBytes);  // rather no reserve than no table
  }
  sizeIsOfRegion();
  cursors_[kindOf(units)] = at + units;
  return at;
}

// Whatever is free anywhere, as far as the purpose allows.
size_t Allocator::withoutGrowth(size_t units) {
  if (!isAllowed(units)) {
    return nowhere;
  }
  rewind();
  const size_t at = search(units);
  return at != nowhere || purpose_ == Purpose::insertion ? at
                                                         : find(bodyEnd_, units, size() - reserveLeft() / unitBytes);
}

uint32_t Allocator::allocate(size_t bytes) {
  const size_t sizeClass = Allocator::sizeClass(bytes);
  const size_t units = classBytes(sizeClass) / unitBytes;
  size_t at = nowhere;
  if (isAllowed(units)) {
    at = reuse(sizeClass, units);
    at = at == nowhere ? search(units) : at;
  }
  return handOut(at == nowhere ? extend(units) : at, units);
}

uint32_t Allocator::allocateInside(size_t bytes) {
  const size_t sizeClass = Allocator::sizeClass(bytes);
  const size_t units = classBytes(sizeClass) / unitBytes;
  size_t at = reuse(sizeClass, units);
  if (at == nowhere) {
    at = search(units);
  }
  return at == nowhere ? 0 : handOut(at, units);
}

uint32_t Allocator::allocateBelow(uint32_t units, size_t bytes) {
  if (const uint32_t inside = allocateInside(bytes); inside != 0) {
    return inside;
  }
  const size_t size = roomFor(bytes) / unitBytes;
  const size_t at = find(bodyEnd_, size, units);
  return at == nowhere ? 0 : handOut(at, size);
}

uint32_t Allocator::handOut(size_t at, size_t units) {
  mark(at, at + units, true);
  count(units, true);
  return static_cast<uint32_t>(at);
}

void Allocator::release(uint32_t units, size_t bytes) {
  const size_t sizeClass = Allocator::sizeClass(bytes);
  const size_t room = classBytes(sizeClass);
  mark(units, units + room / unitBytes, false);
  hints(sizeClass).push_back(units);
  count(room / unitBytes, false);
  freed_ += room;
}

bool Allocator::take(size_t offset, size_t bytes) {
  const size_t room = classBytes(sizeClass(bytes));
  const size_t at = offset / unitBytes;
  if (offset % unitBytes != 0 || at >= size() || room > (size() - at) * unitBytes || !isFree(offset, offset + room)) {
    return false;
  }
  mark(at, at + room / unitBytes, true);
  count(room / unitBytes, true);
  return true;
}

bool Allocator::isFree(size_t from, size_t to) const {
  return firstUsed(from / unitBytes, to / unitBytes) == to / unitBytes;
}

size_t Allocator::end() const {
  size_t word = bits_.size();
  while (bits_[word - 1] == 0) {  // the header page is used
    --word;
  }
  return (word * bitsPerWord - static_cast<size_t>(std::countl_zero(bits_[word - 1]))) * unitBytes;
}

void Allocator::count(size_t units, bool isTaken) {
  const size_t bytes = isTaken ? units * unitBytes : ~(units * unitBytes) + 1;
  used_ += bytes;
  large_ += kindOf(units) != 0 ? bytes : 0;
}

size_t Allocator::limit(size_t units) const { return std::min(limits_[kindOf(units)] / unitBytes, bodyEnd_); }

void Allocator::limitsAre(size_t small, size_t large) {
  limits_ = {small, large};
  rewind();
}

bool Allocator::isBehindLimit(size_t offset, size_t bytes) const {
  return offset >= limits_[kindOf(classBytes(sizeClass(bytes)) / unitBytes)];
}

void Allocator::regionShrunk() {
  ZOL_ASSERT(end() <= region_->size());
  sizeIsOfRegion();
  limitsDel();
  rewind();
}

}  // namespace Memtab
