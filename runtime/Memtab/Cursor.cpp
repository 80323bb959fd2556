// A step looks at the next entry of the snapshot (take()); when that has run out, at the next segment (nextSegment()).
// Both can find that the writer changed what they were reading: then the segment at hand is snapshot again.
#include "runtime/Memtab/Cursor.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <numeric>

#include "runtime/Memtab/ReaderSteps.h"

namespace Memtab {
namespace {

constexpr int triesMax = 1000;
constexpr size_t prefetchAhead = 24;      // blocks, of which the first line is asked for so many entries ahead
constexpr size_t prefetchBytesMax = 512;  // of a block; the CPU finds out the rest by itself
constexpr uint32_t evenMax = 12;          // entries at one proportional place

bool isLess(Bytes a, Bytes b) {
  const size_t common = std::min(a.size(), b.size());
  const int order = common == 0 ? 0 : std::memcmp(a.data(), b.data(), common);
  return order != 0 ? order < 0 : a.size() < b.size();
}

}  // namespace

Cursor::Cursor(const Reader& reader, unsigned collection) : reader_(&reader), collection_(collection) {}

void Cursor::seek(uint64_t hash, Bytes key) {
  uint64_t* to = buffers_[buffer_].room(key.size() / 8 + 1);
  std::copy(key.begin(), key.end(), reinterpret_cast<std::byte*>(to));
  last_ = {hash, buffers_[buffer_].bytes(0, key.size()), true};
  resumeHash_ = hash;
  isDone_ = false;
  isLossTold_ = false;
  entries_.clear();
  next_ = 0;
}

[[gnu::flatten]] Cursor::Step Cursor::next() {
  for (;;) {
    while (next_ < entries_.size()) {
      lookAhead();
      const Entry entry = entries_[next_++];
      const Taken taken = take(entry);
      if (taken == Taken::entry || taken == Taken::damaged) {
        tries_ = 0;
        return taken == Taken::entry ? Step::entry : Step::damaged;
      }
      if (taken == Taken::changed) {
        if (++tries_ > triesMax) {
          return giveUp(entry.hash);
        }
        resumeHash_ = std::max(last_.hash, entry.hash & ~(lastHashOf(0, chain_.segment().depth)));
        isDone_ = false;
        entries_.clear();
        next_ = 0;
      }
    }
    if (const Step step = nextSegment(); step != Step::entry) {
      return step;
    }
  }
}

// Whether the snapshot's segment is still the one for its hashes. A doubled directory does not change that.
bool Cursor::isCurrent(uint64_t hash) {
  if (chain_.isCurrent()) {
    return true;
  }
  const Reader::Chain now = reader_->walk(collection_, hash);
  if (now.slots != chain_.slots || now.directory != chain_.directory) {
    return false;
  }
  chain_ = now;
  return true;
}

bool Cursor::isPassed(uint64_t hash, Bytes key) const {
  if (hash != last_.hash) {
    return hash < last_.hash;
  }
  return last_.isInclusive ? isLess(key, last_.key) : !isLess(last_.key, key);
}

Cursor::Taken Cursor::take(const Entry& entry) {
  Buffer& buffer = buffers_[buffer_ ^ 1];
  BlockHead head{};
  const char* what = reader_->copyBlock(collection_, unitsOf(entry.word), buffer, head);
  if (chain_.slots[entry.slot].load(std::memory_order_acquire) != entry.word || !isCurrent(entry.hash)) {
    return Taken::changed;
  }
  if (what == nullptr && entry.isLost) {
    what = "index word names another key's block";
  }
  if (what != nullptr) {
    damage_ = {what, collection_, chain_.segment().offset(), entry.slot, size_t{unitsOf(entry.word)} * unitBytes};
    return Taken::damaged;
  }
  const Bytes key = buffer.bytes(sizeof(uint64_t), head.keyLength);
  if (isPassed(entry.hash, key)) {
    return Taken::passed;
  }
  last_ = {entry.hash, key, false};
  record_ = buffer.bytes(head.recordAt(), head.length - head.recordAt());
  buffer_ ^= 1;
  return Taken::entry;
}

// Leaves this hash alone and goes on behind it.
Cursor::Step Cursor::giveUp(uint64_t hash) {
  tries_ = 0;
  isDone_ = hash == ~uint64_t{0};
  resumeHash_ = hash + 1;
  last_ = {resumeHash_, {}, true};
  entries_.clear();
  next_ = 0;
  return Step::recovering;
}

void Cursor::beginLookAhead() {
  const Reader::Chain next = isDone_ ? Reader::Chain() : reader_->walk(collection_, resumeHash_);
  ahead_ = next.slots == nullptr ? std::span<const Word>() : std::span(next.slots, next.segment().words());
}

// A few words an entry, as segments have more words than entries. What is asked for goes to the second-level cache: in
// the first it would take the place of the entries that are visited now.
void Cursor::lookAhead() {
  constexpr int wordsAnEntry = 2;
  constexpr size_t wordsAhead = 64;
  constexpr int secondLevel = 2;
  if (ahead_.size() > wordsAhead) {
    __builtin_prefetch(&ahead_[wordsAhead], 0, secondLevel);
  }
  for (int i = 0; i < wordsAnEntry && !ahead_.empty(); ++i) {
    const std::byte* const block = reader_->blockAt(ahead_.front().load(std::memory_order_relaxed));
    __builtin_prefetch(block, 0, secondLevel);
    __builtin_prefetch(block + lineBytes, 0, secondLevel);
    __builtin_prefetch(block + 2 * lineBytes, 0, secondLevel);
    ahead_ = ahead_.subspan(1);
  }
}

// Behind all hashes that share the upper depth bits with hash.
void Cursor::goTo(uint64_t hash, unsigned depth) {
  const uint64_t last = lastHashOf(hash, depth);
  isDone_ = last == ~uint64_t{0};
  resumeHash_ = last + 1;
}

// Snapshots the segment at resumeHash_. Step::entry: go on, there may be entries now.
Cursor::Step Cursor::nextSegment() {
  entries_.clear();
  next_ = 0;
  if (isDone_) {
    return end();
  }
  for (int tries = 0; tries < triesMax; ++tries) {
    chain_ = reader_->walk(collection_, resumeHash_);
    if (!snapshot()) {
      ++reader_->retries_;
      continue;
    }
    if (chain_.damage != nullptr) {
      damage_ = {chain_.damage, collection_, 0, 0, 0};
      skipDamage();
      return Step::damaged;
    }
    if (chain_.slots == nullptr) {
      isDone_ = true;
      return end();
    }
    goTo(resumeHash_, chain_.segment().depth);
    beginLookAhead();
    return Step::entry;
  }
  goTo(resumeHash_, chain_.segment().depth);
  return Step::recovering;
}

// A walk over lost bytes does not end as if it had met everything.
Cursor::Step Cursor::end() {
  if (!reader_->view_.isDamaged() || isLossTold_) {
    return Step::end;
  }
  isLossTold_ = true;
  damage_ = {bytesLost, collection_, 0, 0, 0};
  return Step::damaged;
}

// An unreadable directory word hides the hashes of its prefix; without the directory nothing can be found.
void Cursor::skipDamage() {
  if (chain_.directoryAt == nullptr) {
    isDone_ = true;
  } else {
    goTo(resumeHash_, Place::of(chain_.descriptor).depth);
  }
}

// False: something changed meanwhile.
bool Cursor::snapshot() {
  entries_.clear();
  if (chain_.slots != nullptr && !addEntries()) {
    return false;
  }
  sortByHash();
  if (!sortTies() || !chain_.isCurrent()) {
    entries_.clear();
    return false;
  }
  return true;
}

// Copies the key that the entry's slot names now. A slot that changes is read again: its key stays in it as long as it
// stands, so a busy slot costs tries of its own and not of the whole segment. False: it changed at every try.
bool Cursor::copyKeyOf(Entry& entry, Reader::KeyCopy& key, bool& isSane) {
  for (int tries = 0; tries < triesMax; ++tries) {
    isSane = isLive(entry.word) && reader_->copyKey(collection_, unitsOf(entry.word), key) == nullptr;
    const uint64_t now = chain_.slots[entry.slot].load(std::memory_order_acquire);
    if (now == entry.word) {
      return true;
    }
    entry.word = now;
    ++reader_->retries_;
  }
  return false;
}

bool Cursor::addEntries() {
  const unsigned depth = chain_.segment().depth;
  const uint64_t last = lastHashOf(resumeHash_, depth);
  const size_t words = chain_.segment().words();
  for (uint32_t slot = 0; slot < words; ++slot) {
    const uint64_t word = chain_.slots[slot].load(std::memory_order_acquire);
    if (isLive(word)) {
      entries_.push_back({last, word, slot, true});
    }
  }
  Reader::KeyCopy key;
  size_t kept = 0;
  for (size_t i = 0; i < entries_.size(); ++i) {
    if (i + prefetchAhead < entries_.size()) {
      __builtin_prefetch(reader_->blockAt(entries_[i + prefetchAhead].word));
    }
    Entry entry = entries_[i];
    bool isSane = false;
    if (!copyKeyOf(entry, key, isSane)) {
      entries_.clear();
      return false;
    }
    if (!isLive(entry.word)) {
      continue;  // deleted meanwhile
    }
    if (isSane) {
      const size_t offset = size_t{unitsOf(entry.word)} * unitBytes;
      const size_t end = offset + std::min(key.blockLength, prefetchBytesMax);
      for (size_t line = (offset | (lineBytes - 1)) + 1; line < end; line += lineBytes) {
        __builtin_prefetch(reader_->at(line));
      }
      const uint64_t hash = reader_->hashes_[collection_](key.bytes());
      if (Spot(hash).fingerprint() == fingerprintOf(entry.word) && lastHashOf(hash, depth) == last) {
        entry.hash = hash;
        entry.isLost = false;
      }
    }
    if (entry.hash >= last_.hash) {
      entries_[kept++] = entry;
    }
  }
  entries_.resize(kept);
  return true;
}

// Orders entries_ by hash, the lost ones last. Hashes of a segment are mostly spread evenly over the range of their
// prefix, so putting each at its proportional place leaves little to do; where they are not, a general sort does it.
void Cursor::sortByHash() {
  const auto isBefore = [](const Entry& a, const Entry& b) {
    return a.isLost != b.isLost ? b.isLost : a.hash < b.hash;
  };
  const auto bits = static_cast<unsigned>(std::bit_width(entries_.size()));
  const unsigned depth = chain_.slots != nullptr ? chain_.segment().depth : 0;
  const auto placeOf = [&](const Entry& entry) { return entry.hash << depth >> (64 - bits); };
  starts_.assign((size_t{1} << bits) + 1, 0);
  uint32_t most = 0;
  for (const Entry& entry : entries_) {
    most = std::max(most, ++starts_[placeOf(entry) + 1]);
  }
  if (most > evenMax || entries_.empty()) {
    std::sort(entries_.begin(), entries_.end(), isBefore);
    return;
  }
  std::partial_sum(starts_.begin(), starts_.end(), starts_.begin());
  sorted_.resize(entries_.size());
  for (const Entry& entry : entries_) {
    sorted_[starts_[placeOf(entry)]++] = entry;
  }
  std::swap(entries_, sorted_);
  for (size_t i = 1; i < entries_.size(); ++i) {
    const Entry entry = entries_[i];
    size_t at = i;
    for (; at > 0 && isBefore(entry, entries_[at - 1]); --at) {
      entries_[at] = entries_[at - 1];
    }
    entries_[at] = entry;
  }
}

// Orders entries of equal hash by key. The keys are copied first, as sorting must not look at what the writer may
// change. False: it did change one.
bool Cursor::sortTies() {
  const auto isTie = [](const Entry& a, const Entry& b) { return a.hash == b.hash && !a.isLost && !b.isLost; };
  auto first = std::adjacent_find(entries_.begin(), entries_.end(), isTie);
  while (first != entries_.end()) {
    std::vector<std::pair<std::vector<std::byte>, Entry>> ties;
    auto behind = first;
    for (; behind != entries_.end() && isTie(*first, *behind); ++behind) {
      Reader::KeyCopy key;
      (void)reader_->copyKey(collection_, unitsOf(behind->word), key);
      if (chain_.slots[behind->slot].load(std::memory_order_acquire) != behind->word) {
        return false;
      }
      ties.push_back({{key.bytes().begin(), key.bytes().end()}, *behind});
    }
    std::sort(ties.begin(), ties.end(), [](const auto& a, const auto& b) { return isLess(a.first, b.first); });
    std::transform(ties.begin(), ties.end(), first, [](const auto& tie) { return tie.second; });
    first = std::adjacent_find(behind, entries_.end(), isTie);
  }
  return true;
}

}  // namespace Memtab
