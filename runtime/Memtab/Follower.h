// Follower: tells a reader which keys of a collection changed since it looked last, by keeping, for every key, which
// version of its record it knows.
//
//   sequence moved ──▶ keys of the ring's new slots ─────────────────────────┐
//   overtaken, another writer, ──▶ all index words against the known ones, ──┴──▶ examine(key): look-up, compare,
//   another file                   segment by segment: keys that differ             report if it is news
//
// The few changes made last are examined before all others, so that one change does not wait for the bulk before it.
//
// The ring and the comparison only say which keys to examine; the look-up decides, so a key that changed three times
// is reported once and one that is as it was not at all. The comparison reads the blocks of differing words alone.
//
// Why nothing is missed: the sequence is read first. What was complete then is in the words that the comparison loads
// afterwards; what comes later is in the ring behind that sequence number, or leads to another comparison. A word's
// generation is the low 16 bits of the number of its change: a word that could have been stored again since the last
// look, with the same generation, is compared by the head of its block (checksum and length) too.
//
// Who is told also reads by itself, and then sees what it will only be told of: a record that is deleted again before
// it was examined, or one that cannot be read. handleRead() keeps in mind that the key must be reported, whatever it is
// found to be.
//
// What cannot be read is reported as damage and what is known of it is kept: an unreadable table is never an empty one.
// Nor is one that was complete and is being filled anew: what is missing in a comparison then, its successor may only
// have taken out as unreadable. It counts as deleted when the table is complete again. Deletions in the ring count at
// once.
//
// Requires: the upper half of the collection's hash is Zol::hashOf(key). One thread; the Reader must outlive it.
#pragma once

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "runtime/Memtab/WordWalk.h"
#include "runtime/Zol/Bytes.h"
#include "runtime/Zol/HashCollection.h"

namespace Memtab {

template <class Key>
class Follower {
 public:
  // Knows nothing yet: all that stands is news.
  Follower(const Reader& reader, unsigned collection)
      : reader_(&reader), collection_(collection), walk_(reader, collection) {
    beginComparison();
  }
  Follower(const Follower&) = delete;
  Follower& operator=(const Follower&) = delete;

  // Takes the present records for known. It ends after one walk over the table, however fast a writer changes it.
  // poll() reports the changes to the part already walked. onDamage(const Damage&): see poll().
  template <class D>
  void prime(D&& onDamage) {
    const uint64_t first = comparisons_;
    while (comparison_ && comparisons_ == first &&
           poll(
               primeAtOnce, [](const Key&) {}, onDamage)) {
    }
  }

  // Calls f(key) for each key of which the record was added, replaced or deleted since it was reported last, and
  // onDamage(const Damage&) for what cannot be read. Examines about keysMax keys. Whether there is more to do now.
  // Nothing to do costs two loads. f may look things up; what it throws leaves its key reported.
  template <class F, class D>
  bool poll(size_t keysMax, F&& f, D&& onDamage);

  // The table is in another file now, or was made anew: what differs from what is known is news. O(known keys).
  // reader: of the same collections; the old one is no longer used.
  void rebind(const Reader& reader) {
    reader_ = &reader;
    walk_ = WordWalk(reader, collection_);
    forgetWords();
    beginComparison();
  }

  // Who is told of changes has looked the key up.
  void handleRead(const Key& key, Found found) {
    const bool isAhead = found == Found::found && (isBehind() || reader_->intent() != sequence_);
    if (found == Found::found ? isAhead && !known_.has(key) : known_.has(key)) {
      known_.insertOrAssign(key, Known());
    }
  }
  // Who is told of changes has walked the table, and had to leave something out.
  void handleUnread() { isDoubted_ = true; }

  // Whether poll() has something to do. Three loads when it has not.
  bool isBehind() const {
    wasComplete_ = wasComplete_ || reader_->ready();
    return comparison_ || nextCandidate_ != candidates_.size() || !again_.empty() || reader_->sequence() != sequence_ ||
           reader_->epoch() != epoch_ || (isOwed_ && reader_->ready());
  }
  // Whether the key's absence says nothing, as the table is being filled anew.
  bool withholds(const Key& key) const { return isRefilled() && known_.has(key); }
  // Up to which all changes have been reported. Lags behind while poll() has more to do.
  uint64_t sequence() const {
    if (nextCandidate_ == candidates_.size() && again_.empty()) {
      reported_ = sequence_;
    }
    return reported_;
  }
  bool knows(const Key& key) const { return known_.has(key); }
  size_t knownKeys() const { return known_.size(); }
  // How often all index words were compared, the first look included.
  uint64_t comparisons() const { return comparisons_; }

