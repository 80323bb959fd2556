// The road of one look-up: walk() to the segment, tryGet() through the buckets, judge() for each word whose fingerprint
// fits, copyBlock() for the bytes, and the words on the way once more at the end.
#include "runtime/Memtab/Reader.h"

#include <algorithm>

#include "runtime/Memtab/Crc32c.h"
#include "runtime/Zol/Assert.h"

namespace Memtab {
namespace {

// A try takes a fraction of a microsecond, and one fails only if the writer published on the very same way meanwhile.
constexpr int triesMax = 1000;

}  // namespace

std::string Damage::text() const {
  std::string text = "collection " + std::to_string(collection);
  if (segment != 0) {
    text += ", segment at " + std::to_string(segment) + ", slot " + std::to_string(slot);
  }
  if (block != 0) {
    text += ", block at " + std::to_string(block);
  }
  return text + ": " + (what != nullptr ? what : "no damage");
}

Reader::Reader(View view, std::span<const HashFn> hashes)
    : view_(view), collectionCount_(static_cast<unsigned>(hashes.size())) {
  ZOL_ASSERT(hashes.size() <= collectionCountMax);
  std::copy(hashes.begin(), hashes.end(), hashes_.begin());
}

bool Reader::isUsable(Place place) const {
  return place.offset() >= headerBytes && view_.covers(place.offset() + place.bytes());
}

size_t Reader::ringSlots() const {
  const uint64_t word = header(ringAt);
  const Place ring = Place::of(word);
  const bool isSound = Place::isIntact(word) && ring.sizeLog2 >= RingSlot::wordsLog2 && isUsable(ring);
  return isSound ? ring.words() / RingSlot::words : 0;
}

bool Reader::change(uint64_t sequence, Change& result) const {
  const size_t slots = ringSlots();
  if (slots == 0 || sequence == 0) {
    return false;
  }
  const Word* slot = at(Place::of(header(ringAt)).offset()) + (sequence & (slots - 1)) * RingSlot::words;
  if (slot[0].load(std::memory_order_acquire) != sequence) {
    return false;
  }
  const uint64_t head = slot[1].load(std::memory_order_acquire);
  result.collection = RingSlot::collectionOf(head);
  result.keyLength = RingSlot::keyLengthOf(head);
  for (size_t i = 0; i < result.words.size(); ++i) {
    result.words[i] = slot[2 + i].load(std::memory_order_acquire);
  }
  return slot[0].load(std::memory_order_acquire) == sequence && result.collection < collectionCount_;
}

Reader::Chain Reader::walk(unsigned collection, uint64_t hash) const {
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

const char* Reader::hiddenPart(unsigned collection) const {
  const char* found = view_.isDamaged() ? bytesLost : nullptr;
  int tries = 0;
  for (uint64_t hash = 0; found == nullptr && tries < triesMax;) {
    const Chain chain = walk(collection, hash);
    if (!chain.isCurrent()) {
      ++tries;
      continue;
    }
    found = chain.damage;
    const unsigned depth = chain.slots == nullptr ? 0 : chain.segment().depth;
    const uint64_t last = lastHashOf(hash, depth);
    if (last == ~uint64_t{0}) {
      break;
    }
    hash = last + 1;
  }
  return found;
}

// Words change between intent and sequence alone, so what was counted at one sequence is what stands. Segments that are
// split or merged meanwhile may be counted twice, which hides a loss for that moment, but feigns none; one that is
// given up while its words are read may hold anything, and tells nothing.
bool Reader::hasLostEntries(unsigned collection) const {
  const uint64_t before = sequence();
  size_t live = 0;
  for (uint64_t hash = 0;;) {
    const Chain chain = walk(collection, hash);
    if (chain.damage != nullptr) {
      return false;
    }
    if (chain.slots == nullptr) {
      break;
    }
    const Place segment = chain.segment();
    live += static_cast<size_t>(std::count_if(chain.slots, chain.slots + segment.words(), [](const Word& word) {
      return isLive(word.load(std::memory_order_acquire));
    }));
    if (!chain.isCurrent()) {
      return false;
    }
    const uint64_t last = lastHashOf(hash, segment.depth);
    if (last == ~uint64_t{0}) {
      break;
    }
    hash = last + 1;
  }
  const bool isFewer = live < entries(collection);
  return isFewer && intent() == before && sequence() == before;
}

Lookup Reader::get(unsigned collection, uint64_t hash, Bytes key, Buffer& buffer) const {
  Lookup result;
  for (int tries = 0; tries < triesMax; ++tries) {
    switch (tryGet(collection, hash, key, buffer, result)) {
      case Try::found:
        result.state = Found::found;
        return result;
      case Try::absent:
        if (!view_.isDamaged()) {
          result.state = Found::absent;
          return result;
        }
        result.damage = {bytesLost, collection, 0, 0, 0};
        [[fallthrough]];
      case Try::damaged:
        result.state = Found::damaged;
        return result;
      case Try::changed:
        ++retries_;
        break;
    }
  }
  result.state = Found::recovering;
  return result;
}

Buffer& Reader::threadBuffer() {
  static thread_local Buffer buffer;
  return buffer;
}

// A damaged word does not end the search: another key of the same fingerprint may be the damaged one.
inline Reader::Try Reader::tryGet(unsigned collection, uint64_t hash, Bytes key, Buffer& buffer, Lookup& result) const {
  const Chain chain = walk(collection, hash);
  const Spot spot(hash);
  Try answer = Try::absent;
  if (chain.slots == nullptr && chain.damage != nullptr) {
    result.damage = {chain.damage, collection, 0, 0, 0};
    answer = Try::damaged;
  }
  const size_t buckets = chain.slots == nullptr ? 0 : chain.segment().words() / bucketWords;
  for (size_t n = 0; n < buckets; ++n) {
    const size_t first = ((spot.bucket(buckets) + n) & (buckets - 1)) * bucketWords;
    for (unsigned matches = matchesIn(chain.slots + first, spot.fingerprint()); matches != 0; matches &= matches - 1) {
      const size_t slot = first + static_cast<size_t>(std::countr_zero(matches));
      const Try outcome = judge(chain, slot, spot.fingerprint(), key, buffer, result);
      if (outcome == Try::found || outcome == Try::changed) {
        return outcome;
      }
      answer = outcome == Try::damaged ? outcome : answer;
    }
    if (hasEmptyWord(chain.slots + first)) {
      break;
    }
  }
  return chain.isCurrent() ? answer : Try::changed;
}

// What the word in slot, of this fingerprint a moment ago, has to do with key. absent: it is another key's.
inline Reader::Try Reader::judge(const Chain& chain, size_t slot, uint64_t fingerprint, Bytes key, Buffer& buffer,
                                 Lookup& result) const {
  const uint64_t word = chain.slots[slot].load(std::memory_order_acquire);
  prefetchBlock(blockAt(word));
  const auto collection = static_cast<unsigned>(chain.descriptorAt - at(descriptorsAt));
  BlockHead head{};
  const char* what = copyBlock(collection, unitsOf(word), buffer, head);
  if (fingerprintOf(word) != fingerprint || chain.slots[slot].load(std::memory_order_acquire) != word ||
      !chain.isCurrent()) {
    return Try::changed;
  }
  if (what == nullptr) {
    const Bytes itsKey = buffer.bytes(sizeof(uint64_t), head.keyLength);
    if (itsKey.size() == key.size() && std::equal(key.begin(), key.end(), itsKey.begin())) {
      result.record = buffer.bytes(head.recordAt(), head.length - head.recordAt());
      result.word = word;
      result.head = head.word();
      return Try::found;
    }
    if (Spot(hashes_[collection](itsKey)).fingerprint() == fingerprint) {
      return Try::absent;
    }
    what = "index word names another key's block";
  }
  result.damage = {what, collection, chain.segment().offset(), slot, size_t{unitsOf(word)} * unitBytes};
  return Try::damaged;
}

// The first word of the block at units. Returns what is wrong with it; nullptr: nothing, all its words may be read.
const char* Reader::readHead(unsigned collection, uint32_t units, uint64_t& first) const {
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
const char* Reader::copyBlock(unsigned collection, uint32_t units, Buffer& buffer, BlockHead& head) const {
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
const char* Reader::copyKey(unsigned collection, uint32_t units, KeyCopy& key) const {
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
