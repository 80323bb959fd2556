// Taking over: from the words of the region to the writer's private memory, and from any state that a writer can die in
// to one that no operation is under way in.
//
//   examineStructure()   the directory as it should be, and the places of segments        } nothing is stored,
//   examineBlocks()      each index word against the block that it names; the counts      } all pieces are taken
//   repair()             stores what differs
//
// Two words of one prefix that name different segments: the one of the smaller depth holds all that the others hold
// (IndexGrowth.h); of equal depth, both hold the same. An index word that cannot be what a writer stored, because
// its block is damaged, another key's, or part of something else, is taken out: the record reads as absent until it
// is put again, and nothing is left that a later put or delete could stumble over. So is a directory word
// that cannot be read, with the keys of its prefix. All of that is reported.
#pragma once

#include <algorithm>
#include <bit>

#include "runtime/Memtab/Index.h"
#include "runtime/Memtab/IndexGrowth.h"
#include "runtime/Memtab/RegionCheck.h"

namespace Memtab {

// The Places of the directory; units 0 where there is none that makes sense.
template <class Stores>
std::vector<Place> Index<Stores>::placesInRegion() const {
  std::vector<Place> places(descriptor_.words());
  for (size_t i = 0; i < places.size(); ++i) {
    const uint64_t word = pen_->load(descriptor_.offset() + i * sizeof(uint64_t));
    const Place place = Place::of(word);
    if (Place::isIntact(word) && place.depth <= depth_ && place.sizeLog2 >= segmentLog2Min &&
        place.offset() % lineBytes == 0 && place.offset() >= headerBytes) {
      places[i] = place;
    }
  }
  return places;
}

template <class Stores>
void Index<Stores>::cover(size_t first, size_t behind, const Segment& segment) {
  std::fill(directory_.begin() + static_cast<std::ptrdiff_t>(first),
            directory_.begin() + static_cast<std::ptrdiff_t>(behind), segment);
}

// Requires: the descriptor has been checked. Throws IncompatibleTable for a directory where something else is.
template <class Stores>
void Index<Stores>::examineStructure(std::vector<Damage>& damages) {
  descriptor_ = Place::of(pen_->load(descriptorAt()));
  depth_ = descriptor_.depth;
  if (descriptor_.units == 0) {
    return;
  }
  if (!pen_->allocator().take(descriptor_.offset(), descriptor_.bytes())) {
    throw IncompatibleTable("damaged: directory of collection " + std::to_string(collection_) + " where others are");
  }
  const std::vector<Place> places = placesInRegion();
  directory_.assign(places.size(), Segment{});
  for (unsigned depth = 0; depth <= depth_; ++depth) {
    const size_t span = size_t{1} << (depth_ - depth);
    for (size_t i = 0; i < places.size(); ++i) {
      if (places[i].units != 0 && places[i].depth == depth && directory_[i].place.units == 0 &&
          pen_->allocator().take(places[i].offset(), places[i].bytes())) {
        cover(i / span * span, i / span * span + span, {places[i], 0, 0, {}});
        ++segmentsAt_[depth];
      }
    }
  }
  for (size_t i = 0; i < places.size(); ++i) {
    if (directory_[i].place.units == 0) {
      damages.push_back({"directory word damaged", collection_, descriptor_.offset() + i * sizeof(uint64_t), 0, 0});
    }
  }
}

template <class Stores>
void Index<Stores>::examineBlocks(std::vector<Damage>& damages) {
  for (size_t first = 0; first < directory_.size();) {
    const Place place = directory_[first].place;
    if (place.units == 0) {
      ++first;
      continue;
    }
    examineSegment(first, damages);
    live_ += directory_[first].live;
    first += size_t{1} << (depth_ - place.depth);
  }
}

template <class Stores>
void Index<Stores>::examineSegment(size_t first, std::vector<Damage>& damages) {
  Segment& segment = directory_[first];
  const auto unfit = [&](size_t slot, uint64_t word, const char* what) {
    const size_t block = isLive(word) ? size_t{unitsOf(word)} * unitBytes : 0;
    damages.push_back({what, collection_, segment.place.offset(), slot, block});
    unfit_.push_back({first, segment.place.offset() + slot * sizeof(uint64_t)});
  };
  items_.clear();
  for (size_t slot = 0; slot < segment.place.words(); ++slot) {
    const uint64_t word = pen_->load(segment.place.offset() + slot * sizeof(uint64_t));
    segment.sums.change(slot, emptyWord, word);
    if (isLive(word)) {
      items_.push_back({0, word, static_cast<uint32_t>(slot), false});
    } else if (word == tombstone) {
      ++segment.dead;
    } else if (word != emptyWord) {
      unfit(slot, word, "index word damaged");
    }
  }
  for (size_t i = 0; i < items_.size(); ++i) {
    if (i + gatherAhead < items_.size()) {
      prefetchBlock(pen_->bytes(size_t{unitsOf(items_[i + gatherAhead].word)} * unitBytes));
    }
    if (const char* what = whyUnfit(items_[i].word, items_[i].slot, first)) {
      unfit(items_[i].slot, items_[i].word, what);
    } else {
      ++segment.live;
      noteIfInReserve(unitsOf(items_[i].word));
    }
  }
}

// nullptr: the word leads to a sound record that belongs here, of which the piece is now taken.
template <class Stores>
const char* Index<Stores>::whyUnfit(uint64_t word, size_t slot, size_t first) const {
  if (const char* const what = whyUnsound(word, slot, first)) {
    return what;
  }
  const size_t bytes = 8 * headAt(unitsOf(word))->words();
  return pen_->allocator().take(size_t{unitsOf(word)} * unitBytes, bytes) ? nullptr : "block where something else is";
}

// nullptr: the word leads to a sound record that belongs here.
template <class Stores>
const char* Index<Stores>::whyUnsound(uint64_t word, size_t slot, size_t first) const {
  const Place segment = directory_[first].place;
  const uint32_t units = unitsOf(word);
  const std::optional<BlockHead> head = headAt(units);
  if (!head) {
    return "block damaged or outside the region";
  }
  if (!isIntact(units, *head)) {
    return "checksum differs";
  }
  const uint64_t hash = hash_(keyAt(units, *head));
  if (Spot(hash).fingerprint() != fingerprintOf(word) ||
      prefixOf(hash, segment.depth) != first >> (depth_ - segment.depth)) {
    return "index word names another key's block";
  }
  return isReachable(hash, slot, segment) ? nullptr : "index word out of its key's way";
}

// Whether a search for the hash comes to the slot.
template <class Stores>
bool Index<Stores>::isReachable(uint64_t hash, size_t slot, const Place& segment) const {
  const size_t buckets = segment.words() / bucketWords;
  for (size_t at = Spot(hash).bucket(buckets); at != slot / bucketWords; at = (at + 1) & (buckets - 1)) {
    if (hasEmptyWord(pen_->words(segment.offset() + at * lineBytes))) {
      return false;
    }
  }
  return true;
}

// Words first, so that what they named is not used again before. Throws NoSpace when a segment is missing and cannot
// be had.
template <class Stores>
void Index<Stores>::repair() {
  for (const Unfit& unfit : unfit_) {
    const uint64_t vacancy = vacancyAt(unfit.at);
    storeWord(directory_[unfit.first], unfit.at, vacancy);
    directory_[unfit.first].dead += vacancy == tombstone ? 1 : 0;
  }
  unfit_.clear();
  const auto nameAt = [this](size_t i) {
    const size_t at = descriptor_.offset() + i * sizeof(uint64_t);
    if (pen_->load(at) != directory_[i].place.word()) {
      pen_->store(at, directory_[i].place.word());
    }
  };
  const auto isMissing = [](const Segment& segment) { return segment.place.units == 0; };
  for (size_t i = 0; i < directory_.size(); ++i) {
    if (!isMissing(directory_[i])) {
      nameAt(i);
    }
  }
  items_.clear();
  for (size_t i = 0; i < directory_.size(); ++i) {
    if (isMissing(directory_[i])) {
      const Image empty = imageOf(hashAt(i), depth_, 0);
      Claim<Stores> claim(*pen_, empty.bytes());
      directory_[i] = write(claim, empty);
      ++segmentsAt_[depth_];
      nameAt(i);
    }
  }
}

}  // namespace Memtab
