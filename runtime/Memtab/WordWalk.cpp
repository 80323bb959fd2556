#include "runtime/Memtab/WordWalk.h"

#include "runtime/Memtab/ReaderSteps.h"

namespace Memtab {
namespace {

constexpr int triesMax = 100;

}  // namespace

WordWalk::Step WordWalk::take(uint64_t hash) {
  for (int tries = 0; tries < triesMax; ++tries) {
    chain_ = reader_->walk(collection_, hash);
    if (!load()) {
      continue;
    }
    if (chain_.damage != nullptr || reader_->view_.isDamaged()) {
      const bool isDirectoryKnown = chain_.directoryAt != nullptr && chain_.damage != nullptr;
      damage_ = {chain_.damage != nullptr ? chain_.damage : bytesLost, collection_, 0, 0, 0};
      lastHash_ = lastHashOf(hash, isDirectoryKnown ? Place::of(chain_.descriptor).depth : 0);
      return Step::damaged;
    }
    lastHash_ = lastHashOf(hash, chain_.slots == nullptr ? 0 : chain_.segment().depth);
    return Step::segment;
  }
  return Step::busy;
}

// False: it became another segment meanwhile.
bool WordWalk::load() {
  entries_.clear();
  const size_t words = chain_.slots == nullptr ? 0 : chain_.segment().words();
  for (uint32_t slot = 0; slot < words; ++slot) {
    const uint64_t word = chain_.slots[slot].load(std::memory_order_acquire);
    if (isLive(word)) {
      entries_.push_back({word, slot});
    }
  }
  return chain_.isCurrent();
}

// A word changes with its record, and when its block is moved; its key stays in the slot as long as it stands.
WordWalk::KeyStep WordWalk::key(Entry& entry, Bytes& key) {
  const char* what = nullptr;
  for (int tries = 0;; ++tries) {
    what = reader_->copyKey(collection_, unitsOf(entry.word), key_);
    if (!chain_.isCurrent() || tries == triesMax) {
      return KeyStep::moved;
    }
    const uint64_t now = chain_.slots[entry.slot].load(std::memory_order_acquire);
    if (now == entry.word && chain_.isCurrent()) {
      break;
    }
    entry.word = now;
    if (!isLive(now)) {
      return KeyStep::gone;
    }
  }
  if (what == nullptr) {
    key = key_.bytes();
    const uint64_t hash = reader_->hashOf(collection_, key);
    if (Spot(hash).fingerprint() == fingerprintOf(entry.word) &&
        lastHashOf(hash, chain_.segment().depth) == lastHash_) {
      return KeyStep::key;
    }
    what = "index word names another key's block";
  }
  damage_ = {what, collection_, chain_.segment().offset(), entry.slot, size_t{unitsOf(entry.word)} * unitBytes};
  return KeyStep::damaged;
}

uint64_t WordWalk::head(const Entry& entry) const {
  uint64_t first = 0;
  const char* what = reader_->readHead(collection_, unitsOf(entry.word), first);
  return what == nullptr && isCurrent(entry) ? first : 0;
}

}  // namespace Memtab
