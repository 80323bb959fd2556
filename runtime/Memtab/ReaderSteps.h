// The steps that look-ups and walks share: from a hash to its segment, from an index word to its block.
//
// They are inline, and get() and next() are made of one piece: a processor begins the next look-up while this one waits
// for memory as long as no more than some five hundred instructions lie between the two waits.
#pragma once

#include "runtime/Memtab/Crc32c.h"
#include "runtime/Memtab/Reader.h"
#include "runtime/Zol/Assert.h"

namespace Memtab {

inline bool Reader::isUsable(Place place) const {
  return place.offset() >= headerBytes && view_.covers(place.offset() + place.bytes());
}

inline Reader::Chain Reader::walk(unsigned collection, uint64_t hash) const {
  ZOL_ASSERT(collection < collectionCount_);
  Chain chain;
  chain.descriptorAt = at(descriptorsAt + sizeof(uint64_t) * collection);
  chain.descriptor = chain.descriptorAt->load(std::memory_order_acquire);
  const Place directory = Place::of(chain.descriptor);
  if (!Place::isIntact(chain.descriptor)) {
    chain.damage = "descriptor damaged";
    return chain;
  }
  if (directory.units == 0) {
    return chain;
  }
  if (directory.depth != directory.sizeLog2 || !isUsable(directory)) {
    chain.damage = "directory outside the region";
    return chain;
  }
  chain.directoryAt = at(directory.offset()) + prefixOf(hash, directory.depth);
  chain.directory = chain.directoryAt->load(std::memory_order_acquire);
  const Place segment = chain.segment();
  if (!Place::isIntact(chain.directory)) {
    chain.damage = "directory word damaged";
  } else if (segment.depth > directory.depth || segment.words() < bucketWords || !isUsable(segment)) {
    chain.damage = "segment outside the region";
  } else {
    chain.slots = at(segment.offset());
  }
  return chain;
}

// The first word of the block at units. Returns what is wrong with it; nullptr: nothing, all its words may be read.
inline const char* Reader::readHead(unsigned collection, uint32_t units, uint64_t& first) const {
  const size_t offset = size_t{units} * unitBytes;
  if (offset < headerBytes || !view_.covers(offset + unitBytes)) {
    return "block outside the region";
  }
  first = load(offset);
  const BlockHead head = BlockHead::of(first);
  if (!head.isSane() || !view_.covers(offset + 8 * head.words())) {
    return "block length wrong";
  }
  return head.collection == collection ? nullptr : "block of another collection";
}

// Fills buffer with the block at units, of which it returns what is wrong.
inline const char* Reader::copyBlock(unsigned collection, uint32_t units, Buffer& buffer, BlockHead& head) const {
  uint64_t first = 0;
  if (const char* what = readHead(collection, units, first)) {
    return what;
  }
  head = BlockHead::of(first);
  uint64_t* to = buffer.room(head.words());
  to[0] = first;
  const bool isIntact = crcCopy(first, at(size_t{units} * unitBytes) + 1, to + 1, head.words() - 1) == head.checksum;
  return isIntact ? nullptr : "checksum differs";
}

// The same for the key alone, unchecked.
inline const char* Reader::copyKey(unsigned collection, uint32_t units, KeyCopy& key) const {
  uint64_t first = 0;
  if (const char* what = readHead(collection, units, first)) {
    return what;
  }
  key.length = BlockHead::of(first).keyLength;
  key.blockLength = BlockHead::of(first).length;
  const Word* from = at(size_t{units} * unitBytes) + 1;
  for (size_t i = 0; i < (key.length + 7) / 8; ++i) {
    key.words[i] = from[i].load(std::memory_order_acquire);
  }
  return nullptr;
}

}  // namespace Memtab
