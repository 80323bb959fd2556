// HashCollection: a hash map whose iteration order is a function of its keys.
//
// Members lie in pages (HashPage), sorted by (hash, key) in each. A page holds all members whose hashes begin with its
// prefix; a directory, indexed by the first bits of a hash, leads to it. A page that is full is split in two with one
// more bit of prefix each, two sparse neighbours become one again:
//
//     directory    00 01 10 11           a look-up reads one directory entry and one place in one page
//                   |  |   \/
//     prefix       00  01   1            members in the order of their hashes, page after page
//
// So walking the pages walks the members in (hash, key) order whatever the history of inserts and deletes: the same
// keys are visited in the same order in every run and every process.
//
// Reactors file ids in the order in which they walk other collections, and drain them in this order too. Then all
// members lie in one end of the hash range. Pages divide where the members are, so neither crowds, no single change
// costs more than one page (or, rarely, the directory: 16 bytes for some forty members), and walking a collection costs
// what it holds and not what it once held.
//
// Iterators survive every change. One remembers the hash and key of the member where it stands; after a change it
// finds its place again by key, in constant time. The member where it stands may itself be deleted: the iterator then
// stands in the gap and ++ goes to the next member. Members added behind the iterator are visited, those before it not.
//
// No allocation while empty; one of a hundred bytes or less for a member or two. References to values last until the
// next insert or erase.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>

#include "runtime/Zol/Assert.h"
#include "runtime/Zol/Hash.h"
#include "runtime/Zol/HashPage.h"

namespace Zol {

template <class K, class V = bool>
class HashCollection {
  using Page = HashPage<K, V>;
  using Slot = typename Page::Slot;

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

  // Adds the member unless its key is there; tells where the value is and whether it was added. O(1).
  std::pair<V*, bool> insert(const K& key, V value = V()) {
    const std::uint32_t hash = hashed(key);
    if (Slot* const present = slotOf(hash, key)) {
      return {&present->value, false};
    }
    K kept = key;  // the caller's may lie in a member that moves
    Page* page = pageOf(hash);
    Slot* slot = page == nullptr ? nullptr : page->insert(hash, kept, value);
    while (slot == nullptr) {
      makeRoom(hash);
      slot = pageOf(hash)->insert(hash, kept, value);
    }
    ++size_;
    ++version_;
    return {&slot->value, true};
  }
  V& insertOrAssign(const K& key, V value) {
    if (V* const present = find(key)) {
      return *present = std::move(value);
    }
    return *insert(key, std::move(value)).first;
  }
  // The value of key, made with V() if absent.
  V& operator[](const K& key) { return *insert(key).first; }

  // Removes the member; false when there was none. O(1).
  bool erase(const K& key) {
    const std::uint32_t hash = hashed(key);
    Slot* const slot = slotOf(hash, key);
    if (slot == nullptr) {
      return false;
    }
    // A value's destructor may come back to this collection: it runs when the collection is whole again.
    [[maybe_unused]] const V dropped = std::move(slot->value);
    Page* const page = pageOf(hash);
    page->erase(slot);
    --size_;
    ++version_;
    if (page->isSparse()) {
      compact(hash);
    }
    return true;
  }
  void clear() { *this = HashCollection(); }

  Iterator begin() { return Iterator(this, 0, firstSlot()); }
  ConstIterator begin() const { return ConstIterator(this, 0, firstSlot()); }
  static End end() { return {}; }
  // At the member, or at the first one behind it in the order when it is absent.
  Iterator from(const K& key) { return Iterator(this, hashed(key), lowerBound(hashed(key), key)); }
  ConstIterator from(const K& key) const { return ConstIterator(this, hashed(key), lowerBound(hashed(key), key)); }

  // At the first member of this hash or a greater one. K() is less than other keys of its hash.
  ConstIterator fromHash(std::uint32_t hash) const { return ConstIterator(this, hash, lowerBound(hash, K())); }

  std::size_t bytesUsed() const {
    std::size_t bytes = directoryBits_ == 0 ? 0 : directorySize() * sizeof(Entry);
    forEachPage([&bytes](const Page& page) { bytes += page.bytes(); });
    return bytes;
  }

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
  // Pages of about eight kilobytes are split rather than enlarged: large enough for a small directory and a fast walk,
  // small enough to be split in microseconds. Two that would be half full together become one.
  static constexpr std::uint32_t splitSize =
      Page::maxSize(std::bit_width(std::max(std::size_t(8192) / sizeof(Slot), std::size_t(16))) - 1);
  static constexpr std::uint32_t mergeSizeMax = splitSize / 2;

  // Where a page is, with what it takes to find a member's home there without reading the page itself first.
  struct Entry {
    Page* page;
    std::uint8_t depth;
    std::uint8_t homeBits;
  };

