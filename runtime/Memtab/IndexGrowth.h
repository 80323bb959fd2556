// Growth and shrinking, one segment (two when merging) at a time.
//
//   split   directory  A A A A     new segments B, C are filled aside; then       B A A A,  B B A A,  B B C A,  B B C C
//   merge   directory  B B C C     new segment A is filled aside; then            A B C C,  ...               A A A A
//
// Until the last store, the old segments still hold everything and the writer adds nothing, so readers are answered
// rightly on either way. If the writer dies in between, the words of one prefix differ in depth and the segment of
// the smallest depth holds all that the others hold: its name is what all of them should say. A split is
// thereby taken back, a merge completed. A rebuilt segment (larger, smaller, or rid of tombstones) goes the same way
// with one depth. The directory itself is doubled or halved aside and published by the store of its descriptor.
//
// Hashes need not be uniform. Where splitting would cost more directory than it is worth, the segment is rebuilt
// larger.
#pragma once

#include <algorithm>
#include <bit>

#include "runtime/Memtab/Index.h"

namespace Memtab {

inline constexpr unsigned segmentLog2Min = 6;
inline constexpr unsigned segmentLog2Max = 9;  // of uniform hashes
inline constexpr size_t mergeBelow = (size_t{1} << segmentLog2Max) / 8;
inline constexpr size_t entriesPerDirectoryWordMin = 16;
inline constexpr size_t gatherAhead = 12;

// The size for a segment of so many words: filled to 5/8 at most, unless it is one that cannot be split further.
template <class Stores>
unsigned Index<Stores>::sizeFor(size_t live) {
  unsigned log2 = segmentLog2Min;
  while (log2 < segmentLog2Max && live * 8 > size_t{5} << log2) {
    ++log2;
  }
  while (live * 8 > size_t{7} << log2) {
    ++log2;
  }
  return log2;
}

// The first segment, and a directory of one word.
template <class Stores>
void Index<Stores>::createSegment() {
  items_.clear();
  const Image empty = imageOf(0, 0, 0);
  Claim<Stores> segment(*pen_, empty.bytes());
  Claim<Stores> directory(*pen_, sizeof(uint64_t));
  directoryIs(directory, {write(segment, empty)}, 0);
  segmentsAt_[0] = 1;
}

// Makes room near hash. Called again if that was not enough: each call at least spreads the segment's words wider.
template <class Stores>
void Index<Stores>::grow(uint64_t hash) {
  const Segment segment = segmentOf(hash);
  const unsigned log2 = segment.place.sizeLog2;
  if (segment.dead != 0 && (segment.live + 1) * 8 <= segment.place.words() * 5) {
    rebuild(hash, log2);  // tombstones were the trouble
  } else if (log2 >= segmentLog2Max && (segment.place.depth < depth_ || mayDouble())) {
    split(hash);
  } else {
    rebuild(hash, log2 + 1);
  }
}

template <class Stores>
bool Index<Stores>::mayDouble() const {
  return depth_ + 1 < placeBitsMax && entriesPerDirectoryWordMin << (depth_ + 1) <= live_;
}

// Adds the words of the segment of hash to items_, with the hashes of the keys they lead to.
template <class Stores>
void Index<Stores>::gather(uint64_t hash) {
  repairWords(firstOf(hash));
  const Place segment = segmentOf(hash).place;
  const size_t first = items_.size();
  for (size_t slot = 0; slot < segment.words(); ++slot) {
    const uint64_t word = pen_->load(segment.offset() + slot * sizeof(uint64_t));
    if (isLive(word)) {
      items_.push_back({0, word, static_cast<uint32_t>(slot), true});
    }
  }
  for (size_t i = first; i < items_.size(); ++i) {
    if (i + gatherAhead < items_.size()) {
      __builtin_prefetch(pen_->bytes(size_t{unitsOf(items_[i + gatherAhead].word)} * unitBytes));
    }
    Item& item = items_[i];
    if (const std::optional<BlockHead> head = headAt(unitsOf(item.word))) {
      item.hash = hash_(keyAt(unitsOf(item.word), *head));
      item.isLost = Spot(item.hash).fingerprint() != fingerprintOf(item.word) ||
                    prefixOf(item.hash, segment.depth) != prefixOf(hash, segment.depth);
    }
  }
}

// A segment of those items_ that share the upper depth bits with hash, and of the lost ones.
template <class Stores>
auto Index<Stores>::imageOf(uint64_t hash, unsigned depth, unsigned sizeLog2Least) const -> Image {
  const auto belongs = [&](const Item& item) {
    return item.isLost || prefixOf(item.hash, depth) == prefixOf(hash, depth);
  };
  Image image{{}, depth, static_cast<uint32_t>(std::count_if(items_.begin(), items_.end(), belongs))};
  image.words.resize(size_t{1} << std::max(sizeFor(image.live), sizeLog2Least));
  const size_t buckets = image.words.size() / bucketWords;
  for (const Item& item : items_) {
    if (belongs(item)) {
      const size_t bucket = item.isLost ? item.slot / bucketWords & (buckets - 1) : Spot(item.hash).bucket(buckets);
      size_t at = bucket * bucketWords;
      while (image.words[at] != emptyWord) {
        at = (at + 1) & (image.words.size() - 1);
      }
      image.words[at] = item.word;
    }
  }
  return image;
}

template <class Stores>
auto Index<Stores>::write(Claim<Stores>& to, const Image& image) -> Segment {
  pen_->storeAll(to.offset(), image.words);
  const auto log2 = static_cast<uint8_t>(std::countr_zero(image.words.size()));
  WordSums sums;
  for (size_t slot = 0; slot < image.words.size(); ++slot) {
    sums.change(slot, emptyWord, image.words[slot]);
  }
  return {{to.keep(), pen_->nextPlaceGeneration(), static_cast<uint8_t>(image.depth), log2}, image.live, 0, sums};
}

// Makes all directory words of a prefix, from first on, name segment. Its records are counted again: damage may have
// hidden some of those that its predecessor had, or made up others.
template <class Stores>
void Index<Stores>::name(size_t first, const Segment& segment) {
  ++layout_;
  for (size_t i = first; i < first + (size_t{1} << (depth_ - segment.place.depth)); ++i) {
    pen_->store(descriptor_.offset() + i * sizeof(uint64_t), segment.place.word());
    directory_[i] = segment;
  }
  ++segmentsAt_[segment.place.depth];
  live_ += segment.live;
}

template <class Stores>
void Index<Stores>::drop(const Segment& segment) {
  --segmentsAt_[segment.place.depth];
  live_ -= segment.live;
  pen_->release(segment.place.units, segment.place.bytes());
}

// The same keys in a segment of at least this size, without tombstones.
template <class Stores>
void Index<Stores>::rebuild(uint64_t hash, unsigned sizeLog2Least) {
  const size_t first = firstOf(hash);
  items_.clear();
  gather(hash);
  const Segment old = directory_[first];
  const Image image = imageOf(hash, old.place.depth, sizeLog2Least);
  Claim<Stores> claim(*pen_, image.bytes());
  name(first, write(claim, image));
  drop(old);
}

template <class Stores>
void Index<Stores>::split(uint64_t hash) {
  if (segmentOf(hash).place.depth == depth_) {
    doubleDirectory();
  }
  items_.clear();
  gather(hash);
  const size_t first = firstOf(hash);
  const Segment old = directory_[first];
  const unsigned depth = old.place.depth + 1u;
  const size_t second = first + (size_t{1} << (depth_ - depth));
  // Not smaller than half of it: keys that come in the order of their hashes leave one half empty, to fill it next.
  const Image left = imageOf(hashAt(first), depth, old.place.sizeLog2 - 1u);
  const Image right = imageOf(hashAt(second), depth, old.place.sizeLog2 - 1u);
  Claim<Stores> leftClaim(*pen_, left.bytes());
  Claim<Stores> rightClaim(*pen_, right.bytes());
  const Segment leftSegment = write(leftClaim, left);
  const Segment rightSegment = write(rightClaim, right);
  name(first, leftSegment);
  name(second, rightSegment);
  drop(old);
}

// Where the other half of what was once split begins, if it is one segment now.
template <class Stores>
std::optional<size_t> Index<Stores>::buddyOf(size_t first) const {
  const unsigned depth = directory_[first].place.depth;
  if (depth == 0) {
    return std::nullopt;
  }
  const size_t buddy = first ^ size_t { 1 } << (depth_ - depth);
  return directory_[buddy].place.depth == depth ? std::optional(buddy) : std::nullopt;
}

template <class Stores>
void Index<Stores>::merge(size_t first, size_t second) {
  items_.clear();
  gather(hashAt(first));
  gather(hashAt(second));
  const Segment old[] = {directory_[first], directory_[second]};
  const size_t start = std::min(first, second);
  const Image image = imageOf(hashAt(start), old[0].place.depth - 1u, 0);
  Claim<Stores> claim(*pen_, image.bytes());
  name(start, write(claim, image));
  drop(old[0]);
  drop(old[1]);
}

template <class Stores>
void Index<Stores>::tidy(uint64_t hash) {
  if (directory_.empty()) {
    return;
  }
  const size_t first = firstOf(hash);
  const Segment& segment = directory_[first];
  const std::optional<size_t> buddy = buddyOf(first);
  try {
    if (buddy && segment.live < mergeBelow && directory_[*buddy].live < mergeBelow) {
      merge(first, *buddy);
      while (depth_ > 0 && segmentsAt_[depth_] == 0) {
        halveDirectory();
      }
    } else if (segment.place.sizeLog2 > segmentLog2Min && segment.live * 8 < segment.place.words()) {
      rebuild(hash, 0);
    }
  } catch (const NoSpace&) {
    // Only a chance to use less was missed; the next delete here has it again.
  }
}

template <class Stores>
void Index<Stores>::doubleDirectory() {
  std::vector<Segment> doubled;
  doubled.reserve(directory_.size() * 2);
  for (const Segment& segment : directory_) {
    doubled.insert(doubled.end(), 2, segment);
  }
  Claim<Stores> claim(*pen_, doubled.size() * sizeof(uint64_t));
  directoryIs(claim, std::move(doubled), depth_ + 1);
}

template <class Stores>
void Index<Stores>::halveDirectory() {
  std::vector<Segment> halved(directory_.size() / 2);
  for (size_t i = 0; i < halved.size(); ++i) {
    halved[i] = directory_[2 * i];
  }
  Claim<Stores> claim(*pen_, halved.size() * sizeof(uint64_t));
  directoryIs(claim, std::move(halved), depth_ - 1);
}

template <class Stores>
void Index<Stores>::directoryIs(Claim<Stores>& claim, std::vector<Segment> directory, unsigned depth) {
  for (size_t i = 0; i < directory.size(); ++i) {
    pen_->store(claim.offset() + i * sizeof(uint64_t), directory[i].place.word());
  }
  const Place old = descriptor_;
  const auto narrow = static_cast<uint8_t>(depth);
  descriptor_ = {claim.keep(), pen_->nextPlaceGeneration(), narrow, narrow};
  pen_->store(descriptorAt(), descriptor_.word());
  ++layout_;
  if (old.units != 0) {
    pen_->release(old.units, old.bytes());
  }
  directory_ = std::move(directory);
  depth_ = depth;
}

}  // namespace Memtab
