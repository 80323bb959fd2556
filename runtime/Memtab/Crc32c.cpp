// Three loops over one step function: words in private memory, words copied out of shared memory, and the choice
// between the CPU's step and the table step, made once when the program starts.
#include "runtime/Memtab/Crc32c.h"

#include <array>

#if defined(__x86_64__)
#include <nmmintrin.h>
#define MEMTAB_CRC_TARGET __attribute__((target("sse4.2")))
#elif defined(__ARM_FEATURE_CRC32)
#include <arm_acle.h>
#define MEMTAB_CRC_TARGET
#endif

namespace Memtab {
namespace {

using Tables = std::array<std::array<uint32_t, 256>, 8>;

// tables[k][b]: what byte b does to the checksum when k bytes follow it.
constexpr Tables makeTables() {
  Tables tables{};
  for (uint32_t b = 0; b < 256; ++b) {
    uint32_t crc = b;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0x82F63B78u : 0u);
    }
    tables[0][b] = crc;
  }
  for (size_t k = 1; k < 8; ++k) {
    for (size_t b = 0; b < 256; ++b) {
      tables[k][b] = (tables[k - 1][b] >> 8) ^ tables[0][tables[k - 1][b] & 0xFF];
    }
  }
  return tables;
}

constexpr Tables tables = makeTables();

uint32_t tableStep(uint32_t crc, uint64_t word, unsigned bytes) {
  const uint64_t mixed = word ^ crc;
  uint32_t result = bytes == 8 ? 0 : static_cast<uint32_t>(static_cast<uint64_t>(crc) >> (8 * bytes));
  for (unsigned i = 0; i < bytes; ++i) {
    result ^= tables[bytes - 1 - i][(mixed >> (8 * i)) & 0xFF];
  }
  return result;
}

uint32_t ofByTable(uint64_t head, const uint64_t* words, size_t count) {
  uint32_t crc = tableStep(~0u, head >> 32, 4);
  for (size_t i = 0; i < count; ++i) {
    crc = tableStep(crc, words[i], 8);
  }
  return ~crc;
}

uint32_t copyByTable(uint64_t head, const std::atomic<uint64_t>* from, uint64_t* to, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    to[i] = from[i].load(std::memory_order_acquire);
  }
  return ofByTable(head, to, count);
}

#if defined(MEMTAB_CRC_TARGET)

// The checksum is the lower half: in 64 bits, as the instruction leaves it, it needs no instruction in between.
MEMTAB_CRC_TARGET inline uint64_t cpuStep(uint64_t crc, uint64_t word) {
#if defined(__x86_64__)
  return _mm_crc32_u64(crc, word);
#else
  return __crc32cd(static_cast<uint32_t>(crc), word);
#endif
}

MEMTAB_CRC_TARGET inline uint64_t cpuStepHalf(uint32_t crc, uint32_t half) {
#if defined(__x86_64__)
  return _mm_crc32_u32(crc, half);
#else
  return __crc32cw(crc, half);
#endif
}

MEMTAB_CRC_TARGET uint32_t ofByCpu(uint64_t head, const uint64_t* words, size_t count) {
  uint64_t crc = cpuStepHalf(~0u, static_cast<uint32_t>(head >> 32));
#pragma GCC unroll 8
  for (size_t i = 0; i < count; ++i) {
    crc = cpuStep(crc, words[i]);
  }
  return ~static_cast<uint32_t>(crc);
}

MEMTAB_CRC_TARGET uint32_t copyByCpu(uint64_t head, const std::atomic<uint64_t>* from, uint64_t* to, size_t count) {
  uint64_t crc = cpuStepHalf(~0u, static_cast<uint32_t>(head >> 32));
#pragma GCC unroll 8
  for (size_t i = 0; i < count; ++i) {
    const uint64_t word = from[i].load(std::memory_order_acquire);
    to[i] = word;
    crc = cpuStep(crc, word);
  }
  return ~static_cast<uint32_t>(crc);
}

bool lookForInstruction() {
#if defined(__x86_64__)
  return __builtin_cpu_supports("sse4.2") != 0;
#else
  return true;
#endif
}

#else

constexpr auto ofByCpu = ofByTable;
constexpr auto copyByCpu = copyByTable;
bool lookForInstruction() { return false; }

#endif

// Objects of static storage elsewhere may already use tables: until this line ran, the table loops serve them.
const bool byCpu = lookForInstruction();

}  // namespace

uint32_t crcOf(uint64_t head, const uint64_t* words, size_t count) {
  return byCpu ? ofByCpu(head, words, count) : ofByTable(head, words, count);
}

uint32_t crcCopy(uint64_t head, const std::atomic<uint64_t>* from, uint64_t* to, size_t count) {
  return byCpu ? copyByCpu(head, from, to, count) : copyByTable(head, from, to, count);
}

uint32_t crcOfPortable(uint64_t head, const uint64_t* words, size_t count) { return ofByTable(head, words, count); }

bool hasCrcInstruction() { return byCpu; }

}  // namespace Memtab
