// Group: changes that readers shall see as one, in private memory until they are made.
//
// For each key there is one item, and the last outcome counts. An outcome equal to what stands is no change: a record
// that is deleted and written again within a group costs no store. What is left is made in an order that is safe at
// every step, since the writer may die at any: records that others refer to are put first, then those that refer to
// them are put or deleted, then those that nothing refers to any more are deleted.
//
// Vectors keep their memory, so groups of usual size allocate nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "runtime/Memtab/Index.h"
#include "runtime/Memtab/Layout.h"

namespace Memtab {

enum class ChangeKind : uint8_t { inserted, replaced, deleted };

class Group {
 public:
  enum class Outcome : uint8_t { asItStands, put, deleted };
  struct Item {
    uint64_t hash = 0;
    Probe found;                                    // what stands, and
    uint64_t layout = 0;                            // the index's layout for which this is good
    size_t keyAt = 0, blockAt = 0, blockWords = 0;  // in words of the group's memory
    uint32_t units = 0;                             // of the block in the region
    uint32_t bucket = 0;
    uint16_t keyLength = 0;
    uint8_t collection = 0;
    Outcome outcome = Outcome::asItStands;
    ChangeKind kind = ChangeKind::inserted;

    bool isThere() const {
      return outcome == Outcome::asItStands ? found.taken().has_value() : outcome == Outcome::put;
    }
  };

  bool isOpen() const { return isOpen_; }
  // Requires: the last group's items have been cleared.
  void begin();
  // Nothing more comes; the items remain.
  void close();
  void clear();

  // The key's item; nullptr: it has none.
  Item* find(unsigned collection, uint64_t hash, Bytes key);
  const Item* find(unsigned collection, uint64_t hash, Bytes key) const {
    return const_cast<Group*>(this)->find(collection, hash, key);
  }
  // Good until the next add().
  Item& add(unsigned collection, uint64_t hash, Bytes key);
  void blockIs(Item& item, std::span<const uint64_t> block);

  Bytes key(const Item& item) const {
    return std::as_bytes(std::span(words_).subspan(item.keyAt)).first(item.keyLength);
  }
  std::span<const uint64_t> block(const Item& item) const {
    return std::span(words_).subspan(item.blockAt, item.blockWords);
  }

  // How many records collection has more than stand.
  int64_t delta(unsigned collection) const { return deltas_[collection]; }
  void deltaIs(unsigned collection, int64_t delta) { deltas_[collection] = delta; }

  // The items that change something, in the order in which they are made.
  // referred: one bit for each collection whose records others refer to.
  std::span<Item* const> changes(uint32_t referred);
  // The collections with items that may need a place, one bit each.
  uint32_t growing() const;
  // The hashes of those of collection, ascending.
  std::span<const uint64_t> newHashes(unsigned collection);

 private:
  size_t home(unsigned collection, uint64_t hash) const {
    return (Spot(hash).mixed + collection) >> 32 & (buckets_.size() - 1);
  }
  void enter(uint32_t index);

  bool isOpen_ = false;
  std::vector<Item> items_;
  std::vector<uint64_t> words_;    // keys and blocks
  std::vector<uint32_t> buckets_;  // index + 1 of an item, 0: empty; searched linearly
  std::vector<Item*> changes_;
  std::vector<uint64_t> newHashes_;
  std::array<int64_t, collectionCountMax> deltas_{};
};

}  // namespace Memtab