 private:
  static constexpr size_t segmentCost = 64;  // in examined keys: how long it takes to compare a segment without news
  static constexpr size_t primeAtOnce = 1024;
  static constexpr size_t prefetchAhead = 16;
  static constexpr uint64_t latestMax = 8;  // changes that are examined out of turn

  // Which record is known: the version that its index word tells, and its block's length and checksum. Known() is no
  // record's: whatever is found is news.
  struct Known {
    uint32_t units = 0;  // 0: the word is of another file and proves nothing
    uint32_t checksum = 0;
    uint16_t generation = 0;
    uint16_t fingerprint = 0;
    uint32_t length = 0;

    static Known of(uint64_t word, uint64_t head) {
      const BlockHead block = BlockHead::of(head);
      return {unitsOf(word), block.checksum, generationOf(word), static_cast<uint16_t>(fingerprintOf(word)),
              block.length};
    }
    static uint16_t generationOf(uint64_t word) { return static_cast<uint16_t>(word >> 32); }
    bool hasContentOf(const Known& other) const { return checksum == other.checksum && length == other.length; }
    // A block that moved keeps its generation.
    bool isVersionOf(const Known& other) const {
      return hasContentOf(other) && (generation == other.generation || units == 0 || other.units == 0);
    }
  };
  struct Comparison {
    uint64_t sequence;         // which it brings us to
    std::optional<Key> known;  // the first known key that was not compared yet
    uint64_t hash = 0;         // where the next segment is
    bool isLossy = false;      // records may be missing that were not deleted: nothing missing counts as deleted
    bool isOver = false;
  };
  using Candidate = std::pair<uint32_t, Key>;  // with its hash, so that they are examined in the table's order

  bool isRefilled() const { return wasComplete_ && !reader_->ready(); }
  void beginComparison();
  void forgetWords();
  template <class F, class D>
  void examineLatest(uint64_t target, F&& f, D&& onDamage);
  template <class D>
  bool takeFromRing(D&& onDamage);
  template <class D>
  bool compareSegment(D&& onDamage);
  template <class V>
  void visitKnown(uint32_t lastHash, V&& visit);
  void matchKnown(uint32_t lastHash);
  void indexEntries();
  size_t entryOf(uint32_t units) const;
  bool isStanding(const WordWalk::Entry& entry, const Known& known) const;
  template <class D>
  bool addUnmatched(D&& onDamage);
  template <class D>
  std::optional<Key> decoded(Bytes bytes, D&& onDamage) const;
  template <class D>
  bool examine(const Key& key, D&& onDamage);

  const Reader* reader_;
  unsigned collection_;
  Zol::HashCollection<Key, Known> known_;
  uint64_t sequence_ = 0;          // all changes up to it were examined
  uint64_t latest_ = 0;            // up to which changes were examined out of turn, or left to their turn
  mutable uint64_t reported_ = 0;  // as sequence() said last
  uint64_t epoch_ = 0;
  std::optional<Comparison> comparison_;
  uint64_t comparisons_ = 0;
  std::vector<Candidate> candidates_;
  size_t nextCandidate_ = 0;
  std::vector<Key> again_;  // keys that changed too fast to be read
  mutable bool wasComplete_ = false;
  bool isOwed_ = false;     // a comparison when the table is complete again
  bool isDoubted_ = false;  // what is known may not have been read by all
  Zol::ByteWriter encoded_;

