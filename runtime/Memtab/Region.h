// Region: the memory of one table, at addresses that never change.
//
//   base                         size()                                  reserved()
//   |  usable: read and written  |  reserved addresses, no memory behind  |
//
// A large range of addresses is reserved once. Growing makes the next piece usable; nothing moves, so offsets and
// pointers into the region stay good. What stands behind the addresses is a Backing: anonymous memory here, a file in
// FileRegion.h. A backing that cannot grow says so, which is a clean NoSpace and never a fault at some later store.
//
// The writer's thread grows; readers look through a View, which stays good when the Region moves. Those of other
// processes have a View of their own mapping of the file (FileView).
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
  // Comes to stand behind [base, base + bytes). Returns how many bytes are usable already. Throws NoSpace.
  virtual size_t attach(std::byte*, size_t) { return 0; }
  // Whether the addresses are still this process's; not so in a child, of a backing that children do not get.
  virtual bool isAttached() const { return true; }
  // Whether bytes were lost behind our back (see BusGuard.h): false, or good as long as this backing.
  virtual const std::atomic<bool>* damaged() const { return nullptr; }
  // Makes bytes [from, to) of base usable and zero. Returns false, or throws NoSpace with the reason, when it cannot;
  // then nothing has changed. Both are page multiples, and from hugeFrom on huge page multiples where possible: what
  // lies below to may lie on such then.
  virtual bool extend(std::byte* base, size_t from, size_t to) = 0;
  // Nothing in [from, to) is needed any more: its memory may go, its addresses stay readable. Both are page multiples.
  virtual void giveBack(std::byte* base, size_t from, size_t to) = 0;
};

// How far a region reaches, as far as is known, and whether it can be trusted.
class Extent {
 public:
  size_t size() const { return usable_.load(std::memory_order_acquire); }
  // Whether [0, end) may be touched. Beyond the known size it is looked again, as the writer may have extended the
  // region.
  bool covers(size_t end) const { return end <= size() || (look_ != nullptr && look_(*this, end)); }
  // Whether zeros may stand where something else was. Asked before an absence is believed, or a store made.
  bool isDamaged() const { return damaged_ != nullptr && damaged_->load(std::memory_order_acquire); }

 protected:
  using Look = bool (*)(const Extent&, size_t end);
  explicit Extent(Look look = nullptr) : look_(look) {}
  ~Extent() = default;
  void damagedIs(const std::atomic<bool>* damaged) { damaged_ = damaged; }

  mutable std::atomic<size_t> usable_{0};

 private:
  Look look_;
  const std::atomic<bool>* damaged_ = nullptr;
};

// What a reader needs of a region: where it is and how far it reaches. Good as long as the region or the FileView.
struct View {
  const std::byte* base = nullptr;
  const Extent* extent = nullptr;
  size_t size() const { return extent->size(); }
  bool covers(size_t end) const { return extent->covers(end); }
  bool isDamaged() const { return extent->isDamaged(); }
};

class Region {
 public:
  static constexpr size_t reserveDefault = size_t{64} << 30;

  // Private memory of this process. It never grows beyond bytesMax, rounded up to 64 KiB.
  // Throws NoSpace when not even a small range of addresses or the first piece can be had.
  static Region anonymous(size_t bytesMax = reserveDefault);

  // Reserves up to bytesMax bytes of addresses, less if the system has less, and makes the first piece usable. Throws
  // NoSpace.
  Region(std::unique_ptr<Backing> backing, size_t bytesMax);
  Region(Region&&) noexcept;
  Region& operator=(Region&&) noexcept;
  ~Region();

  std::byte* base() const;
  size_t size() const;
  size_t reserved() const;
  View view() const;
  // Whether somebody took bytes away: what is left must not be written any more.
  bool isDamaged() const;

  // Ensures size() >= bytes, growing by an eighth or 4 MiB at least, whichever is less: few calls, none of which takes
  // long. Throws NoSpace.
  void extendTo(size_t bytes);
  // Gives back what lies behind bytes, which extendTo() can get again, rounded up to whole pieces.
  void shrinkTo(size_t bytes);

 private:
  struct Mapping;
  std::unique_ptr<Mapping> mapping_;
};

}  // namespace Memtab
