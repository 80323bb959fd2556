// HashCollection: a flat hash map whose iteration order is a function of its keys.
//
// One array of slots, kept sorted by (hash, key). A member's home is the slot that the top bits of its hash name; it
// lies there or, when others came first, in the run behind it:
//
//     home(h) = h >> shift      ... | 0x1c.. | 0x1f.. | 0x2a.. |   -    | 0x41.. | ...
//
//   find    start at home, skip smaller hashes, compare keys while the hash is equal; one cache line, rarely two
//   insert  find the place in the order, move the rest of the run up by one
//   erase   move the rest of the run down by one; no tombstones, so a table does not age
//
// Because slots are sorted, walking the array walks the members in (hash, key) order whatever the history of inserts
// and deletes and whatever the capacity: the same keys are visited in the same order in every run and every process.
//
// Iterators survive every change. One remembers the hash and key of the member where it stands; after a change it
// finds its place again by key, in constant time. The member where it stands may itself be deleted: the iterator then
// stands in the gap and ++ goes to the next member. Members added behind the iterator are visited, those before it not.
//
// The capacity is a power of two, at most three quarters full, and shrinks below one eighth, so that walking a
// collection costs what it holds and not what it once held. No allocation while empty. References to values last until
// the next insert or erase.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "runtime/Zol/Assert.h"
#include "runtime/Zol/Hash.h"

namespace Zol {

template <class K, class V = bool>
class HashCollection {
  struct Slot;

 public:
  using Key = K;
  using Value = V;

  template <bool isConst>
  class IteratorBase;
  using Iterator = IteratorBase<false>;
  using ConstIterator = IteratorBase<true>;
  struct End {};

  HashCollection() = default;
  HashCollection(const HashCollection& other) {
    for (const auto& [key, value] : other) {
      insert(key, value);
    }
  }
  HashCollection(HashCollection&& other) noexcept { swap(other); }
  HashCollection& operator=(HashCollection other) noexcept {
    swap(other);
    return *this;
  }
  ~HashCollection() { release(); }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // The value of key, or null. O(1).
  V* find(const K& key) { return const_cast<V*>(std::as_const(*this).find(key)); }
  const V* find(const K& key) const {
    const Slot* const slot = slotOf(hashed(key), key);
    return slot == nullptr ? nullptr : &slot->value;
  }
  bool has(const K& key) const { return slotOf(hashed(key), key) != nullptr; }

  // Adds the member unless its key is there; tells where the value is and whether it was added. Amortized O(1).
  std::pair<V*, bool> insert(const K& key, V value = V()) {
    const std::uint32_t hash = hashed(key);
    if (Slot* const present = slotOf(hash, key)) {
      return {&present->value, false};
    }
    if (size_ + 1 > maxSize()) {
      rehash(slots_ == nullptr ? minCapacity : capacity() * 2, minSlack);
    }
    Slot* const at = openGap(hash, key);
    ::new (&at->key) K(key);
    ::new (&at->value) V(std::move(value));
    at->hash = hash;
    ++size_;
    ++version_;
    return {&at->value, true};
  }
  V& insertOrAssign(const K& key, V value) {
    if (V* const present = find(key)) {
      return *present = std::move(value);
    }
    return *insert(key, std::move(value)).first;
  }
  // The value of key, made with V() if absent.
  V& operator[](const K& key) { return *insert(key).first; }

  // Removes the member; false when there was none. Amortized O(1).
  bool erase(const K& key) {
    Slot* const slot = slotOf(hashed(key), key);
    if (slot == nullptr) {
      return false;
    }
    // A value's destructor may come back to this collection: it runs when the collection is whole again.
    [[maybe_unused]] const V dropped = std::move(slot->value);
    closeGap(slot);
    --size_;
    ++version_;
    if (size_ * 8 < capacity() && capacity() > minCapacity) {
      rehash(capacity() / 2, minSlack);
    }
    return true;
  }
  void clear() {
    HashCollection dropped;
    swap(dropped);
    version_ = dropped.version_ + 1;
  }

  Iterator begin() { return Iterator(this, slots_); }
  ConstIterator begin() const { return ConstIterator(this, slots_); }
  static End end() { return {}; }
  // At the member, or at the first one behind it in the order when it is absent.
  Iterator from(const K& key) { return Iterator(this, slots_ == nullptr ? nullptr : lowerBound(hashed(key), key)); }
  ConstIterator from(const K& key) const {
    return ConstIterator(this, slots_ == nullptr ? nullptr : lowerBound(hashed(key), key));
  }

  std::size_t bytesUsed() const { return slots_ == nullptr ? 0 : slotCount() * sizeof(Slot); }

  // Equal as sets of members.
  friend bool operator==(const HashCollection& a, const HashCollection& b) {
    if (a.size_ != b.size_) {
      return false;
    }
    for (const auto& [key, value] : a) {
      const V* const other = b.find(key);
      if (other == nullptr || !(*other == value)) {
        return false;
      }
    }
    return true;
  }

