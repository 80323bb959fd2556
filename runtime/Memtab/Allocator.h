// Allocator: which bytes of a region are free. Private to the writer, none of it lies in the region: what no word of
// the index names is free, so a writer that dies leaks nothing and leaves no list half-linked.
//
//   header | block | block | gap | segment | ... | bump end          region end
//
// Pieces come in size classes: steps of 16 bytes up to 256, then eighths of an octave, so at most an eighth is wasted.
// A freed piece waits in its class for the next one; else the end moves up; where it cannot, a larger
// free piece is cut. A piece of up to a cache line does
// not straddle two; pieces from 512 bytes on start at a cache line, which makes a segment's bucket one line. The gaps
// this costs are free pieces themselves.
#pragma once

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
  // Requires: allocate(bytes), or one of the same class, gave units. The piece may be handed out again at once.
  void release(uint32_t units, size_t bytes);

  // Header page and all pieces handed out, rounded up to their classes.
  size_t bytesUsed() const { return used_; }

  static size_t sizeClass(size_t bytes);
  static size_t classBytes(size_t sizeClass);

 private:
  std::vector<uint32_t>& freeList(size_t sizeClass);
  size_t carve(size_t sizeClass);
  void freeGap(size_t from, size_t to);

  Region* region_;
  size_t end_;
  size_t used_;
  std::vector<std::vector<uint32_t>> free_;  // by size class
};

}  // namespace Memtab
