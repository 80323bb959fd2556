// CRC-32C (polynomial 0x1EDC6F41, reflected), the checksum of every block in a shared table.
//
// Blocks consist of whole 64-bit words, so the step is one word, in memory order of a little-endian machine. The CPU's
// own instruction is taken when there is one (x86 with SSE4.2, looked up once; ARM when compiled for it); otherwise
// tables do the same at 8 bytes a step. Copying out of shared memory and checksumming the copy are one loop, since
// both wait for the same words.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Memtab {

// The checksum of a block that starts with the upper half of `head` and goes on with count words.
// crcOf() reads private memory; crcCopy() reads shared memory with acquire loads and leaves the words in `to`.
uint32_t crcOf(uint64_t head, const uint64_t* words, size_t count);
uint32_t crcCopy(uint64_t head, const std::atomic<uint64_t>* from, uint64_t* to, size_t count);

// The same without CPU support, and whether the functions above have it.
uint32_t crcOfPortable(uint64_t head, const uint64_t* words, size_t count);
bool hasCrcInstruction();

}  // namespace Memtab