 private:
  static constexpr std::uint32_t emptyHash = 0xFFFFFFFF;  // larger than every hash, so it ends every run by itself
  static constexpr std::size_t minCapacity = 4;
  static constexpr std::uint32_t minSlack = 4;  // slots behind the last home, the last of them always empty

  struct Slot {
    Slot() : hash(emptyHash) {}
    ~Slot() {}
    std::uint32_t hash;
    union {
      K key;
    };
    union {
      V value;
    };
  };
  static constexpr bool movesAsBytes = std::is_trivially_copyable_v<K> && std::is_trivially_copyable_v<V>;

  static std::uint32_t hashed(const K& key) {
    const std::uint32_t hash = hashOf(key);
    return hash == emptyHash ? emptyHash - 1 : hash;
  }
  std::size_t capacity() const { return slots_ == nullptr ? 0 : std::size_t(1) << (32 - shift_); }
  std::size_t maxSize() const { return capacity() * 3 / 4; }
  std::size_t slotCount() const { return capacity() + slack_; }
  Slot* home(std::uint32_t hash) const { return slots_ + (hash >> shift_); }

  Slot* slotOf(std::uint32_t hash, const K& key) const {
    if (slots_ == nullptr) {
      return nullptr;
    }
    Slot* slot = home(hash);
    while (slot->hash < hash) {
      ++slot;
    }
    for (; slot->hash == hash; ++slot) {
      if (slot->key == key) {
        return slot;
      }
    }
    return nullptr;
  }

  Slot* lowerBound(std::uint32_t hash, const K& key) const {
    Slot* slot = home(hash);
    while (slot->hash < hash) {
      ++slot;
    }
    while (slot->hash == hash && slot->key < key) {
      ++slot;
    }
    return slot;
  }

  // Makes an empty slot where (hash, key) belongs.
  Slot* openGap(std::uint32_t hash, const K& key) {
    for (;;) {
      Slot* const at = lowerBound(hash, key);
      Slot* gap = at;
      while (gap->hash != emptyHash) {
        ++gap;
      }
      if (gap == slots_ + slotCount() - 1) {  // a long run at the very end has used up the slack
        rehash(capacity(), slack_ * 2);
        continue;
      }
      moveUp(at, gap);
      return at;
    }
  }

  static void moveUp(Slot* at, Slot* gap) {
    if constexpr (movesAsBytes) {
      std::memmove(static_cast<void*>(at + 1), static_cast<const void*>(at),
                   static_cast<std::size_t>(gap - at) * sizeof(Slot));
    } else {
      for (; gap != at; --gap) {
        relocate(gap, gap - 1);
      }
    }
  }

  void closeGap(Slot* gap) {
    destroy(gap);
    Slot* last = gap;
    for (Slot* next = gap + 1; next->hash != emptyHash && home(next->hash) < next; ++next) {
      last = next;
    }
    if constexpr (movesAsBytes) {
      std::memmove(static_cast<void*>(gap), static_cast<const void*>(gap + 1),
                   static_cast<std::size_t>(last - gap) * sizeof(Slot));
    } else {
      for (; gap != last; ++gap) {
        relocate(gap, gap + 1);
      }
    }
    last->hash = emptyHash;
  }

  static void relocate(Slot* to, Slot* from) {
    ::new (&to->key) K(std::move(from->key));
    ::new (&to->value) V(std::move(from->value));
    to->hash = from->hash;
    destroy(from);
  }
  static void destroy(Slot* slot) {
    slot->key.~K();
    slot->value.~V();
  }

  // Sorted slots go over in one pass: each to its home, or right behind its predecessor. A run that does not fit behind
  // the last home gets more slack.
  void rehash(std::size_t newCapacity, std::uint32_t slack) {
    ZOL_ASSERT(newCapacity <= (std::size_t(1) << 31));
    HashCollection old;
    swap(old);
    version_ = old.version_ + 1;
    for (std::size_t left = newCapacity; left > 1; left /= 2) {
      --shift_;
    }
    for (slack_ = slack;; slack_ *= 2) {
      slots_ = allocate(newCapacity + slack_);
      if (old.slots_ == nullptr || takeAll(old)) {
        break;
      }
      deallocate(slots_, newCapacity + slack_);
    }
    size_ = old.size_;
    if (old.slots_ != nullptr) {
      deallocate(old.slots_, old.slotCount());
      old.slots_ = nullptr;
    }
  }

