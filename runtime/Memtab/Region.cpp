// Growth in pieces: 64 KiB for a small table, an eighth of the size later on, but not so much that the writer would be
// held up for more than a few milliseconds. From 4 MiB on pieces are whole huge pages and the kernel is asked for such,
// because a random look-up in a large table otherwise misses the TLB at every step.
#include "runtime/Memtab/Region.h"

#include <sys/mman.h>

#include <algorithm>
#include <utility>

#include "runtime/Memtab/Addresses.h"

namespace Memtab {
namespace {

constexpr size_t pieceMin = size_t{64} << 10;
constexpr size_t pieceMax = size_t{4} << 20;

constexpr size_t roundUp(size_t bytes, size_t step) { return (bytes + step - 1) / step * step; }

// The smallest piece keeps to every page size in use (4 to 64 KiB).
size_t stepAt(size_t bytes) { return bytes < hugeFrom ? pieceMin : hugePageBytes; }

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
  Mapping(std::unique_ptr<Backing> behind, size_t bytesMax)
      : backing(std::move(behind)), addresses(bytesMax, pieceMin) {
    usableIs(backing->attach(base(), reserved()));
    damagedIs(backing->damaged());
  }
  ~Mapping() {
    if (!backing->isAttached()) {
      addresses.forget();
    }
    backing.reset();  // before others may get its addresses
  }

  std::byte* base() const { return addresses.base(); }
  size_t reserved() const { return addresses.size(); }
  void usableIs(size_t bytes) { usable_.store(bytes, std::memory_order_release); }

  std::unique_ptr<Backing> backing;
  Addresses addresses;
};

Region Region::anonymous(size_t bytesMax) { return Region(std::make_unique<AnonymousBacking>(), bytesMax); }

Region::Region(std::unique_ptr<Backing> backing, size_t bytesMax)
    : mapping_(std::make_unique<Mapping>(std::move(backing), std::min(bytesMax, reserveDefault))) {
  extendTo(pieceMin);
}

Region::Region(Region&&) noexcept = default;
Region& Region::operator=(Region&&) noexcept = default;
Region::~Region() = default;

std::byte* Region::base() const { return mapping_->base(); }
size_t Region::size() const { return mapping_->size(); }
size_t Region::reserved() const { return mapping_->reserved(); }
View Region::view() const { return {mapping_->base(), mapping_.get()}; }
bool Region::isDamaged() const { return mapping_->isDamaged(); }

void Region::extendTo(size_t bytes) {
  const size_t from = size();
  if (bytes <= from) {
    return;
  }
  const size_t least = roundUp(bytes, pieceMin);
  const size_t wished = std::max(bytes, from + std::clamp(from / 8, pieceMin, pieceMax));
  for (const size_t to : {std::min(roundUp(wished, stepAt(wished)), mapping_->reserved()), least}) {
    if (to < least || to > mapping_->reserved()) {
      continue;
    }
    try {
      if (mapping_->backing->extend(mapping_->base(), from, to)) {
        mapping_->usableIs(to);
        return;
      }
    } catch (const NoSpace&) {
      if (to == least) {
        throw;
      }
    }
  }
  throw NoSpace("a shared table of " + std::to_string(from) + " bytes cannot grow to " + std::to_string(bytes) +
                ": its range of addresses is used up");
}

void Region::shrinkTo(size_t bytes) {
  const size_t from = size();
  const size_t to = roundUp(bytes, stepAt(bytes));
  if (to < from) {
    mapping_->usableIs(to);
    mapping_->backing->giveBack(mapping_->base(), to, from);
  }
}

}  // namespace Memtab
