// Compaction: a region that has become mostly free gives its tail back. Until the walk is over, nothing new is placed
// behind the limit; the walk goes through the index in the order of hashes and moves what still lies there:
//
//   | used | free | used | free |limit     | used |   free    | used | free |          | used | used | used |limit
//                   ^-----------------------  |                  |           ->         the tail is given back
//                   ^--------------------------------------------'
//
// A piece is copied aside and then named instead of the old one, which is one word store for a block. Its index word
// keeps the generation, since the record is the same. It only ever moves to a lower offset: a word that a reader has
// seen does not come back while it is looking.
//
// Each delete does a little of it. Where the walk has come to is a hash, so splits and merges in between do not matter.
#pragma once

#include <algorithm>

#include "runtime/Memtab/Index.h"

namespace Memtab {

inline constexpr size_t effortOfMove = 8;

template <class Stores>
bool Index<Stores>::moveDirectory() {
  const uint32_t units = pen_->allocateInside(descriptor_.bytes());
  if (units == 0) {
    return false;
  }
  Claim<Stores> claim(*pen_, descriptor_.bytes(), units);
  directoryIs(claim, directory_, depth_);
  return true;
}

// Word for word, tombstones too.
template <class Stores>
bool Index<Stores>::moveSegment(size_t first) {
  const Place old = directory_[first].place;
  Segment moved = directory_[first];
  moved.place.units = pen_->allocateInside(old.bytes());
  if (moved.place.units == 0) {
    return false;
  }
  moved.place.generation = pen_->nextPlaceGeneration();
  pen_->copy(moved.place.offset(), old.offset(), old.words());
  name(first, moved);
  drop(old);
  return true;
}

// A damaged block stays where it is.
template <class Stores>
bool Index<Stores>::moveBlock(size_t slot) {
  const uint64_t word = pen_->load(slot);
  const std::optional<BlockHead> head = headAt(unitsOf(word));
  if (!head || !isIntact(unitsOf(word), *head)) {
    return true;
  }
  const uint32_t units = pen_->allocateInside(8 * head->words());
  if (units == 0) {
    return false;
  }
  pen_->copy(size_t{units} * unitBytes, size_t{unitsOf(word)} * unitBytes, head->words());
  pen_->store(slot, versionOf(word) << 32 | units);
  pen_->release(unitsOf(word), 8 * head->words());
  return true;
}

template <class Stores>
auto Index<Stores>::compactSegment(size_t first, size_t limit, Compacted& place, size_t& effort) -> Compaction {
  const auto spend = [&effort](size_t units) { effort -= std::min(effort, units); };
  if (directory_[first].place.offset() >= limit) {
    if (!moveSegment(first)) {
      return Compaction::noRoom;
    }
    spend(effortOfMove);
  }
  const Place segment = directory_[first].place;
  if (place.segment != segment.word()) {
    place.segment = segment.word();
    place.slot = 0;
  }
  for (; place.slot < segment.words(); ++place.slot) {
    if (effort == 0) {
      return Compaction::more;
    }
    const size_t slot = segment.offset() + place.slot * sizeof(uint64_t);
    const uint64_t word = pen_->load(slot);
    const bool isBehind = isLive(word) && size_t{unitsOf(word)} * unitBytes >= limit;
    if (isBehind && !moveBlock(slot)) {
      return Compaction::noRoom;
    }
    spend(isBehind ? effortOfMove : place.slot % bucketWords == 0 ? 1 : 0);
  }
  return Compaction::done;
}

template <class Stores>
auto Index<Stores>::compact(size_t limit, Compacted& place, size_t& effort) -> Compaction {
  if (directory_.empty()) {
    return Compaction::done;
  }
  if (descriptor_.offset() >= limit && !moveDirectory()) {
    return Compaction::noRoom;
  }
  for (;;) {
    const size_t first = firstOf(place.hash);
    if (const Compaction outcome = compactSegment(first, limit, place, effort); outcome != Compaction::done) {
      return outcome;
    }
    const size_t next = first + (size_t{1} << (depth_ - directory_[first].place.depth));
    if (next == directory_.size()) {
      return Compaction::done;
    }
    place = {hashAt(next), 0, 0};
  }
}

}  // namespace Memtab
