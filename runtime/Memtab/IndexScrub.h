// Scrubbing a segment: the words that lead to it, its own words, and the records that they lead to.
//
// Directory words are compared with the writer's directory and stored again. Index words are compared with their sums;
// one that differs is stored as it was, so a lost record is found again and a word that led to another record of the
// key does so no more. A record is sound when its checksum is right, it is the record of a key of this fingerprint and
// segment, a search for the key finds it, and its bytes are in use.
#pragma once

#include <algorithm>

#include "runtime/Memtab/Index.h"
#include "runtime/Memtab/Scrub.h"

namespace Memtab {

template <class Stores>
uint64_t Index<Stores>::scrub(uint64_t hash, ScrubVisitor& visitor, ScrubReport& report) {
  report.collection = collection_;
  if (directory_.empty()) {
    return ~uint64_t{0};
  }
  const size_t first = firstOf(hash);
  report.firstHash = hashAt(first);
  report.lastHash = lastHashOf(report.firstHash, directory_[first].place.depth);
  if (repairedEarlier_ != nullptr) {
    report.repaired = std::move(repairedEarlier_->repaired);
    report.hasRepairedIndex = !report.repaired.empty();
    report.beyondRepair = repairedEarlier_->beyondRepair;
    repairedEarlier_.reset();
  }
  scrubDirectory(first, report);
  scrubWords(first, report);
  scrubBlocks(first, visitor, report);
  return report.lastHash;
}

// Before the words of a segment are copied to another one, where damaged ones would count as right.
template <class Stores>
void Index<Stores>::repairWords(size_t first) {
  ScrubReport report;
  scrubWords(first, report);
  if (report.beyondRepair == nullptr && report.repaired.empty()) {
    return;
  }
  if (repairedEarlier_ == nullptr) {
    repairedEarlier_ = std::make_unique<ScrubReport>();
  }
  repairedEarlier_->beyondRepair =
      report.beyondRepair != nullptr ? report.beyondRepair : repairedEarlier_->beyondRepair;
  std::move(report.repaired.begin(), report.repaired.end(), std::back_inserter(repairedEarlier_->repaired));
}

template <class Stores>
void Index<Stores>::scrubDirectory(size_t first, ScrubReport& report) {
  const Place segment = directory_[first].place;
  for (size_t i = first; i < first + (size_t{1} << (depth_ - segment.depth)); ++i) {
    const size_t at = descriptor_.offset() + i * sizeof(uint64_t);
    if (pen_->load(at) != segment.word()) {
      pen_->store(at, segment.word());
      report.repaired.push_back({{"directory word damaged", collection_, at, 0, 0}});
    }
  }
}

template <class Stores>
void Index<Stores>::scrubWords(size_t first, ScrubReport& report) {
  Segment& segment = directory_[first];
  const Word* const words = pen_->words(segment.place.offset());
  WordSums sums;
  for (size_t slot = 0; slot < segment.place.words(); ++slot) {
    sums.change(slot, emptyWord, words[slot].load(std::memory_order_relaxed));
  }
  for (size_t column = 0; column < bucketWords; ++column) {
    if (sums.column(column) != segment.sums.column(column) && !putBack(first, column, sums.column(column), report)) {
      report.beyondRepair = "several index words of one segment are damaged";
    }
  }
}

// False: no single word of the column explains the difference. If the writer has stored a word over the damaged one,
// all words are right and the sums are wrong.
template <class Stores>
bool Index<Stores>::putBack(size_t first, size_t column, const WordSums::Column& found, ScrubReport& report) {
  Segment& segment = directory_[first];
  for (size_t slot = column; slot < segment.place.words(); slot += bucketWords) {
    const size_t at = segment.place.offset() + slot * sizeof(uint64_t);
    const uint64_t word = pen_->load(at);
    const std::optional<uint64_t> former = segment.sums.formerWord(slot, word, found);
    if (!former) {
      continue;
    }
    ScrubFinding finding{{"index word damaged", collection_, segment.place.offset(), slot, 0}};
    pen_->store(at, *former);
    if (isLive(*former)) {
      const Bytes key = keyOf(*former, slot, first);
      finding.key.assign(key.begin(), key.end());
      removeSuperseded(first, slot);
    }
    report.repaired.push_back(std::move(finding));
    report.hasRepairedIndex = true;
    return true;
  }
  for (size_t slot = column; slot < segment.place.words(); slot += bucketWords) {
    const uint64_t word = pen_->load(segment.place.offset() + slot * sizeof(uint64_t));
    if (isLive(word) ? whyDamaged(word, slot, first) != nullptr : word != emptyWord && word != tombstone) {
      return false;
    }
  }
  segment.sums.columnIs(column, found);
  report.repaired.push_back({{"index words damaged", collection_, segment.place.offset(), column, 0}});
  report.hasRepairedIndex = true;
  return true;
}

// While a word was damaged its key may have been put again, elsewhere: that record is the newer one.
template <class Stores>
void Index<Stores>::removeSuperseded(size_t first, size_t slot) {
  Segment& segment = directory_[first];
  const size_t at = segment.place.offset() + slot * sizeof(uint64_t);
  const uint64_t word = pen_->load(at);
  const Bytes key = keyOf(word, slot, first);
  for (size_t i = 0; i < segment.place.words(); ++i) {
    const uint64_t other = pen_->load(segment.place.offset() + i * sizeof(uint64_t));
    if (i != slot && fingerprintOf(other) == fingerprintOf(word) && !key.empty() &&
        isSameKey(key, keyOf(other, i, first))) {
      const uint64_t vacancy = vacancyAt(at);
      storeWord(segment, at, vacancy);
      segment.dead += vacancy == tombstone ? 1 : 0;
      --segment.live;
      --live_;
      releaseBlock(word);
      return;
    }
  }
}

// The key of the block that a word names; empty when it is unknown.
template <class Stores>
Bytes Index<Stores>::keyOf(uint64_t word, size_t slot, size_t first) const {
  const std::optional<BlockHead> head = headAt(unitsOf(word));
  if (!head) {
    return {};
  }
  const Bytes key = keyAt(unitsOf(word), *head);
  const uint64_t hash = hash_(key);
  const Place segment = directory_[first].place;
  const bool isItsKey = Spot(hash).fingerprint() == fingerprintOf(word) &&
                        prefixOf(hash, segment.depth) == first >> (depth_ - segment.depth) &&
                        isReachable(hash, slot, segment);
  return isItsKey ? key : Bytes();
}

template <class Stores>
void Index<Stores>::scrubBlocks(size_t first, ScrubVisitor& visitor, ScrubReport& report) {
  const Segment& segment = directory_[first];
  items_.clear();
  for (size_t slot = 0; slot < segment.place.words(); ++slot) {
    const uint64_t word = pen_->load(segment.place.offset() + slot * sizeof(uint64_t));
    if (isLive(word)) {
      items_.push_back({0, word, static_cast<uint32_t>(slot), false});
    }
  }
  if (items_.size() != segment.live && report.beyondRepair == nullptr) {
    report.beyondRepair = "a segment has another number of records than were put there";
  }
  constexpr size_t ahead = 12;
  for (size_t i = 0; i < items_.size(); ++i) {
    if (i + ahead < items_.size()) {
      prefetchBlock(pen_->bytes(size_t{unitsOf(items_[i + ahead].word)} * unitBytes));
    }
    const auto& [hash, word, slot, isLost] = items_[i];
    const size_t block = size_t{unitsOf(word)} * unitBytes;
    if (const char* const what = whyDamaged(word, slot, first)) {
      const Bytes key = keyOf(word, slot, first);
      report.damaged.push_back({{what, collection_, segment.place.offset(), slot, block}, {key.begin(), key.end()}});
      continue;
    }
    const BlockHead head = *headAt(unitsOf(word));
    visitor.visit(collection_, keyAt(unitsOf(word), head),
                  {pen_->bytes(block) + head.recordAt(), head.length - head.recordAt()});
    ++report.entries;
  }
}

template <class Stores>
const char* Index<Stores>::whyDamaged(uint64_t word, size_t slot, size_t first) const {
  if (const char* const what = whyUnsound(word, slot, first)) {
    return what;
  }
  const size_t block = size_t{unitsOf(word)} * unitBytes;
  const bool isInUse = !pen_->allocator().isFree(block, block + unitBytes);
  return isInUse ? nullptr : "index word names a record that was replaced";
}

template <class Stores>
bool Index<Stores>::dropDamaged(const Damage& damage) {
  const auto present = std::find_if(directory_.begin(), directory_.end(), [&damage](const Segment& segment) {
    return segment.place.offset() == damage.segment;
  });
  if (present == directory_.end()) {
    return false;
  }
  const size_t at = damage.segment + damage.slot * sizeof(uint64_t);
  const uint64_t word = pen_->load(at);
  const bool isSame = isLive(word) && size_t{unitsOf(word)} * unitBytes == damage.block;
  if (!isSame || whyDamaged(word, damage.slot, static_cast<size_t>(present - directory_.begin())) == nullptr) {
    return false;
  }
  const uint64_t vacancy = vacancyAt(at);
  storeWord(*present, at, vacancy);
  present->dead += vacancy == tombstone ? 1 : 0;
  --present->live;
  --live_;
  return true;
}

}  // namespace Memtab