  static std::uint32_t hashed(const K& key) {
    const std::uint32_t hash = hashOf(key);
    return hash == Page::emptyHash ? Page::emptyHash - 1 : hash;
  }

  std::size_t directorySize() const { return std::size_t(1) << directoryBits_; }
  std::size_t indexOf(std::uint32_t hash) const { return std::uint64_t(hash) >> (32 - directoryBits_); }
  // Null only while the collection is empty.
  Page* pageOf(std::uint32_t hash) const {
    return directoryBits_ == 0 ? root_.onlyPage : root_.directory[indexOf(hash)].page;
  }

  Slot* slotOf(std::uint32_t hash, const K& key) const {
    if (directoryBits_ != 0) {
      const Entry& entry = root_.directory[indexOf(hash)];
      return Page::find(entry.page->slots() + Page::homeOf(hash, entry.depth, entry.homeBits), hash, key);
    }
    return root_.onlyPage == nullptr ? nullptr : Page::find(root_.onlyPage->home(hash), hash, key);
  }
  Slot* lowerBound(std::uint32_t hash, const K& key) const {
    Page* const page = pageOf(hash);
    return page == nullptr ? nullptr : page->lowerBound(hash, key);
  }
  Slot* firstSlot() const {
    Page* const page = pageOf(0);
    return page == nullptr ? nullptr : page->slots();
  }

  // The hash with which the prefix of the next page begins; 0 behind the last page.
  static std::uint32_t nextPrefix(std::uint32_t hash, const Page& page) {
    return (hash | static_cast<std::uint32_t>(0xFFFFFFFFULL >> page.depth())) + 1;
  }

  // Makes the directory lead to page for all hashes with the prefix of hash.
  void pageIs(std::uint32_t hash, Page* page) {
    if (directoryBits_ == 0) {
      root_.onlyPage = page;
      return;
    }
    const unsigned freeBits = directoryBits_ - page->depth();
    Entry* const first = root_.directory + (indexOf(hash) >> freeBits << freeBits);
    const Entry entry{page, static_cast<std::uint8_t>(page->depth()), static_cast<std::uint8_t>(page->homeBits())};
    std::fill_n(first, std::size_t(1) << freeBits, entry);
  }

  // Changes the page of hash so that another member finds room there. Members that crowd at one end of the hash range
  // need several splits until they lie in different pages.
  void makeRoom(std::uint32_t hash) {
    Page* page = pageOf(hash);
    if (page == nullptr) {
      root_.onlyPage = Page::of(0, {});
      return;
    }
    if (page->size() < splitSize || !maySplit(*page)) {
      pageIs(hash, Page::of(page->depth(), page->all()));
      Page::free(page);
      return;
    }
    do {
      split(hash, page);
      page = pageOf(hash);
    } while (page->size() >= splitSize && maySplit(*page));
  }
  // A directory larger than the number of members would only serve keys that are meant to collide.
  bool maySplit(const Page& page) const { return page.depth() < directoryBits_ || directorySize() * 2 <= size_; }

  void split(std::uint32_t hash, Page* page) {
    const unsigned depth = page->depth() + 1;
    if (depth > directoryBits_) {
      doubleDirectory();
    }
    const std::uint32_t bit = std::uint32_t(1) << (32 - depth);
    const std::uint32_t upperHash = (hash | bit) & ~(bit - 1);
    const auto isLower = [upperHash](const Slot& slot) { return slot.hash < upperHash; };
    Slot* middle = page->end();
    while (middle != page->slots() && !isLower(middle[-1])) {
      --middle;
    }
    pageIs(upperHash & ~bit, Page::of(depth, {page->slots(), middle}));
    pageIs(upperHash, Page::of(depth, {middle, page->end()}));
    Page::free(page);
  }

  void doubleDirectory() {
    Entry* const larger = std::allocator<Entry>().allocate(directorySize() * 2);
    if (directoryBits_ == 0) {
      Page* const page = root_.onlyPage;
      const Entry entry{page, 0, static_cast<std::uint8_t>(page->homeBits())};
      std::fill_n(larger, 2, entry);
    } else {
      for (std::size_t i = 0; i < directorySize(); ++i) {
        larger[2 * i] = larger[2 * i + 1] = root_.directory[i];
      }
      std::allocator<Entry>().deallocate(root_.directory, directorySize());
    }
    root_.directory = larger;
    ++directoryBits_;
  }

