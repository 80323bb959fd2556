// The bytes of a ring file, all little-endian:
//
//     0     magic 8 | version 4 | slots of events 4 | slots of details 4 | unused
//     512   the slots of events, then those of details, slotBytes each:
//           checksum 4 | source line 4 | sequence 8 | nanoseconds since 1970 8 | length of text 2 | level 1 |
//           length of source 1 | length of function 1 | zero 3 | source | function | text
//
// Lines of levels up to eventLevelMax are events, the others details. Each kind goes round in its own slots, so a flood
// of details overwrites no event. Sequence numbers begin at 1 and count both kinds; a slot with the number 0 is unused.
// The checksum is that of the slot's bytes from the source line to the end of the text. Bytes after the text are those
// of older lines. No slot crosses a page, so a writer that is killed leaves no half of a line.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/Zol/Hash.h"

namespace Fastlog {

constexpr std::uint64_t ringMagic = 0x31474E4952474F4CULL;  // the same in all versions
constexpr std::uint32_t ringVersion = 2;
constexpr unsigned ringBytesMaxLog2 = 24;
constexpr unsigned eventLevelMax = 5;
constexpr std::size_t slotBytes = 512;

struct RingHeader {
  std::uint64_t magic = ringMagic;
  std::uint32_t version = ringVersion;
  std::uint32_t eventSlots = 0;
  std::uint32_t detailSlots = 0;
  std::uint32_t zero = 0;
};
static_assert(sizeof(RingHeader) == 24);

struct SlotHead {
  std::uint32_t checksum = 0;
  std::uint32_t line = 0;
  std::uint64_t sequence = 0;
  std::int64_t nanoseconds = 0;
  std::uint16_t textLength = 0;
  std::uint8_t level = 0;
  std::uint8_t sourceLength = 0;
  std::uint8_t functionLength = 0;
  std::uint8_t zero[3] = {};
};
static_assert(sizeof(SlotHead) == 32);

constexpr std::size_t bodyBytesMax = slotBytes - sizeof(SlotHead);

// bytes: of the slot up to the end of its text.
inline std::uint32_t slotChecksum(const char* slot, std::size_t bytes) {
  Zol::OneAtATime hash;
  for (std::size_t i = sizeof(std::uint32_t); i < bytes; ++i) {
    hash.byte(static_cast<std::uint8_t>(slot[i]));
  }
  return hash.result();
}

}  // namespace Fastlog
