// Store: a shared-memory table that cannot be caught half-done: up to eight collections of records in one region, one
// writer, any number of readers at any moment.
//
// Records are immutable blocks and the index is made of single words, so publishing, replacing and deleting a record
// are one word store each. Wherever a writer dies, a reader finds the old record or the new one, whole. The road of a
// put:
//
//   block written aside  ->  intent  ->  index word stored: the record is there  ->  entry count, ring  ->  sequence
//
// After the sequence has moved the change is complete. The writer wakes sleeping readers before its next store, so they
// do not miss the change when it dies. A put of the stored record stores nothing at all. Changes that readers must see
// as one are made as a group (Group.h).
//
// A writer that dies leaves a region that its successor takes over: nothing is undone or replayed, the private memory
// is rebuilt from the index (IndexTakeOver.h).
//
// The engine knows bytes only: keys of up to 511 bytes, records of up to a megabyte, and hashes that the caller
// computes. Several threads may read (each with its own Reader of view()) while one writes; Store itself belongs
// to the writer's thread.
#pragma once

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "runtime/Memtab/Changes.h"
#include "runtime/Memtab/CorruptionException.h"
#include "runtime/Memtab/Cursor.h"
#include "runtime/Memtab/Group.h"
#include "runtime/Memtab/Index.h"
#include "runtime/Memtab/Owner.h"
#include "runtime/Memtab/Reader.h"
#include "runtime/Memtab/RegionCheck.h"
#include "runtime/Memtab/Scrub.h"
#include "runtime/Memtab/StorePolicy.h"
#include "runtime/Zol/Assert.h"

namespace Memtab {

struct StoreOptions {
  unsigned ringSlotsLog2 = 12;  // 3 to 20; of a new table, an old one keeps its ring
  uint32_t referred = 0;        // one bit for each collection that records of others refer to
  Owner owner = {};             // shown to readers
  size_t bytesKept = 1 << 20;   // a region of up to this size is not made smaller
  uint64_t sequence = 0;        // what a new table begins with
};

// What was found in a region that a table stood in already.
struct TakeOver {
  bool isTakenOver = false;     // false: the table is new
  bool wasClosed = false;       // the last writer closed it in good order
  bool wasUnderWay = false;     // it died in the midst of a change
  std::vector<Damage> damages;  // what was taken out; those records read as absent now
};

template <class Stores = DirectStores>
class BasicStore {
 public:
  // A region that carries a table is taken over: its content stays, ready is cleared, the epoch moves on. Any other
  // becomes an empty table.
  // fingerprint: what the records are, for readers to compare. hashes: one a collection, at most eight.
  // Throws IncompatibleTable, with nothing stored, for a region that must be set aside; NoSpace.
  BasicStore(Region region, uint64_t fingerprint, std::span<const HashFn> hashes, StoreOptions options = {},
             Stores stores = {});
  BasicStore(const BasicStore&) = delete;
  BasicStore& operator=(const BasicStore&) = delete;

  // What the constructor found.
  const TakeOver& takeOver() const { return takeOver_; }

  // Whether somebody took bytes of the region away (truncated its file). Then put(), del() and groupEnd() throw
  // CorruptionException, since what they store may reach nobody; the table is best set aside and made anew.
  bool isDamaged() const { return pen_.region().isDamaged(); }

  // Requires: hash is the collection's hash of key.
  // Throws RangeException for a key or record too long, NoSpace when the region cannot grow; the table stands as it
  // did. A new record is refused when only the reserve is left (Allocator.h). One that is no larger than the record it
  // replaces is never refused.
  PutResult put(unsigned collection, uint64_t hash, Bytes key, Bytes record);

  // Whether there was a record, or a damaged one that may have been this key's.
  bool del(unsigned collection, uint64_t hash, Bytes key);

