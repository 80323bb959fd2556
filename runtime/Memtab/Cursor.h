// Cursor: visits the records of a collection in ascending order of (hash, key bytes), while the writer goes on.
//
//   directory order = hash order:   | segment | segment | segment |
//                                        |
//                          snapshot: (hash, word, slot) sorted;  next() copies block after block
//
// The order is a function of the keys, so a place in it is a pair (hash, key) and means the same whatever happens to
// the table. The snapshot covers one segment. Before a record is returned, its index word and the words that lead to
// the segment must still read as in the snapshot; if not, the segment's present content is snapshot again and the
// cursor goes on behind what it returned last. Hence a key that stands all the time is returned exactly once, in the
// version it had when it was returned; a key that is added or deleted meanwhile may be met or missed. Each step moves
// up in a finite order, so a walk ends whatever the writer does.
//
// Blocks of a segment lie anywhere: the snapshot asks for them ahead of use, so that their cache misses overlap, and
// while its entries are visited those of the next segment are on their way.
//
// One thread a Cursor; its Reader must outlive it.
#pragma once

#include <vector>

#include "runtime/Memtab/Reader.h"

namespace Memtab {

class Cursor {
 public:
  enum class Step : uint8_t {
    entry,
    damaged,     // the next entry, or a part of the index, cannot be read; next() goes on behind it
    recovering,  // the writer was faster at every try; next() goes on behind that key
    end,
  };

  // At the first entry.
  Cursor(const Reader& reader, unsigned collection);
  Cursor(Cursor&&) = default;
  Cursor& operator=(Cursor&&) = default;

  // next() gives the first entry at or behind (hash, key).
  void seek(uint64_t hash, Bytes key);
  Step next();

  // Of the entry that next() gave; good until the next call.
  uint64_t hash() const { return last_.hash; }
  Bytes key() const { return last_.key; }
  Bytes record() const { return record_; }
  // Of what next() called damaged.
  const Damage& damage() const { return damage_; }

 private:
  struct Entry {
    uint64_t hash;
    uint64_t word;
    uint32_t slot;
    bool isLost;  // its block does not belong here; sorted behind all others
  };
  // What was returned last, or what to start at.
  struct Bound {
    uint64_t hash = 0;
    Bytes key;
    bool isInclusive = true;
  };
  enum class Taken : uint8_t { entry, passed, changed, damaged };

  bool isCurrent(uint64_t hash);
  Taken take(const Entry& entry);
  bool isPassed(uint64_t hash, Bytes key) const;
  Step giveUp(uint64_t hash);
  Step nextSegment();
  Step end();
  void skipDamage();
  bool snapshot();
  bool addEntries();
  bool copyKeyOf(Entry& entry, Reader::KeyCopy& key, bool& isSane);
  void sortByHash();
  bool sortTies();
  void goTo(uint64_t hash, unsigned depth);
  void beginLookAhead();
  void lookAhead();

  const Reader* reader_;
  unsigned collection_;
  Bound last_;
  Bytes record_;
  Damage damage_;
  uint64_t resumeHash_ = 0;  // the next snapshot is of the segment that this hash belongs to
  bool isDone_ = false;      // there is no next segment
  bool isLossTold_ = false;
  int tries_ = 0;
  Reader::Chain chain_;  // of the snapshot
  std::vector<Entry> entries_;
  size_t next_ = 0;
  std::span<const Word> ahead_;  // words of the next segment, whose blocks were not asked for yet
  std::vector<Entry> sorted_;    // kept for their memory
  std::vector<uint32_t> starts_;
  Buffer buffers_[2];  // the last entry's, which last_ refers to, and the next one's
  unsigned buffer_ = 0;
};

}  // namespace Memtab
