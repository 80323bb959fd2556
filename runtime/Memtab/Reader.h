// Reader: looks records up in a region that somebody else may be writing at this moment. It only reads; a reader that
// dies, stops or hangs leaves no trace, and one that meets a dead writer's half-done work sees the last published
// state.
//
//   descriptor --> directory[upper bits of hash] --> segment: bucket of 8 words --> block
//      (1)                 (2)                          (3) fingerprint fits        (4) copy, checksum, key
//
// A look-up walks (1) to (4) and then reads the words it came by once more. Blocks, segments and directories are
// reused only after the word that named them has changed, and every word is stored with release and loaded with
// acquire order: a reader that copied a single byte of the new use also sees the changed word. So "unchanged" proves
// the copy whole, and what then still fails its checks is damage. "Changed" means try again; the tries are bounded.
//
// Why "absent" can be trusted: a key never moves within a segment, and a bucket that was full once never shows an
// empty word again, so the words before a key on its way of search are never empty while it stands.
//
// The time of a look-up is that of waiting for two lines of memory, the bucket and the block: the code around is
// written so that nothing else is waited for (see matchesIn() and prefetchBlock()).
//
// Offsets and lengths are checked against the usable size before use, loops are bounded by checked sizes. Only what
// the checks cannot tell from a writer's work gets through: a flipped fingerprint makes its key absent here, which a
// Cursor finds.
//
// One thread a Reader; any number of Readers.
#pragma once

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "runtime/Memtab/Damage.h"
#include "runtime/Memtab/Layout.h"
#include "runtime/Memtab/Region.h"

namespace Memtab {

// Where a block's copy goes; grows to the largest block seen and keeps its memory.
class Buffer {
 public:
  uint64_t* room(size_t words) {
    if (words > words_.size()) {
      words_.resize(words + words / 2);
    }
    return words_.data();
  }
  const uint64_t* words() const { return words_.data(); }
  Bytes bytes(size_t at, size_t length) const { return {reinterpret_cast<const std::byte*>(words()) + at, length}; }

 private:
  std::vector<uint64_t> words_ = std::vector<uint64_t>(64);
};

enum class Found : uint8_t {
  found,
  absent,
  damaged,     // something on the key's way is not what the writer wrote; see damage
  recovering,  // the writer changed the key's surroundings at every try
};

struct Lookup {
  Found state = Found::absent;
  Bytes record;       // of found; 8-byte aligned when the key's length is a multiple of 8
  uint64_t word = 0;  // of found: the index word that names the record, and the first word of its block
  uint64_t head = 0;
  Damage damage;
};

// One change as the ring tells it. Of a key longer than its room only the beginning is known: then isWhole is false,
// and who wants the key compares the table with what he knows.
struct Change {
  unsigned collection = 0;
  size_t keyLength = 0;
  std::array<uint64_t, RingSlot::keyBytes / sizeof(uint64_t)> words{};

  bool isWhole() const { return keyLength <= RingSlot::keyBytes; }
  Bytes key() const { return std::as_bytes(std::span(words)).first(std::min(keyLength, RingSlot::keyBytes)); }
};

class Reader {
 public:
  // hashes: of each collection, in order; they must be the writer's.
  Reader(View view, std::span<const HashFn> hashes);

  // The record of key. Requires: hash is the collection's hash of key.
  // The record lies in buffer, or in memory of this thread that its next look-up without a buffer overwrites.
  Lookup get(unsigned collection, uint64_t hash, Bytes key, Buffer& buffer) const;
  Lookup get(unsigned collection, uint64_t hash, Bytes key) const { return get(collection, hash, key, threadBuffer()); }
  static Buffer& threadBuffer();

  unsigned collectionCount() const { return collectionCount_; }
  uint64_t hashOf(unsigned collection, Bytes key) const { return hashes_[collection](key); }
  size_t entries(unsigned collection) const { return header(entriesAt + 8 * size_t{collection}); }
  uint64_t sequence() const { return header(sequenceAt); }
  bool ready() const { return header(readyAt) == 1; }
  // Whether bytes of the region were lost; see BusGuard.h.
  bool isDamaged() const { return view_.isDamaged(); }
  // Why some keys of the collection, or all, cannot be told from absent ones; nullptr: they all can. O(directory).
  const char* hiddenPart(unsigned collection) const;
  // Whether the index has fewer records than the header says; false while that
  // cannot be told: the writer changes something, or parts of the index are damaged. O(index).
  bool hasLostEntries(unsigned collection) const;
  uint64_t fingerprint() const { return header(fingerprintAt); }
  // Differs after another writer has taken the table over.
  uint64_t epoch() const { return header(epochAt); }
  // What the sequence moves to next; more than it while a change is under way, or was when the writer died.
  uint64_t intent() const { return header(intentAt); }
  // The writer by its own word; 0: the last one closed the table in good order.
  uint64_t ownerPid() const { return header(ownerAt); }
  uint64_t ownerStart() const { return header(ownerStartAt); }

  // How many changes the ring holds; 0: it is damaged.
  size_t ringSlots() const;
  // The change of this sequence number; false: newer ones have overwritten it, or it never was or is damaged.
  bool change(uint64_t sequence, Change& result) const;

  // How many look-ups had to start again because the writer was faster.
  uint64_t retries() const { return retries_; }

 private:
  friend class Cursor;
  friend class WordWalk;

  // The words on the way to a segment as they read, and the segment they name.
  struct Chain {
    const Word* descriptorAt = nullptr;
    uint64_t descriptor = 0;
    const Word* directoryAt = nullptr;
    uint64_t directory = 0;
    const Word* slots = nullptr;   // nullptr: no segment
    const char* damage = nullptr;  // why not, if it is not the empty collection

    Place segment() const { return Place::of(directory); }
    // Whether both words still read the same.
    bool isCurrent() const {
      return descriptorAt->load(std::memory_order_acquire) == descriptor &&
             (directoryAt == nullptr || directoryAt->load(std::memory_order_acquire) == directory);
    }
  };
  struct KeyCopy {
    std::array<uint64_t, BlockHead::keyLengthMax / 8 + 1> words;
    size_t length = 0;
    size_t blockLength = 0;
    Bytes bytes() const { return std::as_bytes(std::span(words)).first(length); }
  };
  enum class Try : uint8_t { found, absent, damaged, changed };

  const Word* at(size_t offset) const { return reinterpret_cast<const Word*>(view_.base + offset); }
  uint64_t load(size_t offset) const { return at(offset)->load(std::memory_order_acquire); }
  uint64_t header(size_t offset) const { return load(offset); }
  bool isUsable(Place place) const;
  // The ring; units 0: it is damaged.
  Place ring() const;
  const std::byte* blockAt(uint64_t word) const { return view_.base + size_t{unitsOf(word)} * unitBytes; }

  Chain walk(unsigned collection, uint64_t hash) const;
  Try tryGet(unsigned collection, uint64_t hash, Bytes key, Buffer& buffer, Lookup& result) const;
  Try judge(const Chain& chain, size_t slot, uint64_t fingerprint, Bytes key, Buffer& buffer, Lookup& result) const;
  const char* copyBlock(unsigned collection, uint32_t units, Buffer& buffer, BlockHead& head) const;
  const char* readHead(unsigned collection, uint32_t units, uint64_t& first) const;
  const char* copyKey(unsigned collection, uint32_t units, KeyCopy& key) const;

  View view_;
  std::array<HashFn, collectionCountMax> hashes_{};
  unsigned collectionCount_;
  mutable uint64_t retries_ = 0;
};

}  // namespace Memtab
