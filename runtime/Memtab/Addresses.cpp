#include "runtime/Memtab/Addresses.h"

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "runtime/Memtab/Region.h"

namespace Memtab {
namespace {

constexpr size_t stepBytes = size_t{64} << 10;  // keeps to every page size in use

size_t roundUp(size_t bytes) { return (bytes + stepBytes - 1) / stepBytes * stepBytes; }

}  // namespace

Addresses::Addresses(size_t bytesMax, size_t least) {
  least = roundUp(std::max(least, size_t{1}));
  for (size_ = std::max(roundUp(bytesMax), least);; size_ = std::max(roundUp(size_ / 4), least)) {
    mapped_ = size_ + hugePageBytes;
    void* const at = mmap(nullptr, mapped_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (at != MAP_FAILED) {
      start_ = static_cast<std::byte*>(at);
      base_ = start_ + (hugePageBytes - reinterpret_cast<uintptr_t>(at) % hugePageBytes) % hugePageBytes;
      return;
    }
    if (size_ == least) {
      throw NoSpace("no addresses for a shared table of " + std::to_string(least) + " bytes: " + std::strerror(errno));
    }
  }
}

Addresses::~Addresses() {
  if (start_ != nullptr) {
    munmap(start_, mapped_);
  }
}

}  // namespace Memtab
