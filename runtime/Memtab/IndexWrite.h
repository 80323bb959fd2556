// Put and delete. A search runs as a reader's does, over the writer's own bytes: bucket after bucket until one has an
// empty word. On the way it notes the first word that a new key could take.
#pragma once

#include <cstring>

#include "runtime/Memtab/Index.h"

namespace Memtab {

// The directory word where the segment of hash begins.
template <class Stores>
size_t Index<Stores>::firstOf(uint64_t hash) const {
  const size_t index = prefixOf(hash, depth_);
  const unsigned shift = depth_ - directory_[index].place.depth;
  return index >> shift << shift;
}

// The head of the block at units if all its bytes lie in the region.
template <class Stores>
std::optional<BlockHead> Index<Stores>::headAt(uint32_t units) const {
  const size_t offset = size_t{units} * unitBytes;
  if (offset < headerBytes || offset + unitBytes > pen_->region().size()) {
    return std::nullopt;
  }
  const BlockHead head = BlockHead::of(pen_->load(offset));
  if (!head.isSane() || offset + 8 * head.words() > pen_->region().size() || head.collection != collection_) {
    return std::nullopt;
  }
  return head;
}

template <class Stores>
bool Index<Stores>::isIntact(uint32_t units, const BlockHead& head) const {
  const auto* words = reinterpret_cast<const uint64_t*>(pen_->bytes(size_t{units} * unitBytes));
  return crcOf(words[0], words + 1, head.words() - 1) == head.checksum;
}

template <class Stores>
Bytes Index<Stores>::keyAt(uint32_t units, const BlockHead& head) const {
  return {pen_->bytes(size_t{units} * unitBytes) + sizeof(uint64_t), head.keyLength};
}

// Whose block a word of the right fingerprint names. A block with the key's own bytes is taken for the key's even if
// its record is damaged: this is what a put is to replace.
template <class Stores>
auto Index<Stores>::match(uint64_t word, Bytes key) const -> Match {
  const std::optional<BlockHead> head = headAt(unitsOf(word));
  if (!head) {
    return Match::damaged;
  }
  const Bytes itsKey = keyAt(unitsOf(word), *head);
  if (isSameKey(key, itsKey)) {
    return Match::mine;
  }
  const bool isOther = Spot(hash_(itsKey)).fingerprint() == fingerprintOf(word) && isIntact(unitsOf(word), *head);
  return isOther ? Match::other : Match::damaged;
}

template <class Stores>
void Index<Stores>::prefetch(uint64_t hash) const {
  if (!directory_.empty()) {
    const Place segment = directory_[prefixOf(hash, depth_)].place;
    __builtin_prefetch(pen_->bytes(segment.offset() + Spot(hash).bucket(segment.words() / bucketWords) * lineBytes));
  }
}

template <class Stores>
Probe Index<Stores>::probe(uint64_t hash, Bytes key) const {
  Probe result;
  const Place segment = directory_[firstOf(hash)].place;
  const Spot spot(hash);
  const size_t buckets = segment.words() / bucketWords;
  for (size_t n = 0; n < buckets; ++n) {
    const size_t at = segment.offset() + ((spot.bucket(buckets) + n) & (buckets - 1)) * lineBytes;
    const Word* bucket = pen_->words(at);
    for (unsigned matches = matchesIn(bucket, spot.fingerprint()); matches != 0; matches &= matches - 1) {
      const auto slot = static_cast<size_t>(std::countr_zero(matches));
      prefetchBlock(pen_->bytes(size_t{unitsOf(bucket[slot].load(std::memory_order_relaxed))} * unitBytes));
      const Match match = this->match(bucket[slot].load(std::memory_order_relaxed), key);
      if (match == Match::mine) {
        result.standing = at + slot * sizeof(uint64_t);
        return result;
      }
      if (match == Match::damaged && !result.damaged) {
        result.damaged = at + slot * sizeof(uint64_t);
      }
    }
    const unsigned notLive = matchesIn(bucket, 0);
    if (notLive != 0 && !result.free) {
      result.free = at + static_cast<size_t>(std::countr_zero(notLive)) * sizeof(uint64_t);
    }
    if (hasEmptyWord(bucket)) {
      break;
    }
  }
  return result;
}

template <class Stores>
bool Index<Stores>::stands(const Probe& found, std::span<const uint64_t> block) const {
  if (!found.standing) {
    return false;
  }
  const size_t offset = size_t{unitsOf(pen_->load(*found.standing))} * unitBytes;
  return offset + block.size_bytes() <= pen_->region().size() &&
         std::memcmp(pen_->bytes(offset), block.data(), block.size_bytes()) == 0;
}

template <class Stores>
uint32_t Index<Stores>::write(std::span<const uint64_t> block) {
  const uint32_t units = pen_->allocate(block.size_bytes());
  noteIfInReserve(units);
  pen_->storeAll(size_t{units} * unitBytes, block);
  return units;
}

template <class Stores>
size_t Index<Stores>::bytesAt(const Probe& found) const {
  const std::optional<BlockHead> head = found.standing ? headAt(unitsOf(pen_->load(*found.standing))) : std::nullopt;
  return head ? Allocator::roomFor(8 * head->words()) : 0;
}

template <class Stores>
void Index<Stores>::releaseBlock(uint64_t word) {
  const std::optional<BlockHead> head = headAt(unitsOf(word));
  if (head && isIntact(unitsOf(word), *head)) {
    pen_->release(unitsOf(word), 8 * head->words());
  }
}

// Segments are grown when 25 of 32 words are taken: beyond that searches run through many buckets.
template <class Stores>
bool Index<Stores>::hasRoom(const Segment& segment, const Probe& probe) const {
  if (!probe.free) {
    return false;
  }
  return pen_->load(*probe.free) == tombstone || (segment.live + segment.dead + 1) * 32 <= segment.place.words() * 25;
}

// Without space for a larger segment this one is filled further, and searches in it take longer. Insertions leave the
// last words to replacements.
template <class Stores>
bool Index<Stores>::mayCrowd(const Segment& segment, size_t count) const {
  const size_t left = pen_->allocator().purpose() == Purpose::insertion ? segment.place.words() / 32 : 0;
  return segment.live + count + left <= segment.place.words();
}

template <class Stores>
size_t Index<Stores>::makeRoom(std::span<const uint64_t> hashes) {
  if (directory_.empty()) {
    createSegment();
  }
  const size_t first = firstOf(hashes.front());
  const auto behind = std::find_if(hashes.begin(), hashes.end(), [&](uint64_t hash) { return firstOf(hash) != first; });
  const auto count = static_cast<size_t>(behind - hashes.begin());
  const Segment& segment = directory_[first];
  if ((segment.live + segment.dead + count) * 32 <= segment.place.words() * 25) {
    return count;
  }
  try {
    const PurposeScope leavesReserve(pen_->allocator(), Purpose::insertion);
    grow(hashes.front());
    return 0;
  } catch (const NoSpace&) {
    if (mayCrowd(segmentOf(hashes.front()), count)) {
      return count;
    }
    if (pen_->allocator().purpose() == Purpose::insertion) {
      throw;
    }
  }
  grow(hashes.front());
  return 0;
}

// Every store of a word in a segment that is in use goes through here.
template <class Stores>
void Index<Stores>::storeWord(Segment& segment, size_t at, uint64_t word) {
  const uint64_t old = pen_->load(at);
  pen_->store(at, word);
  segment.sums.change((at - segment.place.offset()) / sizeof(uint64_t), old, word);
}

// What a slot gets when its key goes.
template <class Stores>
uint64_t Index<Stores>::vacancyAt(size_t slot) const {
  return hasEmptyWord(pen_->words(slot / lineBytes * lineBytes)) ? emptyWord : tombstone;
}

template <class Stores>
PutResult Index<Stores>::publish(uint64_t hash, const Probe& found, uint64_t word) {
  const std::optional<size_t> taken = found.taken();
  const size_t slot = taken ? *taken : *found.free;
  const uint64_t old = pen_->load(slot);
  Segment& segment = segmentOf(hash);
  storeWord(segment, slot, word);
  if (taken) {
    if (found.standing) {
      releaseBlock(old);
    }
    return PutResult::replaced;
  }
  segment.dead -= old == tombstone && segment.dead != 0 ? 1 : 0;
  ++segment.live;
  ++live_;
  return PutResult::inserted;
}

template <class Stores>
void Index<Stores>::erase(uint64_t hash, const Probe& found) {
  const size_t slot = *found.taken();
  const uint64_t old = pen_->load(slot);
  const uint64_t vacancy = vacancyAt(slot);
  Segment& segment = segmentOf(hash);
  storeWord(segment, slot, vacancy);
  segment.dead += vacancy == tombstone ? 1 : 0;
  segment.live -= segment.live != 0 ? 1 : 0;
  live_ -= live_ != 0 ? 1 : 0;
  if (found.standing) {
    releaseBlock(old);
  }
}

template <class Stores>
PutResult Index<Stores>::put(uint64_t hash, Bytes key, std::span<const uint64_t> block) {
  PurposeScope purpose(pen_->allocator(), Purpose::insertion);
  if (directory_.empty()) {
    createSegment();
  }
  Probe found = probe(hash, key);
  if (stands(found, block)) {
    return PutResult::unchanged;
  }
  while (!found.taken() && !hasRoom(segmentOf(hash), found)) {
    try {
      grow(hash);
    } catch (const NoSpace&) {
      if (!mayCrowd(segmentOf(hash), 1)) {
        throw;
      }
      break;
    }
    found = probe(hash, key);
  }
  if (found.taken()) {
    const bool isExchange = Allocator::roomFor(block.size_bytes()) <= bytesAt(found);
    pen_->allocator().purposeIs(isExchange ? Purpose::exchange : Purpose::growth);
  }
  const uint32_t units = write(block);
  changes_->begin(1);
  return publish(hash, found, indexWord(Spot(hash).fingerprint(), changes_->generation(0), units));
}

template <class Stores>
bool Index<Stores>::del(uint64_t hash, Bytes key) {
  const Probe found = find(hash, key);
  if (!found.taken()) {
    return false;
  }
  changes_->begin(1);
  erase(hash, found);
  return true;
}

}  // namespace Memtab
