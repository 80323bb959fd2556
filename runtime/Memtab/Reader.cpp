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
  return place.offset() >= headerBytes && place.offset() + place.bytes() <= view_.size();
}

// Two lines: most records end in the second. Prefetching an address that is not there does no harm.
void Reader::prefetch(uint64_t word) const {
  const std::byte* block = view_.base + size_t{unitsOf(word)} * unitBytes;
  __builtin_prefetch(block);
  __builtin_prefetch(block + lineBytes);
}

Reader::Chain Reader::walk(unsigned collection, uint64_t hash) const {
  ZOL_ASSERT(collection < collectionCount_);
  Chain chain;
  chain.descriptorAt = at(descriptorsAt + 8 * size_t{collection});
  chain.descriptor = chain.descriptorAt->load(std::memory_order_acquire);
  const Place directory = Place::of(chain.descriptor);
  const auto damaged = [&](const char* what) {
    chain.damage.what = what;
    chain.damage.collection = collection;
    return chain;
  };
  if (!Place::isIntact(chain.descriptor)) {
    return damaged("descriptor damaged");
  }
  if (directory.units == 0) {
    return chain;
  }
  if (directory.depth != directory.sizeLog2 || !isUsable(directory)) {
    return damaged("directory outside the region");
  }
  chain.directoryAt = at(directory.offset() + 8 * prefixOf(hash, directory.depth));
  chain.directory = chain.directoryAt->load(std::memory_order_acquire);
  chain.segment = Place::of(chain.directory);
  if (!Place::isIntact(chain.directory)) {
    return damaged("directory word damaged");
  }
  if (chain.segment.units == 0 || chain.segment.depth > directory.depth || chain.segment.words() < bucketWords ||
      !isUsable(chain.segment)) {
    return damaged("segment outside the region");
  }
  chain.slots = at(chain.segment.offset());
  return chain;
}

Lookup Reader::get(unsigned collection, uint64_t hash, Bytes key, Buffer& buffer) const {
  Lookup result;
  for (int tries = 0; tries < triesMax; ++tries) {
    if (tryGet(collection, hash, key, buffer, result)) {
      return result;
    }
    ++retries_;
  }
  return {.state = Found::recovering, .record = {}, .damage = {}};
}

Lookup Reader::get(unsigned collection, uint64_t hash, Bytes key) const {
  static thread_local Buffer buffer;
  return get(collection, hash, key, buffer);
}

// False: something changed under our hands. A damaged word does not end the search, since another key of the same
// fingerprint may be the damaged one.
bool Reader::tryGet(unsigned collection, uint64_t hash, Bytes key, Buffer& buffer, Lookup& result) const {
  result = {};
  const Chain chain = walk(collection, hash);
  if (chain.slots == nullptr) {
    result.state = chain.damage ? Found::damaged : Found::absent;
    result.damage = chain.damage;
    return chain.isCurrent();
  }
  const Spot spot(hash);
  const size_t buckets = chain.segment.words() / bucketWords;
  const size_t home = spot.bucket(buckets);
  for (size_t n = 0; n < buckets; ++n) {
    const size_t first = ((home + n) & (buckets - 1)) * bucketWords;
    bool hasEmpty = false;
    for (size_t slot = first; slot < first + bucketWords; ++slot) {
      const uint64_t word = chain.slots[slot].load(std::memory_order_acquire);
      hasEmpty |= word == emptyWord;
      if (fingerprintOf(word) != spot.fingerprint()) {
        continue;
      }
      prefetch(word);
      const Verdict verdict = judge(chain, slot, word, key, buffer, result);
      if (verdict == Verdict::intact || verdict == Verdict::changed) {
        return verdict == Verdict::intact;
      }
    }
    if (hasEmpty) {
      break;
    }
  }
  result.state = result.damage ? Found::damaged : Found::absent;
  return chain.isCurrent();
}

Reader::Verdict Reader::judge(const Chain& chain, size_t slot, uint64_t word, Bytes key, Buffer& buffer,
                              Lookup& result) const {
  const unsigned collection = static_cast<unsigned>(chain.descriptorAt - at(descriptorsAt));
  BlockHead head{};
  const char* what = copyBlock(collection, unitsOf(word), buffer, head);
  if (chain.slots[slot].load(std::memory_order_acquire) != word || !chain.isCurrent()) {
    return Verdict::changed;
  }
  if (what == nullptr) {
    const Bytes itsKey = buffer.bytes(sizeof(uint64_t), head.keyLength);
    if (itsKey.size() == key.size() && std::memcmp(itsKey.data(), key.data(), key.size()) == 0) {
      result = {
          .state = Found::found, .record = buffer.bytes(head.recordAt(), head.length - head.recordAt()), .damage = {}};
      return Verdict::intact;
    }
    if (Spot(hashes_[collection](itsKey)).fingerprint() == fingerprintOf(word)) {
      return Verdict::otherKey;
    }
    what = "index word names another key's block";
  }
  if (!result.damage) {
    result.damage = {what, collection, chain.segment.offset(), slot, size_t{unitsOf(word)} * unitBytes};
  }
  return Verdict::damaged;
}

// The first word of the block at units. Returns what is wrong with it; nullptr: nothing, all its words may be read.
const char* Reader::readHead(unsigned collection, uint32_t units, uint64_t& first) const {
  const size_t offset = size_t{units} * unitBytes;
  const size_t size = view_.size();
  if (offset < headerBytes || offset + unitBytes > size) {
    return "block outside the region";
  }
  first = load(offset);
  const BlockHead head = BlockHead::of(first);
  if (!head.isSane() || offset + 8 * head.words() > size) {
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
  const Word* from = at(size_t{units} * unitBytes) + 1;
  for (size_t i = 0; i < (key.length + 7) / 8; ++i) {
    key.words[i] = from[i].load(std::memory_order_acquire);
  }
  return nullptr;
}

}  // namespace Memtab
