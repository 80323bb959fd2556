// The road of one look-up: walk() to the segment, tryGet() through the buckets, judge() for each word whose fingerprint
// fits, copyBlock() for the bytes, and the words on the way once more at the end.
#include "runtime/Memtab/Reader.h"

#include <algorithm>

#include "runtime/Memtab/ReaderSteps.h"

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

Place Reader::ring() const {
  const uint64_t word = header(ringAt);
  const Place ring = Place::of(word);
  const bool isSound = Place::isIntact(word) && ring.sizeLog2 >= RingSlot::wordsLog2 && isUsable(ring);
  return isSound ? ring : Place();
}

size_t Reader::ringSlots() const {
  const Place ring = this->ring();
  return ring.units == 0 ? 0 : ring.words() / RingSlot::words;
}

bool Reader::change(uint64_t sequence, Change& result) const {
  const Place ring = this->ring();
  if (ring.units == 0 || sequence == 0) {
    return false;
  }
  const size_t slots = ring.words() / RingSlot::words;
  const Word* slot = at(ring.offset()) + (sequence & (slots - 1)) * RingSlot::words;
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

// Records come and go between intent and sequence alone, so what was counted at one sequence is what stands. Segments
// that are split or merged meanwhile may be counted twice, which hides a loss for that moment, but feigns none; one
// that is given up while its words are read may hold anything, and tells nothing.
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

[[gnu::flatten]] Lookup Reader::get(unsigned collection, uint64_t hash, Bytes key, Buffer& buffer) const {
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
    if (isSameKey(key, itsKey)) {
      result.record = buffer.bytes(head.recordAt(), head.length - head.recordAt());
      result.word = word;
      result.head = buffer.words()[0];
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

}  // namespace Memtab
