// How a store begins: with a new table, or with what a predecessor left. A take-over first looks at everything and
// stores nothing; only then does it say that it has begun (epoch, owner, not ready), repair what needs it, and
// account for a change that its predecessor died in. If it dies itself, the next one finds no less than it did.
#pragma once

#include "runtime/Memtab/Store.h"

namespace Memtab {

template <class Stores>
BasicStore<Stores>::BasicStore(Region region, uint64_t fingerprint, std::span<const HashFn> hashes,
                               StoreOptions options, Stores stores)
    : options_(options),
      fingerprint_(fingerprint),
      pen_(std::move(region), std::move(stores)),
      changes_(pen_),
      reader_(pen_.region().view(), hashes) {
  ZOL_ASSERT(options.ringSlotsLog2 >= Changes<Stores>::slotsLog2Min &&
             options.ringSlotsLog2 <= Changes<Stores>::slotsLog2Max);
  indexes_.reserve(hashes.size());
  for (unsigned i = 0; i < hashes.size(); ++i) {
    indexes_.emplace_back(pen_, changes_, i, hashes[i]);
  }
  if (isBlank(view())) {
    create(fingerprint);
  } else {
    takeOver(fingerprint);
  }
}

// The magic number comes last: until then the region is blank.
template <class Stores>
void BasicStore<Stores>::create(uint64_t fingerprint) {
  changes_.create(options_.ringSlotsLog2);
  pen_.publishSize();
  pen_.store(versionAt, formatVersion);
  pen_.store(fingerprintAt, fingerprint);
  pen_.store(epochAt, epoch_);
  pen_.store(readyAt, 0);
  pen_.store(intentAt, options_.sequence);
  if (options_.sequence != 0) {
    pen_.store(sequenceAt, options_.sequence);
    changes_.sequenceIs(options_.sequence);
  }
  ownerIs(options_.owner);
  for (unsigned i = 0; i < indexes_.size(); ++i) {
    indexes_[i].create();
    storeEntries(i);
  }
  changes_.publish(true);
  pen_.store(magicAt, regionMagic);
}

template <class Stores>
void BasicStore<Stores>::ownerIs(Owner owner) {
  pen_.store(ownerStartAt, owner.start);
  pen_.store(ownerAt, owner.pid);
}

template <class Stores>
void BasicStore<Stores>::nextEpoch() {
  pen_.store(epochAt, ++epoch_);
}

template <class Stores>
void BasicStore<Stores>::takeOver(uint64_t fingerprint) {
  requireCompatible(view(), fingerprint, indexes_.size());
  takeOver_.isTakenOver = true;
  takeOver_.wasClosed = pen_.load(ownerAt) == 0;
  std::vector<Damage>& damages = takeOver_.damages;
  const bool hasRing = changes_.takeRing();
  for (Index<Stores>& index : indexes_) {
    index.examineStructure(damages);
  }
  for (Index<Stores>& index : indexes_) {
    index.examineBlocks(damages);
  }
  takeOver_.wasUnderWay = pen_.load(intentAt) != pen_.load(sequenceAt);
  if (!takeOver_.wasUnderWay && damages.empty()) {
    examineEntries();
  }
  epoch_ = pen_.load(epochAt);
  nextEpoch();
  pen_.placeGenerationIs(epoch_ * 0x9E5);
  ready_ = ready();
  ownerIs(options_.owner);
  readyIs(false);
  for (unsigned i = 0; i < indexes_.size(); ++i) {
    indexes_[i].repair();
    storeEntries(i);
  }
  if (!hasRing) {
    damages.push_back({"ring damaged", 0, 0, 0, 0});
    changes_.create(options_.ringSlotsLog2);
    changes_.publish(false);
  }
  if (!damages.empty()) {
    nextEpoch();  // readers that looked before the repair was done look again
  }
  takeSize();
  takeSequence();
}

// The counts find what no check bits do: an index word that was wiped.
template <class Stores>
void BasicStore<Stores>::examineEntries() {
  for (unsigned i = 0; i < indexes_.size(); ++i) {
    if (pen_.load(entriesAt + sizeof(uint64_t) * i) != indexes_[i].entries()) {
      takeOver_.damages.push_back({"number of records differs", i, 0, 0, 0});
    }
  }
}

// Behind the size that the header says, memory may have been given back; it must be asked for again before use.
template <class Stores>
void BasicStore<Stores>::takeSize() {
  const size_t allocated = pen_.load(allocatedAt);
  if (allocated < bytesMapped() && allocated >= allocator().end()) {
    pen_.shrink();
  }
  pen_.publishSize();
}

// A change that was begun has used its numbers, whether it shows or not.
template <class Stores>
void BasicStore<Stores>::takeSequence() {
  const uint64_t sequence = pen_.load(sequenceAt);
  const uint64_t intent = pen_.load(intentAt);
  changes_.sequenceIs(sequence);
  if (!takeOver_.wasUnderWay) {
    return;
  }
  constexpr uint64_t groupMax = uint64_t{1} << 32;
  if (intent - sequence < groupMax) {
    changes_.end(intent - sequence);
  } else {
    takeOver_.damages.push_back({"sequence and intent do not fit", 0, 0, 0, 0});
    changes_.begin(groupMax);
    changes_.end(groupMax);
  }
}

}  // namespace Memtab
