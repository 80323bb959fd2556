// Region: the memory of one table, at addresses that never change.
//
//   base                         size()                                  reserved()
//   |  usable: read and written  |  reserved addresses, no memory behind  |
//
// A large range of addresses is reserved once. Growing makes the next piece usable; nothing moves, so offsets and
// pointers into the region stay good. What stands behind the addresses is a Backing: anonymous memory here. A
// backing that cannot grow says so, which is a clean NoSpace and never a fault at some later store.
//
// The writer's thread grows; readers of other threads look through a View, which stays good when the Region moves.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include "runtime/Zol/Exception.h"

namespace Memtab {

// The region cannot grow: memory, file system or the reserved range is used up. The table stands as it did.
class NoSpace : public Zol::Exception {
 public:
  using Zol::Exception::Exception;
};

// What gives memory to the reserved addresses.
class Backing {
 public:
  virtual ~Backing() = default;
  // Makes [from, to) behind base usable and zero. False: it cannot, and nothing changed. Both are page multiples.
  virtual bool extend(std::byte* base, size_t from, size_t to) = 0;
  // Nothing in [from, to) is needed any more: its memory may go, its addresses stay readable. Both are page multiples.
  virtual void giveBack(std::byte* base, size_t from, size_t to) = 0;
};

// What a reader needs of a region: where it is and how much of it may be touched.
struct View {
  const std::byte* base = nullptr;
  const std::atomic<size_t>* usable = nullptr;
  size_t size() const { return usable->load(std::memory_order_acquire); }
};

class Region {
 public:
  static constexpr size_t reserveDefault = size_t{64} << 30;

  // Private memory of this process. It never grows beyond bytesMax, rounded up to 64 KiB.
  // Throws NoSpace when not even a small range of addresses or the first piece can be had.
  static Region anonymous(size_t bytesMax = reserveDefault);

  // Reserves up to bytesMax bytes of addresses, less if the system has less, and makes the first piece usable.
  Region(std::unique_ptr<Backing> backing, size_t bytesMax);
  Region(Region&&) noexcept;
  Region& operator=(Region&&) noexcept;
  ~Region();

  std::byte* base() const;
  size_t size() const;
  size_t reserved() const;
  View view() const;

  // Ensures size() >= bytes, growing by an eighth at least so that n bytes cost O(log n) calls. Throws NoSpace.
  void extendTo(size_t bytes);
  // Gives back what lies behind bytes, which extendTo() can get again, rounded up to whole pieces.
  void shrinkTo(size_t bytes);

 private:
  struct Mapping;
  std::unique_ptr<Mapping> mapping_;
};

}  // namespace Memtab