  // Moves the members over; false, with nothing moved, when they run out of slots.
  bool takeAll(const HashCollection& old) {
    Slot* const end = slots_ + slotCount() - 1;
    Slot* free = slots_;
    for (Slot* from = old.slots_; from != old.slots_ + old.slotCount(); ++from) {
      free = from->hash == emptyHash ? free : std::max(free, home(from->hash)) + 1;
    }
    if (free > end) {
      return false;
    }
    free = slots_;
    for (Slot* from = old.slots_; from != old.slots_ + old.slotCount(); ++from) {
      if (from->hash != emptyHash) {
        Slot* const to = std::max(free, home(from->hash));
        relocate(to, from);
        free = to + 1;
      }
    }
    return true;
  }

  static Slot* allocate(std::size_t count) {
    Slot* const slots = std::allocator<Slot>().allocate(count);
    for (std::size_t i = 0; i < count; ++i) {
      slots[i].hash = emptyHash;
    }
    return slots;
  }
  static void deallocate(Slot* slots, std::size_t count) { std::allocator<Slot>().deallocate(slots, count); }

  void release() {
    if (slots_ == nullptr) {
      return;
    }
    if constexpr (!movesAsBytes) {
      for (Slot* slot = slots_; slot != slots_ + slotCount(); ++slot) {
        if (slot->hash != emptyHash) {
          destroy(slot);
        }
      }
    }
    deallocate(slots_, slotCount());
  }

  void swap(HashCollection& other) noexcept {
    std::swap(slots_, other.slots_);
    std::swap(size_, other.size_);
    std::swap(version_, other.version_);
    std::swap(slack_, other.slack_);
    std::swap(shift_, other.shift_);
  }

  Slot* slots_ = nullptr;
  std::uint32_t size_ = 0;
  std::uint32_t version_ = 0;  // counts changes of membership, so that iterators know when to look again
  std::uint32_t slack_ = 0;
  std::uint32_t shift_ = 32;
};

template <class K, class V>
template <bool isConst>
class HashCollection<K, V>::IteratorBase {
 public:
  using Collection = std::conditional_t<isConst, const HashCollection, HashCollection>;
  using ValueRef = std::conditional_t<isConst, const V&, V&>;
  struct Member {
    const K& key;
    ValueRef value;
  };

  IteratorBase(Collection* collection, Slot* slot) : collection_(collection) { standAtOrBehind(slot); }

  explicit operator bool() const { return valid_; }
  bool operator!=(End) const { return valid_; }

  // The key where the iterator stands; it stays readable when the member has been deleted.
  const K& key() const {
    ZOL_ASSERT_TEXT(valid_, "iterator is not at the end");
    return key_.value;
  }
  // The member must still be there.
  ValueRef value() const {
    ZOL_ASSERT_TEXT(valid_, "iterator is not at the end");
    Slot* const slot = fresh() ? slot_ : collection_->slotOf(hash_, key_.value);
    ZOL_ASSERT_TEXT(slot != nullptr, "iterator stands at a member");
    return slot->value;
  }
  Member operator*() const { return Member{key(), value()}; }

  IteratorBase& operator++() {
    ZOL_ASSERT_TEXT(valid_, "iterator is not at the end");
    if (fresh()) {
      standAtOrBehind(slot_ + 1);
      return *this;
    }
    Slot* slot = collection_->slots_ == nullptr ? nullptr : collection_->lowerBound(hash_, key_.value);
    if (slot != nullptr && slot->hash == hash_ && slot->key == key_.value) {
      ++slot;
    }
    standAtOrBehind(slot);
    return *this;
  }

 private:
  // Keeps a copy of the key without asking that keys have an empty value.
  struct KeyCopy {
    KeyCopy() {}
    KeyCopy(const KeyCopy& other) : held(other.held) {
      if (held) {
        ::new (&value) K(other.value);
      }
    }
    KeyCopy& operator=(const KeyCopy& other) {
      if (this != &other) {
        other.held ? set(other.value) : reset();
      }
      return *this;
    }
    ~KeyCopy() { reset(); }
    void set(const K& key) {
      if (held) {
        value = key;
      } else {
        ::new (&value) K(key);
        held = true;
      }
    }
    void reset() {
      if (held) {
        value.~K();
        held = false;
      }
    }
    union {
      K value;
    };
    bool held = false;
  };

  bool fresh() const { return version_ == collection_->version_; }

  void standAtOrBehind(Slot* slot) {
    version_ = collection_->version_;
    valid_ = false;
    if (slot == nullptr) {
      return;
    }
    for (Slot* const end = collection_->slots_ + collection_->slotCount(); slot < end; ++slot) {
      if (slot->hash != emptyHash) {
        valid_ = true;
        slot_ = slot;
        hash_ = slot->hash;
        key_.set(slot->key);
        return;
      }
    }
  }

  Collection* collection_;
  Slot* slot_ = nullptr;
  std::uint32_t hash_ = 0;
  std::uint32_t version_ = 0;
  bool valid_ = false;
  KeyCopy key_;
};

}  // namespace Zol
