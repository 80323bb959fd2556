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
  const Segment old = directory_[first];
  Segment moved = old;
  moved.place.units = pen_->allocateInside(old.place.bytes());
  if (moved.place.units == 0) {
    return false;
  }
  moved.place.generation = pen_->nextPlaceGeneration();
  pen_->copy(moved.place.offset(), old.place.offset(), old.place.words());
  name(first, moved);
  drop(old);
  return true;
}

// Moves the block that the word at slot names to the piece at units; 0: there is none, and the answer is false.
template <class Stores>
bool Index<Stores>::moveBlockTo(Segment& segment, uint32_t units, size_t slot, const BlockHead& head) {
  if (units == 0) {
    return false;
  }
  const uint64_t word = pen_->load(slot);
  pen_->copy(size_t{units} * unitBytes, size_t{unitsOf(word)} * unitBytes, head.words());
  storeWord(segment, slot, versionOf(word) << 32 | units);
  pen_->release(unitsOf(word), 8 * head.words());
  return true;
}

// A damaged block stays where it is.
template <class Stores>
bool Index<Stores>::moveBlock(size_t first, size_t slot, size_t& effort) {
  const uint32_t old = unitsOf(pen_->load(slot));
  const std::optional<BlockHead> head = headAt(old);
  if (!head || !pen_->allocator().isBehindLimit(size_t{old} * unitBytes, 8 * head->words()) || !isIntact(old, *head)) {
    return true;
  }
  effort -= std::min(effort, effortOfMove);
  return moveBlockTo(directory_[first], pen_->allocateInside(8 * head->words()), slot, *head);
}

// A block that moves back and forth is noted each time.
template <class Stores>
void Index<Stores>::boundReserveList() {
  if (inReserve_.size() > inReserveMax_) {
    std::sort(inReserve_.begin(), inReserve_.end());
    inReserve_.erase(std::unique(inReserve_.begin(), inReserve_.end()), inReserve_.end());
    inReserveMax_ = 2 * inReserve_.size() + 64;
  }
}

// A replacement that found space in the reserve alone has released as much elsewhere; that is where its block moves.
// Blocks for which there is no space elsewhere move together, so that the rest of the reserve stays in one piece.
// The newest go first, before other changes use what theirs has released.
template <class Stores>
void Index<Stores>::leaveReserve() {
  constexpr size_t newestAtOnce = 8;
  for (size_t i = inReserve_.size(), left = newestAtOnce; i-- > 0 && left > 0; --left) {
    leaveReserve(i);
  }
  for (size_t n = inReserve_.size() / 32; n > 0; --n) {
    nextInReserve_ = nextInReserve_ < inReserve_.size() ? nextInReserve_ : 0;
    if (!leaveReserve(nextInReserve_)) {
      ++nextInReserve_;
    }
  }
}

// Whether the block at that place of the list has left the reserve, or had already. Then the last one takes its place.
template <class Stores>
bool Index<Stores>::leaveReserve(size_t i) {
  uint32_t& units = inReserve_[i];
  const std::optional<BlockHead> head = pen_->allocator().isInReserve(units) ? headAt(units) : std::nullopt;
  const uint64_t hash = head ? hash_(keyAt(units, *head)) : 0;
  const Probe found = head ? find(hash, keyAt(units, *head)) : Probe();
  const bool isThere = found.standing && unitsOf(pen_->load(*found.standing)) == units && isIntact(units, *head);
  if (isThere &&
      moveBlockTo(segmentOf(hash), pen_->allocator().allocateBelow(units, 8 * head->words()), *found.standing, *head)) {
    units = unitsOf(pen_->load(*found.standing));
  }
  if (isThere && pen_->allocator().isInReserve(units)) {
    return false;
  }
  units = inReserve_.back();
  inReserve_.pop_back();
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
    if (isSuspect && !moveBlock(first, slot, effort)) {
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
