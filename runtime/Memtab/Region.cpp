// Growth in pieces: 64 KiB for a small table, an eighth of the size later on. Beyond 4 MiB pieces are whole huge pages
// and the kernel is asked for such, because a random look-up in a large table otherwise misses the TLB at every step.
#include "runtime/Memtab/Region.h"

#include <sys/mman.h>

#include <algorithm>

namespace Memtab {
namespace {

constexpr size_t pieceMin = size_t{64} << 10;
constexpr size_t hugePage = size_t{2} << 20;
constexpr size_t hugeFrom = size_t{4} << 20;

constexpr size_t roundUp(size_t bytes, size_t step) { return (bytes + step - 1) / step * step; }

// The smallest piece keeps to every page size in use (4 to 64 KiB).
size_t stepAt(size_t bytes) { return bytes < hugeFrom ? pieceMin : hugePage; }

class AnonymousBacking final : public Backing {
 public:
  bool extend(std::byte* base, size_t from, size_t to) override {
    if (mprotect(base + from, to - from, PROT_READ | PROT_WRITE) != 0) {
      return false;
    }
    if (to >= hugeFrom) {
      (void)madvise(base, to, MADV_HUGEPAGE);  // a wish; without it the table is only slower
    }
    return true;
  }
  void giveBack(std::byte* base, size_t from, size_t to) override {
    (void)madvise(base + from, to - from, MADV_DONTNEED);
  }
};

}  // namespace

struct Region::Mapping : Extent {
  std::unique_ptr<Backing> backing;
  std::byte* start = nullptr;  // what was mapped; base is the first huge page boundary in it
  size_t mapped = 0;
  std::byte* base = nullptr;
  size_t reserved = 0;

  void usableIs(size_t bytes) { usable_.store(bytes, std::memory_order_release); }

  void attach() {
    usableIs(backing->attach(base, reserved));
    damagedIs(backing->damaged());
  }

  ~Mapping() {
    const bool isOurs = start != nullptr && backing->isAttached();
    backing.reset();  // before others may get its addresses
    if (isOurs) {
      munmap(start, mapped);
    }
  }

  void reserve(size_t bytesMax) {
    for (size_t bytes = roundUp(bytesMax, pieceMin); bytes >= pieceMin; bytes = roundUp(bytes / 4, pieceMin)) {
      void* at = mmap(nullptr, bytes + hugePage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
      if (at != MAP_FAILED) {
        start = static_cast<std::byte*>(at);
        mapped = bytes + hugePage;
        base = start + (hugePage - reinterpret_cast<uintptr_t>(at) % hugePage) % hugePage;
        reserved = bytes;
        return;
      }
      if (bytes == pieceMin) {
        break;
      }
    }
    throw NoSpace("no addresses for a shared table");
  }
};

Region Region::anonymous(size_t bytesMax) { return Region(std::make_unique<AnonymousBacking>(), bytesMax); }

Region::Region(std::unique_ptr<Backing> backing, size_t bytesMax) : mapping_(std::make_unique<Mapping>()) {
  mapping_->backing = std::move(backing);
  mapping_->reserve(std::min(bytesMax, reserveDefault));
  mapping_->attach();
  extendTo(pieceMin);
}

Region::Region(Region&&) noexcept = default;
Region& Region::operator=(Region&&) noexcept = default;
Region::~Region() = default;

std::byte* Region::base() const { return mapping_->base; }
size_t Region::size() const { return mapping_->size(); }
size_t Region::reserved() const { return mapping_->reserved; }
View Region::view() const { return {mapping_->base, mapping_.get()}; }
bool Region::isDamaged() const { return mapping_->isDamaged(); }

void Region::extendTo(size_t bytes) {
  const size_t from = size();
  if (bytes <= from) {
    return;
  }
  const size_t least = roundUp(bytes, pieceMin);
  const size_t wished = std::max(bytes, from + std::max(pieceMin, from / 8));
  for (const size_t to : {std::min(roundUp(wished, stepAt(wished)), mapping_->reserved), least}) {
    if (to >= least && to <= mapping_->reserved && mapping_->backing->extend(mapping_->base, from, to)) {
      mapping_->usableIs(to);
      return;
    }
  }
  throw NoSpace("a shared table of " + std::to_string(from) + " bytes cannot grow to " + std::to_string(bytes));
}

void Region::shrinkTo(size_t bytes) {
  const size_t from = size();
  const size_t to = roundUp(bytes, stepAt(bytes));
  if (to < from) {
    mapping_->usableIs(to);
    mapping_->backing->giveBack(mapping_->base, to, from);
  }
}

}  // namespace Memtab
