// The store's side of a group: noting changes, and making them.
//
//   space for all of it  ->  intent  ->  index words, in the safe order  ->  entry counts, ring slots  ->  sequence
#pragma once

#include "runtime/Memtab/Store.h"

namespace Memtab {

template <class Stores>
Group::Item& BasicStore<Stores>::stage(unsigned collection, uint64_t hash, Bytes key, const Probe& found) {
  Group::Item& item = group_.add(collection, hash, key);
  item.found = found;
  item.layout = index(collection).layout();
  return item;
}

template <class Stores>
PutResult BasicStore<Stores>::stagePut(unsigned collection, uint64_t hash, Bytes key, std::span<const uint64_t> block) {
  Group::Item* item = group_.find(collection, hash, key);
  const Probe found = item != nullptr ? item->found : index(collection).find(hash, key);
  const bool stands = index(collection).stands(found, block);
  if (item == nullptr) {
    if (stands) {
      return PutResult::unchanged;
    }
    item = &stage(collection, hash, key, found);
  } else if (item->outcome == Group::Outcome::put ? std::ranges::equal(group_.block(*item), block)
                                                  : item->outcome == Group::Outcome::asItStands && stands) {
    return PutResult::unchanged;
  }
  const bool wasThere = item->isThere();
  if (stands) {
    item->outcome = Group::Outcome::asItStands;
  } else {
    item->outcome = Group::Outcome::put;
    group_.blockIs(*item, block);
  }
  group_.deltaIs(collection, group_.delta(collection) + (wasThere ? 0 : 1));
  return wasThere ? PutResult::replaced : PutResult::inserted;
}

template <class Stores>
bool BasicStore<Stores>::stageDel(unsigned collection, uint64_t hash, Bytes key) {
  Group::Item* item = group_.find(collection, hash, key);
  if (item == nullptr) {
    const Probe found = index(collection).find(hash, key);
    if (!found.taken()) {
      return false;
    }
    item = &stage(collection, hash, key, found);
  } else if (!item->isThere()) {
    return false;
  }
  item->outcome = item->found.taken() ? Group::Outcome::deleted : Group::Outcome::asItStands;
  group_.deltaIs(collection, group_.delta(collection) - 1);
  return true;
}

template <class Stores>
Lookup BasicStore<Stores>::staged(const Group::Item& item, Buffer& buffer) const {
  if (!item.isThere()) {
    return {};
  }
  const std::span<const uint64_t> block = group_.block(item);
  std::copy(block.begin(), block.end(), buffer.room(block.size()));
  const BlockHead head = BlockHead::of(block.front());
  Lookup result;
  result.state = Found::found;
  result.head = head.word();
  result.record = buffer.bytes(head.recordAt(), head.length - head.recordAt());
  return result;
}

// The reason why a group needs space. One that replaces or deletes a record is a replacement as a whole: an entry whose
// label stack changes comes with a new stack record.
template <class Stores>
Purpose BasicStore<Stores>::purposeOf(std::span<Group::Item* const> changes) {
  bool isReplacement = false;
  size_t taken = 0;
  size_t released = 0;
  for (const Group::Item* item : changes) {
    isReplacement = isReplacement || item->found.taken();
    taken += item->outcome == Group::Outcome::put ? Allocator::roomFor(group_.block(*item).size_bytes()) : 0;
    released += index(item->collection).bytesAt(item->found);
  }
  return !isReplacement ? Purpose::insertion : taken <= released ? Purpose::exchange : Purpose::growth;
}

// Throws NoSpace; then the pieces are free again. Segments that have grown stay so, which changes no content.
template <class Stores>
void BasicStore<Stores>::claimSpace(std::span<Group::Item* const> changes) {
  const PurposeScope purpose(pen_.allocator(), purposeOf(changes));
  for (uint32_t growing = group_.growing(); growing != 0; growing &= growing - 1) {
    const auto collection = static_cast<unsigned>(std::countr_zero(growing));
    for (std::span<const uint64_t> hashes = group_.newHashes(collection); !hashes.empty();) {
      hashes = hashes.subspan(index(collection).makeRoom(hashes));
    }
  }
  size_t claimed = 0;
  try {
    for (; claimed < changes.size(); ++claimed) {
      Group::Item& item = *changes[claimed];
      if (item.outcome == Group::Outcome::put) {
        item.units = index(item.collection).write(group_.block(item));
      }
    }
  } catch (const NoSpace&) {
    while (claimed-- > 0) {
      const Group::Item& item = *changes[claimed];
      if (item.outcome == Group::Outcome::put) {
        pen_.release(item.units, group_.block(item).size_bytes());
      }
    }
    throw;
  }
}

template <class Stores>
void BasicStore<Stores>::make(Group::Item& item, uint64_t number) {
  Index<Stores>& index = this->index(item.collection);
  // Where nothing stands, or damage, another change of the group may have taken the place.
  const bool isGood = item.found.standing && item.layout == index.layout();
  const Probe found = isGood ? item.found : index.find(item.hash, group_.key(item));
  if (item.outcome == Group::Outcome::put) {
    const uint64_t word = indexWord(Spot(item.hash).fingerprint(), changes_.generation(number), item.units);
    const PutResult result = index.publish(item.hash, found, word);
    item.kind = result == PutResult::inserted ? ChangeKind::inserted : ChangeKind::replaced;
  } else {
    if (found.taken()) {
      index.erase(item.hash, found);
    }
    item.kind = ChangeKind::deleted;
  }
}

template <class Stores>
template <class F>
void BasicStore<Stores>::groupEnd(F&& changed) {
  ZOL_ASSERT(group_.isOpen());
  struct Clearing {
    Group& group;
    ~Clearing() { group.clear(); }
  } const clearing{group_};
  const std::span<Group::Item* const> changes = group_.changes(options_.referred);
  if (changes.empty()) {
    return;
  }
  requireIntact();
  claimSpace(changes);
  group_.close();
  changes_.begin(changes.size());
  for (size_t i = 0; i < changes.size(); ++i) {
    make(*changes[i], i);
  }
  for (unsigned collection = 0; collection < indexes_.size(); ++collection) {
    storeEntries(collection);
  }
  for (size_t i = 0; i < changes.size(); ++i) {
    changes_.log(i, changes[i]->collection, group_.key(*changes[i]));
  }
  changes_.end(changes.size());
  for (Index<Stores>& index : indexes_) {
    index.leaveReserve();
  }
  for (const Group::Item* item : changes) {
    if (item->kind == ChangeKind::deleted) {
      index(item->collection).tidy(item->hash);
      compact();
    }
  }
  for (const Group::Item* item : changes) {
    changed(unsigned{item->collection}, group_.key(*item), item->kind);
  }
}

}  // namespace Memtab
