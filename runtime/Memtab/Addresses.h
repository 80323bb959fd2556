// Addresses: a range of addresses with nothing behind it yet, for a table to grow into without ever moving. It begins
// on a huge page boundary, without which no huge page of a file can be seen through it.
#pragma once

#include <cstddef>

namespace Memtab {

inline constexpr size_t hugePageBytes = size_t{2} << 20;
inline constexpr size_t hugeFrom = size_t{4} << 20;  // smaller tables would waste more than they gain

class Addresses {
 public:
  // bytesMax if the system has so many, else a quarter, and so on down to least; multiples of 64 KiB. Throws NoSpace.
  Addresses(size_t bytesMax, size_t least);
  Addresses(const Addresses&) = delete;
  Addresses& operator=(const Addresses&) = delete;
  // What has been mapped there goes as well.
  ~Addresses();

  std::byte* base() const { return base_; }
  size_t size() const { return size_; }
  // They are others' by now, as in a child that did not get what was mapped there.
  void forget() { start_ = nullptr; }

 private:
  std::byte* start_ = nullptr;
  size_t mapped_ = 0;
  std::byte* base_ = nullptr;
  size_t size_ = 0;
};

}  // namespace Memtab
