// Changes: what tells readers that something changed, and what.
//
//   intent stored  ->  index words stored  ->  ring slots written  ->  sequence moved  ->  sleepers woken
//
// One operation, a put or a group of them, is several changes with one move of the sequence: readers that follow it
// never see a part. An intent that is ahead of the sequence says that the operation was not completed; a successor
// moves the sequence up to it, so that no number is used for two changes.
#pragma once

#include <algorithm>
#include <array>
#include <functional>
#include <utility>
#include <vector>

#include "runtime/Memtab/Crc32c.h"
#include "runtime/Memtab/Pen.h"

namespace Memtab {

template <class Stores>
class Changes {
 public:
  static constexpr unsigned slotsLog2Min = 3;
  static constexpr unsigned slotsLog2Max = 20;

  explicit Changes(Pen<Stores>& pen) : pen_(&pen) {}

  // A ring of its own. Throws NoSpace.
  void create(unsigned slotsLog2) {
    ring_.sizeLog2 = static_cast<uint8_t>(slotsLog2 + RingSlot::wordsLog2);
    ring_.units = pen_->allocate(ring_.bytes());
    ring_.generation = pen_->nextPlaceGeneration();
    sums_.assign(slots(), 0);
  }
  // Publishes the ring, of which no slot may then read like one written before. isBlank: its bytes are all zero.
  void publish(bool isBlank) {
    for (size_t slot = 0; !isBlank && slot < ring_.words(); slot += RingSlot::words) {
      pen_->store(ring_.offset() + slot * sizeof(uint64_t), 0);
    }
    pen_->store(ringAt, ring_.word());
  }
  // Goes on in the ring that the region has. False: there is none that makes sense.
  bool takeRing() {
    const uint64_t word = pen_->load(ringAt);
    ring_ = Place::of(word);
    return Place::isIntact(word) && ring_.sizeLog2 >= RingSlot::wordsLog2 + slotsLog2Min &&
           ring_.sizeLog2 <= RingSlot::wordsLog2 + slotsLog2Max && ring_.offset() % lineBytes == 0 &&
           pen_->allocator().take(ring_.offset(), ring_.bytes()) && takeSums();
  }

  uint64_t sequence() const { return sequence_; }
  void sequenceIs(uint64_t sequence) { sequence_ = sequence; }

  // Asks for the memory of the next slot.
  void prefetch() const { __builtin_prefetch(pen_->bytes(slotOf(sequence_ + 1)), 1); }
  // Before the first index word of an operation of count changes is stored, and after all its space has been had.
  void begin(uint64_t count) { pen_->store(intentAt, sequence_ + count); }
  // Of the index word that makes the n-th change, from 0 on.
  uint16_t generation(uint64_t n) const { return static_cast<uint16_t>(sequence_ + 1 + n); }
  void log(uint64_t n, unsigned collection, Bytes key);
  // Empties the slots that are not as they were logged: readers compare the table instead. Returns how many.
  size_t scrubRing();
  const Place& ring() const { return ring_; }
  void end(uint64_t count) {
    sequence_ += count;
    pen_->store(sequenceAt, sequence_);
    published();
  }
  // Called by published(): after each move of the sequence, before any other store.
  void publishedCallbackIs(std::function<void()> callback) { callback_ = std::move(callback); }
  void published() const {
    if (callback_) {
      callback_();
    }
  }

 private:
  size_t slots() const { return ring_.words() / RingSlot::words; }
  size_t slotOf(uint64_t sequence) const { return ring_.offset() + (sequence & (slots() - 1)) * lineBytes; }
  uint32_t& sumOf(uint64_t sequence) { return sums_[sequence & (slots() - 1)]; }
  uint32_t sumAt(size_t slot) const;
  bool takeSums();

  std::function<void()> callback_;
  Pen<Stores>* pen_;
  Place ring_;
  std::vector<uint32_t> sums_;  // of the slots, as they were logged
  uint64_t sequence_ = 0;
};

template <class Stores>
void Changes<Stores>::log(uint64_t n, unsigned collection, Bytes key) {
  const uint64_t sequence = sequence_ + 1 + n;
  const size_t slot = slotOf(sequence);
  std::array<uint64_t, RingSlot::words - 2> words{};
  const size_t length = std::min(key.size(), RingSlot::keyBytes);
  std::copy_n(key.begin(), length, std::as_writable_bytes(std::span(words)).begin());
  pen_->store(slot, 0);
  pen_->store(slot + sizeof(uint64_t), RingSlot::headWord(collection, key.size()));
  pen_->storeAll(slot + 2 * sizeof(uint64_t), std::span(words).first((length + 7) / 8));
  pen_->store(slot, sequence);
  sumOf(sequence) = sumAt(slot);
}

// The checksum of what readers use of a slot; 0: it is empty.
template <class Stores>
uint32_t Changes<Stores>::sumAt(size_t slot) const {
  const auto* const words = reinterpret_cast<const uint64_t*>(pen_->bytes(slot));
  if (words[0] == 0) {
    return 0;
  }
  const size_t keyWords = (std::min(RingSlot::keyLengthOf(words[1]), RingSlot::keyBytes) + 7) / 8;
  return crcOf(0, words, 2 + keyWords) | 1;
}

template <class Stores>
bool Changes<Stores>::takeSums() {
  sums_.resize(slots());
  for (size_t i = 0; i < sums_.size(); ++i) {
    sums_[i] = sumAt(ring_.offset() + i * lineBytes);
  }
  return true;
}

template <class Stores>
size_t Changes<Stores>::scrubRing() {
  size_t damaged = 0;
  for (size_t i = 0; i < sums_.size(); ++i) {
    const size_t slot = ring_.offset() + i * lineBytes;
    if (sumAt(slot) != sums_[i]) {
      pen_->store(slot, 0);
      sums_[i] = 0;
      ++damaged;
    }
  }
  return damaged;
}

}  // namespace Memtab
