// What a reader says about bytes that cannot be what the writer wrote. Made without allocation; the text on demand.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Memtab {

// Of all that is absent in a region of which bytes were lost: zeros prove nothing.
inline constexpr const char* bytesLost = "bytes of the region are lost";
inline constexpr const char* entriesLost = "the index has fewer records than the table";

struct Damage {
  const char* what = nullptr;  // nullptr: no damage
  unsigned collection = 0;
  size_t segment = 0;  // byte offsets in the region; 0 where the walk did not get that far
  size_t slot = 0;
  size_t block = 0;

  explicit operator bool() const { return what != nullptr; }
  // "collection 1, segment at 4160, slot 17, block at 8192: checksum differs"
  std::string text() const;
};

}  // namespace Memtab
