// Index: the writer's side of one collection: finds slots, publishes blocks, and keeps segments neither too full nor
// too empty.
//
//   directory_ (private)   | place live dead | place live dead | ...     what the region's directory should say, and
//   region's directory     | place           | place           | ...     how full each segment is
//
// The writer believes its own memory, not the region: a damaged directory cannot make it write to a wrong place.
//
// Every change is one word store. Around it: a block is written before it is named and freed after nothing names it;
// a delete leaves a tombstone in a bucket that was full once, because other keys' searches run on behind it, and an
// empty word otherwise. A block whose checksum fails is never given back, since its length may be a lie: a few
// bytes stay unused until the region is opened again.
//
// IndexWrite.h has put and delete, IndexGrowth.h what happens to segments and directories, IndexCompaction.h how they
// and the blocks move to the front of the region, IndexTakeOver.h how a successor finds its way, IndexScrub.h how the
// writer finds and repairs damage.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "runtime/Memtab/Changes.h"
#include "runtime/Memtab/Crc32c.h"
#include "runtime/Memtab/Damage.h"
#include "runtime/Memtab/Pen.h"
#include "runtime/Memtab/Scrub.h"
#include "runtime/Memtab/WordSums.h"
#include "runtime/Zol/Assert.h"

namespace Memtab {

enum class PutResult : uint8_t { inserted, replaced, unchanged };

// Where a key stands, where a damaged block stands that may be its, and where it could be put: offsets of index words.
struct Probe {
  std::optional<size_t> standing, damaged, free;
  std::optional<size_t> taken() const { return standing ? standing : damaged; }
};

// How far a compaction has come in a collection: everything before it lies below the limit.
struct Compacted {
  uint64_t hash = 0;
  uint64_t segment = 0;  // the Place of the segment at hash, and the next slot to look at if it is still that one
  size_t slot = 0;
};

template <class Stores>
class Index {
 public:
  Index(Pen<Stores>& pen, Changes<Stores>& changes, unsigned collection, HashFn hash)
      : pen_(&pen), changes_(&changes), collection_(collection), hash_(hash) {}

  // Publishes an empty collection.
  void create() { pen_->store(descriptorAt(), descriptor_.word()); }

  // Asks for the memory that a put or delete of hash will look at first.
  void prefetch(uint64_t hash) const;
  // block: a complete block of key. unchanged: these bytes stand already, nothing was stored.
  // Throws NoSpace; then what keys read is as it was. Else the change is begun and shows; logging and ending it
  // is the caller's part, as it is with del().
  PutResult put(uint64_t hash, Bytes key, std::span<const uint64_t> block);
  // Whether there was something to delete: the key's record, or a damaged one that may be it.
  bool del(uint64_t hash, Bytes key);
  // Gives room back after deletes near hash: at most one merge of two segments, or one smaller segment.
  void tidy(uint64_t hash);
  size_t entries() const { return live_; }

  // Put and delete in steps, for several changes at once: all space is had, by makeRoom() for each key that is new and
  // write() for each block, before the first word is stored.
  Probe find(uint64_t hash, Bytes key) const { return directory_.empty() ? Probe() : probe(hash, key); }
  bool stands(const Probe& found, std::span<const uint64_t> block) const;
  // A Probe is good as long as this number stays.
  uint64_t layout() const { return layout_; }
  // The size of the piece of the record at found; 0: there is none.
  size_t bytesAt(const Probe& found) const;
  // Of hashes, which are ascending, as many as share a segment have room in it. Returns how many; 0: the segment was
  // too small and has grown, ask again. Throws NoSpace when the segment can neither grow nor take them as it is.
  size_t makeRoom(std::span<const uint64_t> hashes);
  // Writes a block aside. Returns its first unit, which gives its index word. Throws NoSpace.
  uint32_t write(std::span<const uint64_t> block);
  // Stores the index word. found: of this key, now.
  PutResult publish(uint64_t hash, const Probe& found, uint64_t word);
  void erase(uint64_t hash, const Probe& found);

  // Moves pieces from behind the allocator's limits to the front, from place on, as long as effort (a bucket's worth of
  // words, or an eighth of a piece, a unit) lasts. noRoom: a piece cannot be moved. See IndexCompaction.h.
  enum class Compaction : uint8_t { more, done, noRoom };
  Compaction compact(Compacted& place, size_t& effort);

  // Moves a few blocks out of the reserve, into space that has been released.
  void leaveReserve();

  // Taking over what a predecessor left; see IndexTakeOver.h.
  void examineStructure(std::vector<Damage>& damages);
  void examineBlocks(std::vector<Damage>& damages);
  void repair();

  // Compares the segment of hash with private memory; returns the greatest hash that belongs there. See IndexScrub.h.
  uint64_t scrub(uint64_t hash, ScrubVisitor& visitor, ScrubReport& report);
  // Removes the word of a damaged record that a scrub has found. False: it is another word by now.
  bool dropDamaged(const Damage& damage);
  const Place& descriptor() const { return descriptor_; }

