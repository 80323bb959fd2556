// Compaction: a region that has become mostly free gives its tail back. A walk through the index in the order of hashes
// moves what lies behind a limit to the front, and as long as it lasts nothing new is placed there:
//
//   | used |  free  | used |  free  |limit    | used |   free    | used |         | used | used | used | used |limit
//            ^----------------------------------'                  |       ->         the tail is given back
//            ^-----------------------------------------------------'
//
// It takes two walks. Between small pieces there is hardly ever room for a large one, so the first walk moves
// small blocks only; what it clears behind their limit is room for the second, which moves segments, directories and
// large blocks.
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
bool Index<Stores>::moveBlock(size_t slot, size_t& effort) {
  const uint64_t word = pen_->load(slot);
  const uint32_t old = unitsOf(word);
  const std::optional<BlockHead> head = headAt(old);
  if (!head || !pen_->allocator().isBehindLimit(size_t{old} * unitBytes, 8 * head->words()) || !isIntact(old, *head)) {
    return true;
  }
  const uint32_t units = pen_->allocateInside(8 * head->words());
  if (units == 0) {
    return false;
  }
  pen_->copy(size_t{units} * unitBytes, size_t{old} * unitBytes, head->words());
  pen_->store(slot, versionOf(word) << 32 | units);
  pen_->release(old, 8 * head->words());
  effort -= std::min(effort, effortOfMove);
  return true;
}

template <class Stores>
auto Index<Stores>::compactSegment(size_t first, Compacted& place, size_t& effort) -> Compaction {
  if (pen_->allocator().isBehindLimit(directory_[first].place.offset(), directory_[first].place.bytes())) {
    if (!moveSegment(first)) {
      return Compaction::noRoom;
    }
    effort -= std::min(effort, effortOfMove);
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
    const bool isSuspect = isLive(word) && pen_->allocator().isBehindLimit(size_t{unitsOf(word)} * unitBytes, 0);
    if (isSuspect && !moveBlock(slot, effort)) {
      return Compaction::noRoom;
    }
    if (place.slot % bucketWords == 0 && effort != 0) {
      --effort;
    }
  }
  return Compaction::done;
}

template <class Stores>
auto Index<Stores>::compact(Compacted& place, size_t& effort) -> Compaction {
  if (directory_.empty()) {
    return Compaction::done;
  }
  if (pen_->allocator().isBehindLimit(descriptor_.offset(), descriptor_.bytes()) && !moveDirectory()) {
    return Compaction::noRoom;
  }
  for (;;) {
    const size_t first = firstOf(place.hash);
    if (const Compaction outcome = compactSegment(first, place, effort); outcome != Compaction::done) {
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