  // Until groupEnd(), puts and deletes are noted only; get() and entries() answer as if they had been made, everything
  // else, cursors included, as if not. Groups do not nest.
  void groupBegin() { group_.begin(); }
  bool isGroupOpen() const { return group_.isOpen(); }
  // Makes the changes, which readers see as one, and then calls changed(collection, key, ChangeKind) for each key whose
  // record differs from what stood before. changed may put and delete, but not begin a group.
  // Throws NoSpace; then the table is as it was before the group, which is forgotten. A group that replaces or
  // deletes a record may use the reserve; it is never refused if it needs no more than it releases.
  template <class F>
  void groupEnd(F&& changed);
  // Forgets the open group.
  void groupDrop() {
    group_.close();
    group_.clear();
  }

  // See Reader::get().
  Lookup get(unsigned collection, uint64_t hash, Bytes key) const {
    return get(collection, hash, key, Reader::threadBuffer());
  }
  Lookup get(unsigned collection, uint64_t hash, Bytes key, Buffer& buffer) const {
    const Group::Item* item = group_.isOpen() ? group_.find(collection, hash, key) : nullptr;
    return item == nullptr || item->outcome == Group::Outcome::asItStands ? reader_.get(collection, hash, key, buffer)
                                                                          : staged(*item, buffer);
  }
  Cursor cursor(unsigned collection) const {
    ZOL_ASSERT(!group_.isOpen());
    return Cursor(reader_, collection);
  }
  const Reader& reader() const { return reader_; }

  // For readers of other threads.
  View view() const { return pen_.region().view(); }

  size_t entries(unsigned collection) const {
    ZOL_ASSERT(collection < indexes_.size());
    return indexes_[collection].entries() + static_cast<size_t>(group_.delta(collection));
  }
  uint64_t sequence() const { return changes_.sequence(); }
  bool ready() const { return reader_.ready(); }
  // Tells readers whether the content is complete.
  void readyIs(bool ready) {
    if (ready != ready_) {
      ready_ = ready;
      pen_.store(readyAt, ready ? 1 : 0);
      changes_.published();
    }
  }
  // Called after the store that completes a change, before any other store. It must not use this object.
  void publishedCallbackIs(std::function<void()> published) { changes_.publishedCallbackIs(std::move(published)); }
  // The writer leaves in good order: nothing may be written any more.
  void close() { pen_.store(ownerAt, 0); }

  // One step of a pass over the table, outside groups: header and ring, or a segment. Repairs damage from private
  // memory and reports the rest. False: the pass is over, and place is at the start of the next one. See StoreScrub.h.
  bool scrub(ScrubPlace& place, ScrubVisitor& visitor, ScrubReport& report);
  // Deletes a damaged record that has no owner. False: it is no longer there.
  bool dropDamaged(const Damage& damage);

  // Bytes in use, and bytes that the region has from its backing.
  size_t bytesUsed() const { return allocator().bytesUsed(); }
  size_t bytesMapped() const { return pen_.region().size(); }
  // The rest, the reserve included. After NoSpace: try again when there are more of them.
  size_t bytesFree() const { return allocator().bytesFree(); }
  const Allocator& allocator() const { return pen_.allocator(); }

 private:
  Index<Stores>& index(unsigned collection) {
    ZOL_ASSERT(collection < indexes_.size());
    return indexes_[collection];
  }

  // How the region gets smaller; see IndexCompaction.h.
  struct Compacting {
    unsigned walk = 0;  // 1, 2; 0: nothing is under way
    size_t limit = 0;   // of small pieces
    unsigned collection = 0;
    Compacted place;
    // Of the last attempt. The next one waits until half of the rest is gone, or the region has grown.
    size_t bytesUsed = ~size_t{0};
    size_t bytesMapped = 0;
  };

  void create(uint64_t fingerprint);
  void takeOver(uint64_t fingerprint);
  void examineEntries();
  void takeSize();
  void takeSequence();
  void ownerIs(Owner owner);
  void scrubHeader(ScrubReport& report);
  void nextEpoch();

  void requireIntact() const {
    if (isDamaged()) {
      throw CorruptionException(bytesLost);
    }
  }
  std::span<const uint64_t> blockOf(unsigned collection, Bytes key, Bytes record);
  void storeEntries(unsigned collection);
  void changed(unsigned collection, Bytes key, bool isCountChanged);

