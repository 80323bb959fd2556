// BusGuard: what keeps a process alive when a file that it has mapped is truncated by somebody else.
//
// Touching a page behind the end of the file then raises SIGBUS. The handler puts a page of zeros there, private to
// this process, and marks the range damaged for good; whoever uses the range asks isDamaged() before he believes what
// zeros could mean. Faults elsewhere go to the handler that was installed before.
#pragma once

#include <atomic>
#include <cstddef>

namespace Memtab {

class BusGuard {
 public:
  static constexpr unsigned guardsMax = 65536;  // about as many as Linux allows mappings

  // Guards [base, base + bytes) of whole pages. protection: of the page put there, PROT_READ and maybe PROT_WRITE.
  // Throws InternalException when guardsMax guards exist.
  BusGuard(const std::byte* base, size_t bytes, int protection);
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
