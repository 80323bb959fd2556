// Scrubbing a table: the writer compares every byte that readers use with its private memory, while it is at work.
//
//   header                  every word is known                        stored again
//   ring                    a private checksum a slot                  emptied: readers compare the table instead
//   directories             the writer's own directory                 stored again
//   index words             private sums (WordSums.h)                  stored again
//   blocks                  their own checksum, and the key's place    reported: the owner of the table writes them
//   again all else                no reader uses it
//
// After a repair the epoch moves, so that readers that have met the damage look again.
#pragma once

#include "runtime/Memtab/IndexScrub.h"
#include "runtime/Memtab/Store.h"

namespace Memtab {

template <class Stores>
bool BasicStore<Stores>::scrub(ScrubPlace& place, ScrubVisitor& visitor, ScrubReport& report) {
  ZOL_ASSERT(!group_.isOpen());
  if (isDamaged()) {
    report.beyondRepair = bytesLost;
    return false;
  }
  if (!place.isBegun) {
    scrubHeader(report);
    if (changes_.scrubRing() != 0) {
      report.repaired.push_back({{"ring slot damaged", 0, 0, 0, 0}});
    }
    place = {true, static_cast<unsigned>(indexes_.size()) - 1, 0};
  } else {
    const uint64_t last = index(place.collection).scrub(place.hash, visitor, report);
    storeEntries(place.collection);
    if (last != ~uint64_t{0}) {
      place.hash = last + 1;
    } else if (place.collection != 0) {
      place = {true, place.collection - 1, 0};
    } else {
      place = {};
    }
  }
  if (!report.repaired.empty()) {
    nextEpoch();
  }
  return place.isBegun;
}

template <class Stores>
void BasicStore<Stores>::scrubHeader(ScrubReport& report) {
  const auto compare = [&](size_t at, uint64_t value, const char* what) {
    if (pen_.load(at) != value) {
      pen_.store(at, value);
      report.repaired.push_back({{what, 0, 0, 0, 0}});
    }
  };
  compare(magicAt, regionMagic, "magic number damaged");
  compare(versionAt, formatVersion, "format version damaged");
  compare(fingerprintAt, fingerprint_, "record fingerprint damaged");
  compare(epochAt, epoch_, "epoch damaged");
  compare(readyAt, ready_ ? 1 : 0, "ready flag damaged");
  compare(allocatedAt, pen_.publishedSize(), "size damaged");
  for (unsigned i = 0; i < collectionCountMax; ++i) {
    const bool isUsed = i < indexes_.size();
    compare(descriptorsAt + sizeof(uint64_t) * i, isUsed ? indexes_[i].descriptor().word() : 0, "descriptor damaged");
    compare(entriesAt + sizeof(uint64_t) * i, isUsed ? indexes_[i].entries() : 0, "number of records damaged");
  }
  compare(sequenceAt, changes_.sequence(), "sequence number damaged");
  compare(intentAt, changes_.sequence(), "intent damaged");
  compare(ringAt, changes_.ring().word(), "ring descriptor damaged");
  compare(ownerAt, options_.owner.pid, "owner damaged");
  compare(ownerStartAt, options_.owner.start, "owner's start time damaged");
}

template <class Stores>
bool BasicStore<Stores>::dropDamaged(const Damage& damage) {
  if (!index(damage.collection).dropDamaged(damage)) {
    return false;
  }
  storeEntries(damage.collection);
  nextEpoch();
  return true;
}

}  // namespace Memtab
