// Store: a shared-memory table that cannot be caught half-done: up to eight collections of records in one region, one
// writer, any number of readers at any moment.
//
// Records are immutable blocks and the index is made of single words, so publishing, replacing and deleting a record
// are one word store each. Wherever a writer dies, a reader finds the old record or the new one, whole. The road of a
// put:
//
//   block written aside  ->  index word stored: the record is there  ->  entry count  ->  sequence
//
// After the sequence has moved the change is complete. A put of what stands already stores nothing at all.
//
// The engine knows bytes only: keys of up to 511 bytes, records of up to a megabyte, and hashes that the caller
// computes. Several threads may read (each with its own Reader of view()) while one writes; Store itself belongs
// to the writer's thread.
#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "runtime/Memtab/Cursor.h"
#include "runtime/Memtab/Index.h"
#include "runtime/Memtab/Reader.h"
#include "runtime/Memtab/StorePolicy.h"
#include "runtime/Zol/Assert.h"

namespace Memtab {

template <class Stores = DirectStores>
class BasicStore {
 public:
  // Makes an empty table of all of region.
  // fingerprint: what the records are, for readers to compare. hashes: one a collection, at most eight.
  BasicStore(Region region, uint64_t fingerprint, std::span<const HashFn> hashes, Stores stores = {})
      : pen_(std::move(region), std::move(stores)), reader_(pen_.region().view(), hashes) {
    pen_.store(versionAt, formatVersion);
    pen_.store(fingerprintAt, fingerprint);
    pen_.store(epochAt, 1);
    pen_.store(allocatedAt, pen_.region().size());
    for (unsigned i = 0; i < hashes.size(); ++i) {
      indexes_.emplace_back(pen_, i, hashes[i]);
    }
    pen_.store(magicAt, regionMagic);
  }
  BasicStore(const BasicStore&) = delete;
  BasicStore& operator=(const BasicStore&) = delete;

  // Requires: hash is the collection's hash of key.
  // Throws RangeException for a key or record too long, NoSpace when the region cannot grow; the table stands as it
  // did.
  PutResult put(unsigned collection, uint64_t hash, Bytes key, Bytes record) {
    index(collection).prefetch(hash);  // comes while the block is made
    const PutResult result = index(collection).put(hash, key, blockOf(collection, key, record));
    if (result != PutResult::unchanged) {
      changed(collection, result == PutResult::inserted);
    }
    return result;
  }

  // Whether there was a record, or a damaged one that may have been this key's.
  bool del(unsigned collection, uint64_t hash, Bytes key) {
    if (!index(collection).del(hash, key)) {
      return false;
    }
    changed(collection, true);
    index(collection).tidy(hash);
    return true;
  }

  // See Reader::get().
  Lookup get(unsigned collection, uint64_t hash, Bytes key) const { return reader_.get(collection, hash, key); }
  Lookup get(unsigned collection, uint64_t hash, Bytes key, Buffer& buffer) const {
    return reader_.get(collection, hash, key, buffer);
  }
  Cursor cursor(unsigned collection) const { return Cursor(reader_, collection); }
  const Reader& reader() const { return reader_; }

  // For readers of other threads.
  View view() const { return pen_.region().view(); }

  size_t entries(unsigned collection) const { return reader_.entries(collection); }
  uint64_t sequence() const { return sequence_; }
  bool ready() const { return reader_.ready(); }
  // Tells readers whether the content is complete.
  void readyIs(bool ready) {
    if (ready != this->ready()) {
      pen_.store(readyAt, ready ? 1 : 0);
    }
  }

  // Bytes in use, and bytes that the region has from its backing.
  size_t bytesUsed() const { return pen_.bytesUsed(); }
  size_t bytesMapped() const { return pen_.region().size(); }

 private:
  Index<Stores>& index(unsigned collection) {
    ZOL_ASSERT(collection < indexes_.size());
    return indexes_[collection];
  }

  std::span<const uint64_t> blockOf(unsigned collection, Bytes key, Bytes record);

  void changed(unsigned collection, bool isCountChanged) {
    if (isCountChanged) {
      pen_.store(entriesAt + sizeof(uint64_t) * collection, index(collection).entries());
    }
    pen_.store(sequenceAt, ++sequence_);
  }

  Pen<Stores> pen_;
  Reader reader_;
  std::vector<Index<Stores>> indexes_;
  std::vector<uint64_t> block_;  // the block being made
  uint64_t sequence_ = 0;
};

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

extern template class BasicStore<DirectStores>;  // in Store.cpp
using Store = BasicStore<>;

}  // namespace Memtab