 private:
  struct Segment {
    Place place;
    // Good at the first directory word of a segment only.
    uint32_t live = 0;
    uint32_t dead = 0;  // tombstones
    WordSums sums;
  };
  // A segment's content on its way to another segment.
  struct Item {
    uint64_t hash;
    uint64_t word;
    uint32_t slot;
    bool isLost;  // what it names is damaged beyond telling the hash: it stays in its bucket
  };
  // An index word that must go.
  struct Unfit {
    size_t first;  // directory word
    size_t at;     // its offset
  };
  struct Image {
    std::vector<uint64_t> words;
    unsigned depth;
    uint32_t live;
    size_t bytes() const { return words.size() * sizeof(uint64_t); }
  };
  enum class Match : uint8_t { mine, other, damaged };

  size_t descriptorAt() const { return descriptorsAt + sizeof(uint64_t) * collection_; }
  size_t firstOf(uint64_t hash) const;
  Segment& segmentOf(uint64_t hash) { return directory_[firstOf(hash)]; }
  // The least hash of a directory word.
  uint64_t hashAt(size_t index) const { return depth_ == 0 ? 0 : uint64_t{index} << (64 - depth_); }

  std::optional<BlockHead> headAt(uint32_t units) const;
  bool isIntact(uint32_t units, const BlockHead& head) const;
  Bytes keyAt(uint32_t units, const BlockHead& head) const;
  Match match(uint64_t word, Bytes key) const;
  Probe probe(uint64_t hash, Bytes key) const;
  bool hasRoom(const Segment& segment, const Probe& probe) const;
  bool mayCrowd(const Segment& segment, size_t count) const;
  void noteIfInReserve(uint32_t units) {
    if (pen_->allocator().isInReserve(units)) {
      inReserve_.push_back(units);
      boundReserveList();
    }
  }
  void boundReserveList();
  void releaseBlock(uint64_t word);
  void storeWord(Segment& segment, size_t at, uint64_t word);
  uint64_t vacancyAt(size_t slot) const;

  void createSegment();
  void grow(uint64_t hash);
  bool mayDouble() const;
  void rebuild(uint64_t hash, unsigned sizeLog2Least);
  void split(uint64_t hash);
  void merge(size_t first, size_t second);
  std::optional<size_t> buddyOf(size_t first) const;
  void doubleDirectory();
  void halveDirectory();
  void directoryIs(Claim<Stores>& claim, std::vector<Segment> directory, unsigned depth);

  static unsigned sizeFor(size_t live);
  void gather(uint64_t hash);
  Image imageOf(uint64_t hash, unsigned depth, unsigned sizeLog2Least) const;
  Segment write(Claim<Stores>& to, const Image& image);
  void name(size_t first, const Segment& segment);
  void drop(const Segment& segment);

  bool moveDirectory();
  bool moveSegment(size_t first);
  bool moveBlockTo(Segment& segment, uint32_t units, size_t slot, const BlockHead& head);
  bool leaveReserve(size_t i);
  bool moveBlock(size_t first, size_t slot, size_t& effort);
  Compaction compactSegment(size_t first, Compacted& place, size_t& effort);

  std::vector<Place> placesInRegion() const;
  void cover(size_t first, size_t behind, const Segment& segment);
  void examineSegment(size_t first, std::vector<Damage>& damages);
  const char* whyUnfit(uint64_t word, size_t slot, size_t first) const;
  const char* whyUnsound(uint64_t word, size_t slot, size_t first) const;
  bool isReachable(uint64_t hash, size_t slot, const Place& segment) const;

  void repairWords(size_t first);
  void scrubDirectory(size_t first, ScrubReport& report);
  void scrubWords(size_t first, ScrubReport& report);
  bool putBack(size_t first, size_t column, const WordSums::Column& found, ScrubReport& report);
  void scrubBlocks(size_t first, ScrubVisitor& visitor, ScrubReport& report);
  void removeSuperseded(size_t first, size_t slot);
  Bytes keyOf(uint64_t word, size_t slot, size_t first) const;
  const char* whyDamaged(uint64_t word, size_t slot, size_t first) const;

  Pen<Stores>* pen_;
  Changes<Stores>* changes_;
  unsigned collection_;
  HashFn hash_;
  unsigned depth_ = 0;
  Place descriptor_;
  std::vector<Segment> directory_;       // empty: no segment yet
  std::array<size_t, 32> segmentsAt_{};  // number of segments by their depth
  size_t live_ = 0;
  uint64_t layout_ = 0;
  std::vector<uint32_t> inReserve_;  // blocks that were placed in the reserve, until they are known to have left
  size_t nextInReserve_ = 0;         // the one to try next
  size_t inReserveMax_ = 64;         // when inReserve_ is longer, doubles are removed
  std::vector<Item> items_;          // of the segments at hand; kept for its memory
  std::vector<Unfit> unfit_;         // of a take-over, until repaired
  std::unique_ptr<ScrubReport> repairedEarlier_;  // by repairWords(), for the next scrub; null: nothing
};

}  // namespace Memtab

#include "runtime/Memtab/IndexCompaction.h"  // IWYU pragma: export
#include "runtime/Memtab/IndexGrowth.h"      // IWYU pragma: export
#include "runtime/Memtab/IndexScrub.h"       // IWYU pragma: export
#include "runtime/Memtab/IndexTakeOver.h"    // IWYU pragma: export
#include "runtime/Memtab/IndexWrite.h"       // IWYU pragma: export