  // Brings memory down to what the members need. Called when the page of hash has become sparse.
  void compact(std::uint32_t hash) {
    if (size_ == 0) {
      release();
      root_.onlyPage = nullptr;
      directoryBits_ = 0;
      return;
    }
    Page* const page = pageOf(hash);
    const std::uint32_t bit = page->depth() == 0 ? 0 : std::uint32_t(1) << (32 - page->depth());
    Page* const buddy = pageOf(hash ^ bit);
    if (buddy != page && buddy->depth() == page->depth() && page->size() + buddy->size() <= mergeSizeMax) {
      (hash & bit) == 0 ? merge(hash, page, buddy) : merge(hash, buddy, page);
    } else {
      pageIs(hash, Page::of(page->depth(), page->all()));
      Page::free(page);
    }
    if (directoryBits_ > 0 && directorySize() > std::size_t(size_) * 4) {
      halveDirectory();
    }
  }
  void merge(std::uint32_t hash, Page* lower, Page* upper) {
    pageIs(hash, Page::of(lower->depth() - 1, lower->all(), upper->all()));
    Page::free(lower);
    Page::free(upper);
  }

  void halveDirectory() {
    for (std::size_t i = 0; i < directorySize(); i += 2) {
      if (root_.directory[i].depth == directoryBits_) {
        merge(static_cast<std::uint32_t>(i << (32 - directoryBits_)), root_.directory[i].page,
              root_.directory[i + 1].page);
      }
    }
    Entry* const larger = root_.directory;
    --directoryBits_;
    if (directoryBits_ == 0) {
      root_.onlyPage = larger[0].page;
    } else {
      root_.directory = std::allocator<Entry>().allocate(directorySize());
      for (std::size_t i = 0; i < directorySize(); ++i) {
        root_.directory[i] = larger[2 * i];
      }
    }
    std::allocator<Entry>().deallocate(larger, directorySize() * 2);
  }

  template <class F>
  void forEachPage(F&& f) const {
    std::uint32_t hash = 0;
    for (Page* page = pageOf(hash); page != nullptr; page = hash == 0 ? nullptr : pageOf(hash)) {
      hash = nextPrefix(hash, *page);
      f(*page);
    }
  }
  void release() {
    forEachPage([](Page& page) { Page::destroyAll(&page); });
    if (directoryBits_ != 0) {
      std::allocator<Entry>().deallocate(root_.directory, directorySize());
    }
  }

  // Both count as changed, whatever their versions were.
  void swap(HashCollection& other) noexcept {
    std::swap(root_, other.root_);
    std::swap(size_, other.size_);
    std::swap(directoryBits_, other.directoryBits_);
    version_ = other.version_ = std::max(version_, other.version_) + 1;
  }

  union Root {
    Page* onlyPage;  // while directoryBits_ == 0
    Entry* directory;
  };
  Root root_{nullptr};
  std::uint32_t size_ = 0;
  std::uint32_t version_ = 0;  // counts changes of membership, so that iterators know when to look again
  unsigned directoryBits_ = 0;
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

  // At the member in slot of the page of hash, or at the first one behind it.
  IteratorBase(Collection* collection, std::uint32_t hash, Slot* slot) : collection_(collection), hash_(hash) {
    standInPage(slot);
  }

  explicit operator bool() const { return valid_; }
  bool operator!=(End) const { return valid_; }

  // The key where the iterator stands; it stays readable when the member has been deleted.
  const K& key() const {
    ZOL_ASSERT_TEXT(valid_, "iterator is not at the end");
    return *key_;
  }
  // The member must still be there.
  ValueRef value() const {
    ZOL_ASSERT_TEXT(valid_, "iterator is not at the end");
    Slot* const slot = fresh() ? slot_ : collection_->slotOf(hash_, *key_);
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
    Slot* const slot = collection_->lowerBound(hash_, *key_);
    const bool stillThere = slot != nullptr && slot->hash == hash_ && slot->key == *key_;
    standInPage(stillThere ? slot + 1 : slot);
    return *this;
  }

 private:
  bool fresh() const { return version_ == collection_->version_; }

  // slot lies in the page of hash_, or is null when there is none.
  void standInPage(Slot* slot) {
    version_ = collection_->version_;
    valid_ = slot != nullptr;
    if (valid_) {
      page_ = collection_->pageOf(hash_);
      standAtOrBehind(slot);
    }
  }
  void standAtOrBehind(Slot* slot) {
    for (;; slot = page_->slots()) {
      for (Slot* const end = page_->end(); slot != end; ++slot) {
        if (slot->hash != Page::emptyHash) {
          slot_ = slot;
          hash_ = slot->hash;
          key_ = slot->key;
          return;
        }
      }
      hash_ = nextPrefix(hash_, *page_);
      if (hash_ == 0) {
        valid_ = false;
        return;
      }
      page_ = collection_->pageOf(hash_);
    }
  }

  Collection* collection_;
  Page* page_ = nullptr;
  Slot* slot_ = nullptr;
  std::uint32_t hash_;
  std::uint32_t version_ = 0;
  bool valid_ = false;
  std::optional<K> key_;  // keys need no empty value
};

}  // namespace Zol
