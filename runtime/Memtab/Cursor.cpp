#include "runtime/Memtab/Cursor.h"

#include <algorithm>
#include <cstring>

namespace Memtab {
namespace {

constexpr int triesMax = 1000;
constexpr size_t prefetchAhead = 16;

bool isLess(Bytes a, Bytes b) {
  const size_t common = std::min(a.size(), b.size());
  const int order = common == 0 ? 0 : std::memcmp(a.data(), b.data(), common);
  return order != 0 ? order < 0 : a.size() < b.size();
}

// The greatest hash that shares the upper depth bits with hash.
uint64_t lastHash(uint64_t hash, unsigned depth) { return depth == 0 ? ~uint64_t{0} : hash | ~uint64_t{0} >> depth; }

}  // namespace

Cursor::Cursor(const Reader& reader, unsigned collection)
    : reader_(&reader), collection_(collection), chain_(reader.walk(collection, 0)) {}

void Cursor::seek(uint64_t hash, Bytes key) {
  uint64_t* to = buffers_[buffer_].room(key.size() / 8 + 1);
  std::copy(key.begin(), key.end(), reinterpret_cast<std::byte*>(to));
  last_ = {hash, buffers_[buffer_].bytes(0, key.size()), true};
  resumeHash_ = hash;
  isDone_ = false;
  entries_.clear();
  next_ = 0;
}

Cursor::Step Cursor::next() {
  for (;;) {
    while (next_ < entries_.size()) {
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
        resumeHash_ = std::max(last_.hash, entry.hash & ~(lastHash(0, chain_.segment.depth)));
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
    damage_ = {what, collection_, chain_.segment.offset(), entry.slot, size_t{unitsOf(entry.word)} * unitBytes};
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

// Behind all hashes that share the upper depth bits with hash.
void Cursor::goTo(uint64_t hash, unsigned depth) {
  const uint64_t last = lastHash(hash, depth);
  isDone_ = last == ~uint64_t{0};
  resumeHash_ = last + 1;
}

// Snapshots the segment at resumeHash_. Step::entry: go on, there may be entries now.
Cursor::Step Cursor::nextSegment() {
  entries_.clear();
  next_ = 0;
  if (isDone_) {
    return Step::end;
  }
  for (int tries = 0; tries < triesMax; ++tries) {
    chain_ = reader_->walk(collection_, resumeHash_);
    if (!snapshot()) {
      ++reader_->retries_;
      continue;
    }
    if (chain_.damage) {
      damage_ = chain_.damage;
      skipDamage();
      return Step::damaged;
    }
    if (chain_.slots == nullptr) {
      isDone_ = true;
      return Step::end;
    }
    goTo(resumeHash_, chain_.segment.depth);
    return Step::entry;
  }
  goTo(resumeHash_, chain_.segment.depth);
  return Step::recovering;
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
  if (!chain_.isCurrent()) {
    entries_.clear();
    return false;
  }
  return sortEntries();
}

bool Cursor::addEntries() {
  const unsigned depth = chain_.segment.depth;
  const uint64_t last = lastHash(resumeHash_, depth);
  const size_t words = chain_.segment.words();
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
      reader_->prefetch(entries_[i + prefetchAhead].word);
    }
    Entry entry = entries_[i];
    const bool isSane = reader_->copyKey(collection_, unitsOf(entry.word), key) == nullptr;
    if (chain_.slots[entry.slot].load(std::memory_order_acquire) != entry.word) {
      entries_.clear();
      return false;
    }
    if (isSane) {
      const uint64_t hash = reader_->hashes_[collection_](key.bytes());
      if (Spot(hash).fingerprint() == fingerprintOf(entry.word) && lastHash(hash, depth) == last) {
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

// Keys are read, and only for a moment, where hashes are equal: sorting must not look at what the writer may change.
bool Cursor::sortEntries() {
  const auto byHash = [](const Entry& a, const Entry& b) { return a.isLost != b.isLost ? b.isLost : a.hash < b.hash; };
  std::sort(entries_.begin(), entries_.end(), byHash);
  for (auto first = entries_.begin(); first != entries_.end();) {
    const auto behind = std::find_if(first, entries_.end(), [&](const Entry& e) { return byHash(*first, e); });
    if (behind - first > 1 && !first->isLost) {
      std::vector<std::pair<std::vector<std::byte>, Entry>> ties;
      for (auto entry = first; entry != behind; ++entry) {
        Reader::KeyCopy key;
        key.length = 0;
        (void)reader_->copyKey(collection_, unitsOf(entry->word), key);
        if (chain_.slots[entry->slot].load(std::memory_order_acquire) != entry->word) {
          entries_.clear();
          return false;
        }
        ties.push_back({{key.bytes().begin(), key.bytes().end()}, *entry});
      }
      std::sort(ties.begin(), ties.end(), [](const auto& a, const auto& b) { return isLess(a.first, b.first); });
      std::transform(ties.begin(), ties.end(), first, [](const auto& tie) { return tie.second; });
    }
    first = behind;
  }
  return true;
}

}  // namespace Memtab
