// HashPage: the members of a hash collection whose hashes begin with the same few bits (depth of them), in one piece of
// memory. A row of slots is kept sorted by (hash, key). The next bits of a hash name its home among the slots; a member
// lies there or, when others came first, in the run behind it:
//
//     depth bits: which page   homeBits: which home
//     0110                     01101                ...     | 0x..1c | 0x..1f | 0x..2a |   -   | 0x..41 | ...
//
//   find    start at home, skip smaller hashes, compare keys while the hash is equal; one cache line, rarely two
//   insert  find the place in the order, move the rest of the run up by one
//   erase   move the rest of the run down by one; no tombstones, so a page does not age
//
// At most three quarters of the homes are taken. Behind the last home lie some more slots for the run that begins
// there; the last slot of all is always empty and ends every walk through a run.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

namespace Zol {

// Key and value of one member, the larger first, so that a set of 64-bit ids takes 16 bytes an id together with the
// hash. They live from construct() to destroy(); an empty slot holds neither.
template <class K, class V, bool keyFirst = (alignof(K) < alignof(V))>
struct HashSlot {
  HashSlot() {}
  ~HashSlot() {}
  std::uint32_t hash;
  union {
    K key;
  };
  union {
    V value;
  };
};
template <class K, class V>
struct HashSlot<K, V, false> {
  HashSlot() {}
  ~HashSlot() {}
  std::uint32_t hash;
  union {
    V value;
  };
  union {
    K key;
  };
};

template <class K, class V>
class alignas(std::max(alignof(HashSlot<K, V>), alignof(std::uint32_t))) HashPage {
 public:
  using Slot = HashSlot<K, V>;
  struct Range {
    Slot* begin = nullptr;
    Slot* end = nullptr;
  };

  static constexpr std::uint32_t emptyHash = 0xFFFFFFFF;  // larger than every hash, so it ends every run by itself

  // How many members a page with so many homes may hold.
  static constexpr std::uint32_t maxSize(unsigned homeBits) {
    return homeBits < 2 ? homeBits + 1 : (std::uint32_t(3) << homeBits) / 4;
  }

  // The page of all members of first and then second, which are in order; they are moved, their old slots are left
  // without them. It has room for one more member at least, wherever that belongs.
  static HashPage* of(unsigned depth, Range first, Range second = {}) {
    const std::uint32_t members = count(first) + count(second);
    unsigned homeBits = 0;
    while (maxSize(homeBits) < members + members / 4 + 1) {
      ++homeBits;
    }
    const std::uint32_t homes = std::uint32_t(1) << homeBits;
    std::uint32_t end = layOut(first, depth, homeBits, 0, [](Slot&, std::uint32_t) {});
    end = layOut(second, depth, homeBits, end, [](Slot&, std::uint32_t) {});
    const std::uint32_t slots = std::max(homes + std::min(maxSize(homeBits), 4 + homes / 16), end + 2 + members / 16);
    auto* const page = ::new (::operator new(sizeof(HashPage) + slots * sizeof(Slot))) HashPage(depth, homeBits, slots);
    const auto move = [page](Slot& from, std::uint32_t to) { relocate(page->slots() + to, &from); };
    end = layOut(first, depth, homeBits, 0, move);
    layOut(second, depth, homeBits, end, move);
    page->size_ = members;
    return page;
  }
  // Frees the page. The members have been moved, or go with it.
  static void free(HashPage* page) { ::operator delete(page); }
  static void destroyAll(HashPage* page) {
    if constexpr (!movesAsBytes) {
      for (Slot* slot = page->slots(); slot != page->end(); ++slot) {
        if (slot->hash != emptyHash) {
          destroy(slot);
        }
      }
    }
    free(page);
  }

  std::uint32_t size() const { return size_; }
  unsigned depth() const { return depth_; }
  unsigned homeBits() const { return homeBits_; }
  std::size_t bytes() const { return sizeof(HashPage) + slotCount_ * sizeof(Slot); }
  bool isFull() const { return size_ >= maxSize(homeBits_); }
  bool isSparse() const { return size_ * 4 <= (std::uint32_t(1) << homeBits_); }

  Slot* slots() { return reinterpret_cast<Slot*>(this + 1); }
  Slot* end() { return slots() + slotCount_; }
  Range all() { return {slots(), end()}; }
  static std::uint32_t homeOf(std::uint32_t hash, unsigned depth, unsigned homeBits) {
    return static_cast<std::uint32_t>(std::uint64_t(hash << depth) >> (32 - homeBits));
  }
  Slot* home(std::uint32_t hash) { return slots() + homeOf(hash, depth_, homeBits_); }

  // The member, or null, looking from its home on.
  static Slot* find(Slot* slot, std::uint32_t hash, const K& key) {
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
  // The member, or the slot where it would go. What is at or behind that slot is not smaller.
  Slot* lowerBound(std::uint32_t hash, const K& key) {
    Slot* slot = home(hash);
    while (slot->hash < hash) {
      ++slot;
    }
    while (slot->hash == hash && slot->key < key) {
      ++slot;
    }
    return slot;
  }

  // Adds a member that is not there; null when there is no room for it.
  Slot* insert(std::uint32_t hash, K& key, V& value) {
    Slot* const at = lowerBound(hash, key);
    Slot* gap = at;
    while (gap->hash != emptyHash) {
      ++gap;
    }
    if (isFull() || gap == end() - 1) {
      return nullptr;
    }
    moveUp(at, gap);
    construct(at, hash, key, value);
    ++size_;
    return at;
  }

  void erase(Slot* gap) {
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
    --size_;
  }

 private:
  static constexpr bool movesAsBytes = std::is_trivially_copyable_v<K> && std::is_trivially_copyable_v<V>;

  HashPage(unsigned depth, unsigned homeBits, std::uint32_t slotCount)
      : slotCount_(slotCount),
        depth_(static_cast<std::uint8_t>(depth)),
        homeBits_(static_cast<std::uint8_t>(homeBits)) {
    static_assert(alignof(Slot) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
    for (Slot* slot = slots(); slot != end(); ++slot) {
      slot->hash = emptyHash;
    }
  }

  static std::uint32_t count(Range range) {
    return static_cast<std::uint32_t>(
        std::count_if(range.begin, range.end, [](const Slot& slot) { return slot.hash != emptyHash; }));
  }
  // Calls place(slot, index) with the slot in a new page of each member, the first free one being given; returns the
  // first slot behind them.
  template <class F>
  static std::uint32_t layOut(Range range, unsigned depth, unsigned homeBits, std::uint32_t free, F&& place) {
    for (Slot* slot = range.begin; slot != range.end; ++slot) {
      if (slot->hash != emptyHash) {
        const std::uint32_t to = std::max(free, homeOf(slot->hash, depth, homeBits));
        free = to + 1;
        place(*slot, to);
      }
    }
    return free;
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
  static void relocate(Slot* to, Slot* from) {
    construct(to, from->hash, from->key, from->value);
    destroy(from);
  }
  static void construct(Slot* slot, std::uint32_t hash, K& key, V& value) {
    ::new (&slot->key) K(std::move(key));
    ::new (&slot->value) V(std::move(value));
    slot->hash = hash;
  }
  static void destroy(Slot* slot) {
    slot->key.~K();
    slot->value.~V();
  }

  std::uint32_t size_ = 0;
  const std::uint32_t slotCount_;
  const std::uint8_t depth_;
  const std::uint8_t homeBits_;
};

}  // namespace Zol