  Group::Item& stage(unsigned collection, uint64_t hash, Bytes key, const Probe& found);
  PutResult stagePut(unsigned collection, uint64_t hash, Bytes key, std::span<const uint64_t> block);
  bool stageDel(unsigned collection, uint64_t hash, Bytes key);
  Lookup staged(const Group::Item& item, Buffer& buffer) const;
  bool isWorthCompacting() const;
  void compact();
  void nextCollection();
  void endCompaction();
  Purpose purposeOf(std::span<Group::Item* const> changes);
  void claimSpace(std::span<Group::Item* const> changes);
  void make(Group::Item& item, uint64_t number);

  StoreOptions options_;
  const uint64_t fingerprint_;
  uint64_t epoch_ = 1;
  bool ready_ = false;
  Pen<Stores> pen_;
  Changes<Stores> changes_;
  Reader reader_;
  std::vector<Index<Stores>> indexes_;
  std::vector<uint64_t> block_;  // the block being made
  Group group_;
  Compacting compacting_;
  TakeOver takeOver_;
};

template <class Stores>
PutResult BasicStore<Stores>::put(unsigned collection, uint64_t hash, Bytes key, Bytes record) {
  requireIntact();
  index(collection).prefetch(hash);  // both come while the block is made
  changes_.prefetch();
  const std::span<const uint64_t> block = blockOf(collection, key, record);
  if (group_.isOpen()) {
    return stagePut(collection, hash, key, block);
  }
  const PutResult result = index(collection).put(hash, key, block);
  if (result != PutResult::unchanged) {
    changed(collection, key, result == PutResult::inserted);
  }
  return result;
}

template <class Stores>
bool BasicStore<Stores>::del(unsigned collection, uint64_t hash, Bytes key) {
  requireIntact();
  if (group_.isOpen()) {
    return stageDel(collection, hash, key);
  }
  if (!index(collection).del(hash, key)) {
    return false;
  }
  changed(collection, key, true);
  index(collection).tidy(hash);
  compact();
  return true;
}

template <class Stores>
void BasicStore<Stores>::storeEntries(unsigned collection) {
  const size_t at = entriesAt + sizeof(uint64_t) * collection;
  const size_t entries = index(collection).entries();
  if (pen_.load(at) != entries) {
    pen_.store(at, entries);
  }
}

template <class Stores>
void BasicStore<Stores>::changed(unsigned collection, Bytes key, bool isCountChanged) {
  if (isCountChanged) {
    storeEntries(collection);
  }
  changes_.log(0, collection, key);
  changes_.end(1);
  index(collection).leaveReserve();
  requireIntact();
}

template <class Stores>
std::span<const uint64_t> BasicStore<Stores>::blockOf(unsigned collection, Bytes key, Bytes record) {
  const size_t length = sizeof(uint64_t) + key.size() + record.size();
  if (key.size() > BlockHead::keyLengthMax) {
    throw Zol::RangeException("key longer than " + std::to_string(BlockHead::keyLengthMax) + " bytes");
  }
  if (record.size() > BlockHead::lengthMax || length > BlockHead::lengthMax) {
    throw Zol::RangeException("key and record longer than " + std::to_string(BlockHead::lengthMax - 8) + " bytes");
  }
  BlockHead head{0, static_cast<uint32_t>(length), static_cast<uint8_t>(collection), static_cast<uint16_t>(key.size())};
  block_.resize(head.words());
  block_.back() = 0;
  auto* bytes = reinterpret_cast<std::byte*>(block_.data() + 1);
  std::copy(record.begin(), record.end(), std::copy(key.begin(), key.end(), bytes));
  head.checksum = crcOf(head.word(), block_.data() + 1, block_.size() - 1);
  block_.front() = head.word();
  return block_;
}

}  // namespace Memtab

#include "runtime/Memtab/StoreCompaction.h"  // IWYU pragma: export
#include "runtime/Memtab/StoreGroup.h"       // IWYU pragma: export
#include "runtime/Memtab/StoreTakeOver.h"    // IWYU pragma: export

namespace Memtab {

extern template class BasicStore<DirectStores>;  // in Store.cpp
using Store = BasicStore<>;

}  // namespace Memtab
