// An independent look at the bytes of a region: what every word leads to, whether pieces overlap, and whether the
// writer's private memory says the same.
#pragma once

#include <sstream>
#include <vector>

#include "runtime/Memtab/Crc32c.h"
#include "tests/runtime/Memtab/EngineScene.h"

namespace Memtab {

class Structure {
 public:
  Structure(View view, std::span<const HashFn> hashes) : view_(view) {
    take("ring", Place::of(load(ringAt)));
    for (unsigned c = 0; c < hashes.size(); ++c) {
      collection(c, hashes[c]);
    }
    std::sort(pieces_.begin(), pieces_.end());
    for (size_t i = 1; i < pieces_.size(); ++i) {
      require(pieces_[i - 1].second <= pieces_[i].first, "two pieces overlap", pieces_[i].first);
    }
  }

  // Compares with the writer's own. Returns what is wrong; empty: nothing.
  template <class AnyStore>
  std::string faults(const AnyStore& store) {
    size_t bytes = headerBytes;
    size_t behind = headerBytes;
    for (const auto& [from, to] : pieces_) {
      bytes += to - from;
      require(store.allocator().isFree(behind, from), "a gap that is not free", behind);
      for (size_t at = from; at < to; at += unitBytes) {
        require(!store.allocator().isFree(at, at + unitBytes), "a piece that is free", from);
      }
      behind = to;
    }
    require(store.allocator().isFree(behind, store.bytesMapped()), "a tail that is not free", behind);
    require(store.bytesUsed() == bytes, "bytes in use, and the pieces are", bytes);
    require(load(allocatedAt) == store.bytesMapped(), "allocated size", load(allocatedAt));
    for (unsigned c = 0; c < entries_.size(); ++c) {
      require(store.entries(c) == entries_[c] && load(entriesAt + 8 * size_t{c}) == entries_[c], "entry count", c);
    }
    require(store.sequence() == load(sequenceAt) && load(intentAt) == load(sequenceAt), "sequence", store.sequence());
    return faults_.str();
  }

  // What tells the kinds of operations apart.
  size_t depths = 0, segments = 0, segmentWords = 0, tombstones = 0;

 private:
  uint64_t load(size_t offset) const { return *reinterpret_cast<const uint64_t*>(view_.base + offset); }
  void require(bool condition, const char* what, size_t number) {
    if (!condition) {
      faults_ << what << " " << number << "; ";
    }
  }
  bool take(const char* what, size_t offset, size_t bytes) {
    const size_t room = Allocator::classBytes(Allocator::sizeClass(bytes));
    const bool isInside = offset >= headerBytes && offset + room <= view_.size();
    require(isInside, what, offset);
    pieces_.emplace_back(offset, offset + room);
    return isInside;
  }
  bool take(const char* what, Place place) {
    require(Place::isIntact(place.word()), what, place.units);
    return take(what, place.offset(), place.bytes());
  }

  void collection(unsigned c, HashFn hash) {
    entries_.push_back(0);
    const Place directory = Place::of(load(descriptorsAt + 8 * size_t{c}));
    if (directory.units == 0 || !take("directory", directory)) {
      return;
    }
    depths += directory.depth;
    for (size_t i = 0; i < directory.words();) {
      const uint64_t word = load(directory.offset() + 8 * i);
      const Place place = Place::of(word);
      require(Place::isIntact(word) && place.depth <= directory.depth, "directory word", i);
      const size_t span = size_t{1} << (directory.depth - std::min(place.depth, directory.depth));
      for (size_t j = i; j < i + span; ++j) {
        require(i % span == 0 && load(directory.offset() + 8 * j) == word, "directory words differ", j);
      }
      if (take("segment", place)) {
        segment(c, hash, place, i / span);
      }
      i += span;
    }
  }

  void segment(unsigned c, HashFn hash, Place place, uint64_t prefix) {
    ++segments;
    segmentWords += place.words();
    for (size_t slot = 0; slot < place.words(); ++slot) {
      const uint64_t word = load(place.offset() + 8 * slot);
      tombstones += word == tombstone;
      if (!isLive(word)) {
        require(word == emptyWord || word == tombstone, "index word", slot);
        continue;
      }
      ++entries_[c];
      const size_t at = size_t{unitsOf(word)} * unitBytes;
      const BlockHead head = BlockHead::of(load(at));
      if (!head.isSane() || head.collection != c || !take("block", at, 8 * head.words())) {
        require(false, "block head", at);
        continue;
      }
      const auto* words = reinterpret_cast<const uint64_t*>(view_.base + at);
      require(crcOf(words[0], words + 1, head.words() - 1) == head.checksum, "checksum", at);
      const uint64_t h = hash(Bytes(view_.base + at + 8, head.keyLength));
      require(Spot(h).fingerprint() == fingerprintOf(word) && prefixOf(h, place.depth) == prefix, "foreign block", at);
    }
  }

  View view_;
  std::vector<std::pair<size_t, size_t>> pieces_;
  std::vector<size_t> entries_;
  std::ostringstream faults_;
};

}  // namespace Memtab