  WordWalk walk_;
  std::vector<uint32_t> entryAt_;  // hash table: units -> entry + 1
  std::vector<bool> isMatched_;    // by entry
};

template <class Key>
void Follower<Key>::beginComparison() {
  ++comparisons_;
  latest_ = 0;
  epoch_ = reader_->epoch();
  comparison_.emplace(Comparison{reader_->sequence(), std::nullopt});
  comparison_->isLossy = reader_->hasLostEntries(collection_) || reader_->hiddenPart(collection_) != nullptr;
  if (const auto first = std::as_const(known_).begin()) {
    comparison_->known = first.key();
  }
}

template <class Key>
void Follower<Key>::forgetWords() {
  for (auto at = known_.begin(); at; ++at) {
    if (isDoubted_) {
      at.value() = Known();
    }
    at.value().units = 0;
  }
  isDoubted_ = false;
}

template <class Key>
template <class F, class D>
bool Follower<Key>::poll(size_t keysMax, F&& f, D&& onDamage) {
  uint64_t target = reader_->sequence();
  if (!isBehind()) {
    return false;
  }
  examineLatest(target, f, onDamage);
  for (const Key& key : std::exchange(again_, {})) {
    candidates_.emplace_back(Zol::hashOf(key), key);
  }
  for (size_t cost = 0; cost < keysMax;) {
    if (nextCandidate_ < candidates_.size()) {
      const Key key = candidates_[nextCandidate_++].second;
      ++cost;
      if (examine(key, onDamage)) {
        f(key);
      }
      continue;
    }
    candidates_.clear();
    nextCandidate_ = 0;
    if (comparison_) {
      if (!compareSegment(onDamage)) {
        return true;
      }
      target = std::max(target, sequence_);
      cost += std::min(segmentCost, keysMax - cost);
    } else if (reader_->epoch() != epoch_ || target < sequence_) {
      if (target < sequence_) {
        forgetWords();  // not the history that we know
      }
      beginComparison();
    } else if (target == sequence_ && isOwed_ && reader_->ready()) {
      isOwed_ = false;
      beginComparison();
    } else if (target == sequence_) {
      return isBehind();
    } else if (!takeFromRing(onDamage)) {
      beginComparison();
    }
  }
  return true;
}

// Their turn comes all the same, and finds no news.
template <class Key>
template <class F, class D>
void Follower<Key>::examineLatest(uint64_t target, F&& f, D&& onDamage) {
  if (!comparison_ && target - sequence_ <= latestMax) {
    return;
  }
  uint64_t at = std::max({sequence_, latest_, target - std::min(target, latestMax)});
  latest_ = target;
  Change change;
  while (at < target && reader_->change(++at, change)) {
    if (change.collection != collection_ || !change.isWhole()) {
      continue;
    }
    const std::optional<Key> key = decoded(change.key(), onDamage);
    if (key && examine(*key, onDamage)) {
      f(*key);
    }
  }
}

// The key of the next change becomes the candidate. False: the ring does not tell it.
template <class Key>
template <class D>
bool Follower<Key>::takeFromRing(D&& onDamage) {
  Change change;
  if (!reader_->change(sequence_ + 1, change) || (change.collection == collection_ && !change.isWhole())) {
    return false;
  }
  ++sequence_;
  if (change.collection == collection_) {
    if (const std::optional<Key> key = decoded(change.key(), onDamage)) {
      candidates_.emplace_back(0, *key);
    }
  }
  return true;
}

// Finds the candidates of the next segment. False: the writer was too fast, try again later.
template <class Key>
template <class D>
bool Follower<Key>::compareSegment(D&& onDamage) {
  if (comparison_->isOver) {
    sequence_ = comparison_->sequence;
    comparison_.reset();
    return true;
  }
  const WordWalk::Step step = walk_.take(comparison_->hash);
  if (step == WordWalk::Step::busy) {
    return false;
  }
  const auto lastHash = static_cast<uint32_t>(walk_.lastHash() >> 32);
  if (step == WordWalk::Step::damaged) {
    onDamage(walk_.damage());
    visitKnown(lastHash, [](uint32_t, const Key&, const Known&) {});
  } else {
    const std::optional<Key> firstKnown = comparison_->known;
    indexEntries();
    matchKnown(lastHash);
    if (!addUnmatched(onDamage)) {
      comparison_->known = firstKnown;
      candidates_.clear();
      return true;  // the same place once more
    }
    std::sort(candidates_.begin(), candidates_.end());
    candidates_.erase(std::unique(candidates_.begin(), candidates_.end()), candidates_.end());
  }
  comparison_->isOver = walk_.lastHash() == ~uint64_t{0};
  comparison_->hash = walk_.lastHash() + 1;
  return true;
}

template <class Key>
void Follower<Key>::indexEntries() {
  const auto& entries = walk_.entries();
  entryAt_.assign(std::bit_ceil(2 * entries.size() + 2), 0);
  isMatched_.assign(entries.size(), false);
  for (uint32_t i = 0; i < entries.size(); ++i) {
    size_t at = unitsOf(entries[i].word) * 0x9E37'79B1u & (entryAt_.size() - 1);
    while (entryAt_[at] != 0) {
      at = (at + 1) & (entryAt_.size() - 1);
    }
    entryAt_[at] = i + 1;
  }
}

// The entry that names these units, or the number of entries.
template <class Key>
size_t Follower<Key>::entryOf(uint32_t units) const {
  const auto& entries = walk_.entries();
  for (size_t at = units * 0x9E37'79B1u & (entryAt_.size() - 1); entryAt_[at] != 0;
       at = (at + 1) & (entryAt_.size() - 1)) {
    if (unitsOf(entries[entryAt_[at] - 1].word) == units) {
      return entryAt_[at] - 1;
    }
  }
  return entries.size();
}

// Whether the entry surely names the version that is known.
template <class Key>
bool Follower<Key>::isStanding(const WordWalk::Entry& entry, const Known& known) const {
  // Where a deleted record was, another one of the same generation may have been moved to: the fingerprint tells.
  if (known.units == 0 || Known::generationOf(entry.word) != known.generation ||
      fingerprintOf(entry.word) != known.fingerprint) {
    return false;
  }
  // Any change behind sequence_ may have stored the same generation anew.
  const auto first = static_cast<uint16_t>(sequence_ + 1);
  if (static_cast<uint16_t>(known.generation - first) >= comparison_->sequence - sequence_) {
    return true;
  }
  const uint64_t head = walk_.head(entry);
  return head != 0 && known.hasContentOf(Known::of(entry.word, head));
}

// Visits the known keys that come next, with hashes up to lastHash.
template <class Key>
template <class V>
void Follower<Key>::visitKnown(uint32_t lastHash, V&& visit) {
  if (!comparison_->known) {
    return;
  }
  auto at = std::as_const(known_).from(*comparison_->known);
  for (; at; ++at) {
    const uint32_t hash = Zol::hashOf(at.key());
    if (hash > lastHash) {
      comparison_->known = at.key();
      return;
    }
    visit(hash, at.key(), at.value());
  }
  comparison_->known.reset();
}

// Known keys of this segment's hashes that no entry matches are candidates: replaced or deleted.
template <class Key>
void Follower<Key>::matchKnown(uint32_t lastHash) {
  const auto& entries = walk_.entries();
  visitKnown(lastHash, [&](uint32_t hash, const Key& key, const Known& known) {
    const size_t i = entryOf(known.units);
    if (i < entries.size() && isStanding(entries[i], known)) {
      isMatched_[i] = true;
    } else {
      candidates_.emplace_back(hash, key);
    }
  });
}

// So are the keys of entries that no known key matches: added or replaced. False: the segment was split or merged
// meanwhile, which the ring does not tell.
template <class Key>
template <class D>
bool Follower<Key>::addUnmatched(D&& onDamage) {
  auto& entries = walk_.entries();
  for (size_t i = 0; i < entries.size(); ++i) {
    if (i + prefetchAhead < entries.size() && !isMatched_[i + prefetchAhead]) {
      walk_.prefetch(entries[i + prefetchAhead]);
    }
    Bytes bytes;
    const WordWalk::KeyStep step = isMatched_[i] ? WordWalk::KeyStep::gone : walk_.key(entries[i], bytes);
    if (step == WordWalk::KeyStep::moved) {
      return false;
    }
    if (step == WordWalk::KeyStep::damaged) {
      onDamage(walk_.damage());
    } else if (step == WordWalk::KeyStep::key) {
      if (const std::optional<Key> key = decoded(bytes, onDamage)) {
        candidates_.emplace_back(Zol::hashOf(*key), *key);
      }
    }
  }
  return true;
}

template <class Key>
template <class D>
std::optional<Key> Follower<Key>::decoded(Bytes bytes, D&& onDamage) const {
  Zol::ByteReader in(bytes);
  Key key{};
  decodeValue(in, key);
  if (!in.ok() || in.remaining() != 0) {
    onDamage(Damage{"a key that is none of this table", collection_, 0, 0, 0});
    return std::nullopt;
  }
  return key;
}

// Looks the key up and keeps what is found. Whether it is news.
template <class Key>
template <class D>
bool Follower<Key>::examine(const Key& key, D&& onDamage) {
  encoded_.clear();
  encodeValue(encoded_, key);
  const Bytes bytes = encoded_.written();
  const Lookup found = reader_->get(collection_, reader_->hashOf(collection_, bytes), bytes);
  switch (found.state) {
    case Found::absent:
      if (comparison_ && comparison_->isLossy && known_.has(key)) {
        onDamage(Damage{"a record that was not deleted is gone from the index", collection_, 0, 0, 0});
        return false;
      }
      if (comparison_ && withholds(key)) {
        isOwed_ = true;
        return false;
      }
      return known_.erase(key);
    case Found::damaged:
      onDamage(found.damage);
      return false;
    case Found::recovering:
      again_.push_back(key);
      return false;
    case Found::found:
      break;
  }
  const Known now = Known::of(found.word, found.head);
  const auto [known, isNew] = known_.insert(key, now);
  const bool isNews = isNew || !known->isVersionOf(now);
  *known = now;
  return isNews;
}

}  // namespace Memtab
