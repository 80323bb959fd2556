// Size classes as arithmetic on the bits of the size, and what becomes of the ends of pieces: every gap is cut into
// pieces of whole classes, none of which breaks the alignment that its class promises.
#include "runtime/Memtab/Allocator.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "runtime/Memtab/Layout.h"

namespace Memtab {
namespace {

constexpr size_t fineMax = 256;  // classes up to here are steps of a unit
constexpr size_t fineClasses = fineMax / unitBytes;
constexpr size_t wholeLinesFrom = 512;

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

Allocator::Allocator(Region& region) : region_(&region), end_(headerBytes), used_(headerBytes) {}

std::vector<uint32_t>& Allocator::freeList(size_t sizeClass) {
  if (sizeClass >= free_.size()) {
    free_.resize(sizeClass + 1);
  }
  return free_[sizeClass];
}

uint32_t Allocator::allocate(size_t bytes) {
  const size_t sizeClass = Allocator::sizeClass(bytes);
  const size_t room = classBytes(sizeClass);
  std::vector<uint32_t>& list = freeList(sizeClass);
  size_t at = 0;
  if (!list.empty()) {
    at = size_t{list.back()} * unitBytes;
    list.pop_back();
  } else {
    const bool straddles = end_ % lineBytes + room > lineBytes;
    const bool isAligned = room >= wholeLinesFrom || (room <= lineBytes && straddles);
    const size_t start = isAligned ? (end_ + lineBytes - 1) / lineBytes * lineBytes : end_;
    try {
      region_->extendTo(start + room);
      at = start;
      freeGap(std::exchange(end_, at + room), at);
    } catch (const NoSpace&) {
      at = carve(sizeClass);
      if (at == 0) {
        throw;
      }
    }
  }
  used_ += room;
  return static_cast<uint32_t>(at / unitBytes);
}

// The last resort: the beginning of a larger free piece. 0: there is none.
size_t Allocator::carve(size_t sizeClass) {
  const size_t room = classBytes(sizeClass);
  for (size_t larger = std::max(sizeClass + 1, Allocator::sizeClass(wholeLinesFrom)); larger < free_.size(); ++larger) {
    if (!free_[larger].empty()) {
      const size_t at = size_t{free_[larger].back()} * unitBytes;
      free_[larger].pop_back();
      freeGap(at + room, at + classBytes(larger));
      return at;
    }
  }
  return 0;
}

// Puts [from, to) into the lists, in pieces that keep to the rules of their classes.
void Allocator::freeGap(size_t from, size_t to) {
  while (from < to) {
    const size_t toLine = (lineBytes - from % lineBytes) % lineBytes;
    const size_t most = toLine != 0 ? std::min(toLine, to - from) : to - from;
    size_t sizeClass = Allocator::sizeClass(most);
    sizeClass -= classBytes(sizeClass) > most ? 1U : 0U;
    freeList(sizeClass).push_back(static_cast<uint32_t>(from / unitBytes));
    from += classBytes(sizeClass);
  }
}

void Allocator::release(uint32_t units, size_t bytes) {
  const size_t sizeClass = Allocator::sizeClass(bytes);
  freeList(sizeClass).push_back(units);
  used_ -= classBytes(sizeClass);
}

}  // namespace Memtab
