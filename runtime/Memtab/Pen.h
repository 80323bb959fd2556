// Pen: what the writer writes with: the region, the allocator of its free bytes, and the policy through which
// every single store goes. All collections of a region share one.
//
// Order of stores: pieces are filled before a word names them (publication), and reused only after that word has
// changed. All stores are releases, so whoever reads a later one sees the earlier ones.
#pragma once

#include <span>
#include <utility>

#include "runtime/Memtab/Allocator.h"
#include "runtime/Memtab/Layout.h"
#include "runtime/Memtab/Region.h"
#include "runtime/Memtab/StorePolicy.h"

namespace Memtab {

template <class Stores>
class Pen {
 public:
  Pen(Region region, Stores stores)
      : region_(std::move(region)),
        base_(region_.base()),
        allocator_(region_),
        stores_(std::move(stores)),
        publishedSize_(load(allocatedAt)) {}
  Pen(const Pen&) = delete;
  Pen& operator=(const Pen&) = delete;

  void store(size_t offset, uint64_t value) { stores_.word(at(offset), value, std::memory_order_release); }
  void storeAll(size_t offset, std::span<const uint64_t> values) {
    for (size_t i = 0; i < values.size(); ++i) {
      store(offset + i * sizeof(uint64_t), values[i]);
    }
  }

  void copy(size_t to, size_t from, size_t words) {
    for (size_t i = 0; i < words; ++i) {
      store(to + i * sizeof(uint64_t), load(from + i * sizeof(uint64_t)));
    }
  }

  // The writer reads its own stores, so plain reads race with nobody.
  const std::byte* bytes(size_t offset) const { return base_ + offset; }
  const Word* words(size_t offset) const { return reinterpret_cast<const Word*>(bytes(offset)); }
  uint64_t load(size_t offset) const { return words(offset)->load(std::memory_order_relaxed); }

  // Readers learn the new size before anything beyond the old one is named. Throws NoSpace.
  uint32_t allocate(size_t bytes) {
    const uint32_t units = allocator_.allocate(bytes);
    publishSize();
    return units;
  }
  uint32_t allocateInside(size_t bytes) { return allocator_.allocateInside(bytes); }
  void release(uint32_t units, size_t bytes) { allocator_.release(units, bytes); }
  // Gives back what lies after the last piece and the reserve.
  void shrink() {
    region_.shrinkTo(allocator_.bytesNeeded());
    allocator_.regionShrunk();
    publishSize();
  }
  void publishSize() {
    if (region_.size() != publishedSize_) {
      publishedSize_ = region_.size();
      store(allocatedAt, publishedSize_);
    }
  }

  size_t publishedSize() const { return publishedSize_; }

  uint16_t nextPlaceGeneration() { return ++placeGeneration_ & 0x3FFF; }
  // So that a successor's Places do not soon read like its predecessor's.
  void placeGenerationIs(uint64_t generation) { placeGeneration_ = static_cast<uint16_t>(generation); }

  Allocator& allocator() { return allocator_; }
  const Allocator& allocator() const { return allocator_; }
  Region& region() { return region_; }
  const Region& region() const { return region_; }
  size_t bytesUsed() const { return allocator_.bytesUsed(); }

 private:
  Word& at(size_t offset) { return *reinterpret_cast<Word*>(base_ + offset); }

  Region region_;
  std::byte* base_;
  Allocator allocator_;
  [[no_unique_address]] Stores stores_;
  size_t publishedSize_;
  uint16_t placeGeneration_ = 0;
};

// A piece that goes back to the allocator unless it is kept: several pieces are had before the first store names one.
template <class Stores>
class Claim {
 public:
  Claim(Pen<Stores>& pen, size_t bytes) : pen_(&pen), bytes_(bytes), units_(pen.allocate(bytes)) {}
  // Takes over a piece that was had already.
  Claim(Pen<Stores>& pen, size_t bytes, uint32_t units) : pen_(&pen), bytes_(bytes), units_(units) {}
  Claim(const Claim&) = delete;
  Claim& operator=(const Claim&) = delete;
  ~Claim() {
    if (units_ != 0) {
      pen_->release(units_, bytes_);
    }
  }
  size_t offset() const { return size_t{units_} * unitBytes; }
  uint32_t keep() { return std::exchange(units_, 0); }

 private:
  Pen<Stores>* pen_;
  size_t bytes_;
  uint32_t units_;
};

}  // namespace Memtab
