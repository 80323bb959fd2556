// BusGuard: what keeps a process alive when a file that it has mapped is truncated by somebody else.
//
// Touching a page after the end of the file then raises SIGBUS. The handler maps zeros, private to this process, over
// all pages after the end, and marks the range damaged for good. Users of the range call isDamaged() before they trust
// zeros. The handler maps all pages at the first fault, since a process may have only some 65,000 mappings. It maps a
// single page where the file system has no memory for a hole. Faults elsewhere go to the handler that was installed
// before.
#pragma once

#include <atomic>
#include <cstddef>

namespace Memtab {

class BusGuard {
 public:
  static constexpr unsigned guardsMax = 65536;  // about as many as Linux allows mappings

  // Guards [base, base + bytes) of whole pages, to which a file is mapped from its beginning. protection: of the zeros
  // put there, PROT_READ and maybe PROT_WRITE. file: descriptor of the file, open as long as the guard. Throws
  // InternalException when guardsMax guards exist.
  BusGuard(const std::byte* base, size_t bytes, int protection, int file);
  BusGuard(const BusGuard&) = delete;
  BusGuard& operator=(const BusGuard&) = delete;
  ~BusGuard();

  bool isDamaged() const { return damaged_->load(std::memory_order_acquire); }
  // Good as long as this guard.
  const std::atomic<bool>* damaged() const { return damaged_; }

 private:
  unsigned slot_;
  const std::atomic<bool>* damaged_;
};

}  // namespace Memtab
