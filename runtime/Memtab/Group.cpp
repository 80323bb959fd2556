#include "runtime/Memtab/Group.h"

#include <algorithm>

#include "runtime/Zol/Assert.h"

namespace Memtab {
namespace {

constexpr size_t bucketsMin = 16;

// When an item's turn is; see the head of Group.h.
int rankOf(const Group::Item& item, uint32_t referred) {
  const bool isReferred = (referred >> item.collection & 1) != 0;
  return !isReferred ? 1 : item.outcome == Group::Outcome::put ? 0 : 2;
}

bool mayNeedPlace(const Group::Item& item) { return item.outcome == Group::Outcome::put && !item.found.standing; }

}  // namespace

void Group::begin() {
  ZOL_ASSERT(!isOpen_ && items_.empty());
  isOpen_ = true;
  if (buckets_.empty()) {
    buckets_.resize(bucketsMin);
  }
}

void Group::close() {
  isOpen_ = false;
  deltas_ = {};
}

void Group::clear() {
  for (const Item& item : items_) {
    buckets_[item.bucket] = 0;
  }
  items_.clear();
  words_.clear();
  close();
}

Group::Item* Group::find(unsigned collection, uint64_t hash, Bytes key) {
  for (size_t at = home(collection, hash); buckets_[at] != 0; at = (at + 1) & (buckets_.size() - 1)) {
    Item& item = items_[buckets_[at] - 1];
    if (item.hash == hash && item.collection == collection && std::ranges::equal(this->key(item), key)) {
      return &item;
    }
  }
  return nullptr;
}

void Group::enter(uint32_t index) {
  size_t at = home(items_[index].collection, items_[index].hash);
  while (buckets_[at] != 0) {
    at = (at + 1) & (buckets_.size() - 1);
  }
  buckets_[at] = index + 1;
  items_[index].bucket = static_cast<uint32_t>(at);
}

Group::Item& Group::add(unsigned collection, uint64_t hash, Bytes key) {
  Item& item = items_.emplace_back();
  item.hash = hash;
  item.collection = static_cast<uint8_t>(collection);
  item.keyLength = static_cast<uint16_t>(key.size());
  item.keyAt = words_.size();
  words_.resize(words_.size() + (key.size() + 7) / 8);
  std::copy(key.begin(), key.end(), reinterpret_cast<std::byte*>(words_.data() + item.keyAt));
  if (items_.size() * 2 <= buckets_.size()) {
    enter(static_cast<uint32_t>(items_.size() - 1));
    return item;
  }
  buckets_.assign(buckets_.size() * 2, 0);
  for (uint32_t index = 0; index < items_.size(); ++index) {
    enter(index);
  }
  return item;
}

void Group::blockIs(Item& item, std::span<const uint64_t> block) {
  if (block.size() > item.blockWords) {
    item.blockAt = words_.size();
    words_.insert(words_.end(), block.begin(), block.end());
  } else {
    std::copy(block.begin(), block.end(), words_.begin() + static_cast<std::ptrdiff_t>(item.blockAt));
  }
  item.blockWords = block.size();
}

std::span<Group::Item* const> Group::changes(uint32_t referred) {
  changes_.clear();
  for (const int rank : {0, 1, 2}) {
    for (Item& item : items_) {
      if (item.outcome != Outcome::asItStands && rankOf(item, referred) == rank) {
        changes_.push_back(&item);
      }
    }
  }
  return changes_;
}

uint32_t Group::growing() const {
  uint32_t collections = 0;
  for (const Item& item : items_) {
    collections |= mayNeedPlace(item) ? uint32_t{1} << item.collection : 0;
  }
  return collections;
}

std::span<const uint64_t> Group::newHashes(unsigned collection) {
  newHashes_.clear();
  for (const Item& item : items_) {
    if (item.collection == collection && mayNeedPlace(item)) {
      newHashes_.push_back(item.hash);
    }
  }
  std::sort(newHashes_.begin(), newHashes_.end());
  return newHashes_;
}

}  // namespace Memtab
