// WordWalk: the index words of a collection, one segment after the other in the order of hashes. A word tells which
// version of which block stands, so who kept the words of an earlier walk finds what changed since without looking at
// one unchanged record.
//
// The words of a segment are loaded while the segment is the one for its hashes, each at its own moment: a change that
// is complete when take() is called is seen, one that is made meanwhile may be.
//
// One thread a WordWalk; its Reader must outlive it.
#pragma once

#include <vector>

#include "runtime/Memtab/Reader.h"

namespace Memtab {

class WordWalk {
 public:
  struct Entry {
    uint64_t word;
    uint32_t slot;
  };
  enum class Step : uint8_t {
    segment,
    damaged,  // the hashes up to lastHash() cannot be reached
    busy,     // the writer was faster at every try
  };
  enum class KeyStep : uint8_t {
    key,
    gone,   // deleted meanwhile
    moved,  // the segment is another by now: take() again
    damaged,
  };

  WordWalk(const Reader& reader, unsigned collection) : reader_(&reader), collection_(collection) {}

  // Loads the live words of the segment that hash belongs to.
  Step take(uint64_t hash);
  std::vector<Entry>& entries() { return entries_; }
  const std::vector<Entry>& entries() const { return entries_; }
  // The greatest hash that belongs there too.
  uint64_t lastHash() const { return lastHash_; }
  // Why damaged.
  const Damage& damage() const { return damage_; }

  // Asks for the block of an entry, which is wanted soon.
  void prefetch(const Entry& entry) const { prefetchBlock(reader_->blockAt(entry.word)); }
  // The key of an entry, good until the next call; the entry becomes what its slot says now.
  KeyStep key(Entry& entry, Bytes& key);
  // The first word of an entry's block; 0: it cannot be had, or the entry has changed.
  uint64_t head(const Entry& entry) const;

 private:
  bool isCurrent(const Entry& entry) const {
    return chain_.slots[entry.slot].load(std::memory_order_acquire) == entry.word && chain_.isCurrent();
  }
  bool load();

  const Reader* reader_;
  unsigned collection_;
  Reader::Chain chain_;
  uint64_t lastHash_ = 0;
  std::vector<Entry> entries_;
  Reader::KeyCopy key_;
  Damage damage_;
};

}  // namespace Memtab
