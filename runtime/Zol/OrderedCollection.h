// OrderedCollection: a map that iterates in key order.
//
// Members lie sorted in chunks of at most chunkMax, and the chunks in an array in the same order, so a look-up is two
// binary searches, an insert moves at most one chunk's members, and a collection with one or two members is one small
// allocation:
//
//     chunks   [ . | . | . ]           iterators survive every change, like those of HashCollection: one keeps a copy
//                |   |   |              of its key and finds its place again by it after a change
//              [1 3][7 8 9][12]
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "runtime/Zol/Assert.h"

namespace Zol {

template <class K, class V = bool>
class OrderedCollection {
 public:
  using Key = K;
  using Value = V;
  struct Member {
    K key;
    V value;
  };
  struct End {};
  class Iterator;

  OrderedCollection() = default;
  OrderedCollection(const OrderedCollection& other) : chunks_(other.chunks_), size_(other.size_) {}
  OrderedCollection(OrderedCollection&& other) noexcept { swap(other); }
  OrderedCollection& operator=(OrderedCollection other) noexcept {
    swap(other);
    return *this;
  }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // The value of key, or null. O(log n).
  const V* find(const K& key) const {
    const Place at = lowerBound(key);
    return isAt(at, key) ? &chunks_[at.chunk][at.index].value : nullptr;
  }
  V* find(const K& key) { return const_cast<V*>(std::as_const(*this).find(key)); }
  bool has(const K& key) const { return find(key) != nullptr; }

  // Adds the member, or gives an existing one the value; true when it was added. O(log n + chunkMax + n / chunkMax).
  bool insertOrAssign(const K& key, V value) {
    if (V* const present = find(key)) {
      *present = std::move(value);
      return false;
    }
    Place at = lowerBound(key);
    if (chunks_.empty()) {
      chunks_.emplace_back();
    } else if (at.chunk == chunks_.size()) {  // behind all members: into the last chunk
      at = {chunks_.size() - 1, chunks_.back().size()};
    }
    Chunk& chunk = chunks_[at.chunk];
    chunk.insert(chunk.begin() + static_cast<std::ptrdiff_t>(at.index), Member{key, std::move(value)});
    ++size_;
    ++version_;
    if (chunk.size() > chunkMax) {
      const auto middle = chunk.begin() + static_cast<std::ptrdiff_t>(chunkMax / 2);
      Chunk upper(std::make_move_iterator(middle), std::make_move_iterator(chunk.end()));
      chunk.erase(middle, chunk.end());
      chunks_.insert(chunks_.begin() + static_cast<std::ptrdiff_t>(at.chunk) + 1, std::move(upper));
    }
    return true;
  }

  // Removes the member; false when there was none.
  bool erase(const K& key) {
    const Place at = lowerBound(key);
    if (!isAt(at, key)) {
      return false;
    }
    Chunk& chunk = chunks_[at.chunk];
    // A value's destructor may come back to this collection: it runs when the collection is whole again.
    [[maybe_unused]] const V dropped = std::move(chunk[at.index].value);
    chunk.erase(chunk.begin() + static_cast<std::ptrdiff_t>(at.index));
    if (chunk.empty()) {
      chunks_.erase(chunks_.begin() + static_cast<std::ptrdiff_t>(at.chunk));
    }
    --size_;
    ++version_;
    return true;
  }
  void clear() { *this = OrderedCollection(); }

  // The first key in order for which is(key) holds, or null. Valid until the next change.
  template <class Predicate>
  const K* firstKey(Predicate&& is) const {
    for (const Chunk& chunk : chunks_) {
      for (const Member& member : chunk) {
        if (is(member.key)) {
          return &member.key;
        }
      }
    }
    return nullptr;
  }

  Iterator begin() const { return Iterator(this, Place{0, 0}); }
  static End end() { return {}; }
  // At the member, or at the first one behind it when it is absent.
  Iterator from(const K& key) const { return Iterator(this, lowerBound(key)); }

 private:
  static constexpr std::size_t chunkMax = 128;
  using Chunk = std::vector<Member>;
  struct Place {
    std::size_t chunk;
    std::size_t index;
  };

  Place lowerBound(const K& key) const {
    const auto chunk = std::partition_point(chunks_.begin(), chunks_.end(),
                                            [&key](const Chunk& each) { return each.back().key < key; });
    if (chunk == chunks_.end()) {
      return {chunks_.size(), 0};
    }
    const auto member =
        std::partition_point(chunk->begin(), chunk->end(), [&key](const Member& each) { return each.key < key; });
    return {static_cast<std::size_t>(chunk - chunks_.begin()), static_cast<std::size_t>(member - chunk->begin())};
  }
  bool isAt(const Place& at, const K& key) const {
    return at.chunk < chunks_.size() && chunks_[at.chunk][at.index].key == key;
  }

  // Both count as changed, whatever their versions were.
  void swap(OrderedCollection& other) noexcept {
    std::swap(chunks_, other.chunks_);
    std::swap(size_, other.size_);
    version_ = other.version_ = std::max(version_, other.version_) + 1;
  }

  std::vector<Chunk> chunks_;
  std::uint32_t size_ = 0;
  std::uint32_t version_ = 0;  // counts changes of membership, so that iterators know when to look again
};

template <class K, class V>
class OrderedCollection<K, V>::Iterator {
 public:
  Iterator(const OrderedCollection* collection, Place at) : collection_(collection) { standAt(at); }

  explicit operator bool() const { return at_.chunk < end; }
  bool operator!=(End) const { return at_.chunk < end; }

  // The key where the iterator stands; it stays readable when the member has been deleted.
  const K& key() const {
    ZOL_ASSERT_TEXT(at_.chunk < end, "iterator is not at the end");
    return key_;
  }
  const V& value() const {
    const V* const value = collection_->find(key());
    ZOL_ASSERT_TEXT(value != nullptr, "iterator stands at a member");
    return *value;
  }
  const K& operator*() const { return key(); }

  Iterator& operator++() {
    ZOL_ASSERT_TEXT(at_.chunk < end, "iterator is not at the end");
    Place next = at_;
    bool stillThere = true;
    if (version_ != collection_->version_) {
      next = collection_->lowerBound(key_);
      stillThere = collection_->isAt(next, key_);
    }
    if (stillThere && ++next.index == collection_->chunks_[next.chunk].size()) {
      next = {next.chunk + 1, 0};
    }
    standAt(next);
    return *this;
  }

 private:
  static constexpr std::size_t end = SIZE_MAX;

  void standAt(Place at) {
    version_ = collection_->version_;
    at_ = at;
    if (at_.chunk >= collection_->chunks_.size()) {
      at_.chunk = end;
      return;
    }
    key_ = collection_->chunks_[at_.chunk][at_.index].key;
  }

  const OrderedCollection* collection_;
  Place at_{end, 0};
  std::uint32_t version_ = 0;
  K key_{};
};

}  // namespace Zol
