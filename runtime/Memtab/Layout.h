// The bytes of a region. All places are offsets, so every process may map the region where it likes; every number in
// it is checked before use, so that no content, torn, damaged or hostile, leads a reader astray.
//
//   0      header page   line 0: magic, version, record fingerprint, epoch, ready, allocated size
//                        line 1: one descriptor (a Place) per collection: its directory
//                        line 2: number of entries per collection          line 3: sequence, intent
//                        line 4: the ring (a Place), owner                 behind: room for the doorbell
//   4096   everything else, in pieces of 16-byte units:
//
//   directory   2^depth Places, one per prefix of the hash; each names a segment
//   segment     2^n index words in buckets of 8 (one cache line)
//   block       one record, immutable from its publication until no word names it
//   ring        the last 2^k changes; change s stands in slot s mod 2^k
//
//   Place        check 8 | log2 of the size in words 5 | depth 5 | generation 14 | offset in units 32
//   index word   fingerprint 16 | generation 16 | offset in units 32      0: empty; tombstone: deleted
//   block        checksum 32 | length in bytes 20, collection 3, key length 9 | key bytes | record bytes | zeros
//   ring slot    sequence 64 (0: being written) | collection 8, key length 16 | first 48 bytes of the key
//
// A Place says all there is to know about what it names, so segments and directories have no header that could
// disagree with it, and a look-up touches the segment in its bucket only. Its check bits find every single flipped bit:
// a descriptor wiped to zero is damage, not an empty collection. The generation differs with every publication, so
// a word that reads the same twice was the same in between. That of an index word is the low 16 bits of the sequence
// number of the change that put the record there: it tells the versions of a record apart within 65536 changes, also
// after the block has moved (to a lower offset, always).
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#if defined(__SSE2__) && !defined(__SANITIZE_THREAD__)
#define MEMTAB_COMPARES_PAIRS
#include <emmintrin.h>
#endif

namespace Memtab {

static_assert(std::endian::native == std::endian::little, "regions are shared between processes of one machine");

using Word = std::atomic<uint64_t>;
static_assert(Word::is_always_lock_free && sizeof(Word) == sizeof(uint64_t));

using Bytes = std::span<const std::byte>;

// The hash of a key, given per collection. It fixes the order of iteration; its upper bits choose the segment and
// should differ between keys. It must take any bytes, also such as no key consists of: a reader asks it before it
// knows.
using HashFn = uint64_t (*)(Bytes key);

inline constexpr size_t unitBytes = 16;
inline constexpr size_t lineBytes = 64;
inline constexpr size_t headerBytes = 4096;
inline constexpr unsigned collectionCountMax = 8;
inline constexpr size_t regionBytesMax = unitBytes << 32;

inline constexpr uint64_t regionMagic = 0x3142'4154'4D45'4DF5;
inline constexpr uint64_t formatVersion = 1;

// Byte offsets in the header page.
enum HeaderOffset : size_t {
  magicAt = 0,
  versionAt = 8,
  fingerprintAt = 16,
  epochAt = 24,
  readyAt = 32,
  allocatedAt = 40,
  descriptorsAt = 64,
  entriesAt = 128,
  sequenceAt = 192,
  intentAt = 200,  // what sequence will be once the change under way is complete; else what it is
  ringAt = 256,
  ownerAt = 264,       // process id of the writer; 0: closed in good order. For people; the lock decides who owns
  ownerStartAt = 272,  // and its start time in clock ticks since boot (/proc/PID/stat, field 22)
};

// The word that names a directory or a segment.
struct Place {
  uint32_t units = 0;       // 0: there is none, which reads as empty
  uint16_t generation = 0;  // 14 bits
  uint8_t depth = 0;        // directory: its depth; segment: how many bits of the hash its keys share
  uint8_t sizeLog2 = 0;     // in words

  size_t offset() const { return size_t{units} * unitBytes; }
  size_t words() const { return size_t{1} << sizeLog2; }
  size_t bytes() const { return words() * sizeof(uint64_t); }

  uint64_t word() const {
    const uint64_t low =
        units | static_cast<uint64_t>(generation & 0x3FFF) << 32 | uint64_t{depth} << 46 | uint64_t{sizeLog2} << 51;
    return low | check(low) << 56;
  }
  static bool isIntact(uint64_t word) { return word >> 56 == check(word & ~(uint64_t{0xFF} << 56)); }
  static Place of(uint64_t word) {
    return {static_cast<uint32_t>(word), static_cast<uint16_t>(word >> 32 & 0x3FFF),
            static_cast<uint8_t>(word >> 46 & 0x1F), static_cast<uint8_t>(word >> 51 & 0x1F)};
  }

 private:
  static uint64_t check(uint64_t low) {
    low ^= low >> 32;
    low ^= low >> 16;
    low ^= low >> 8;
    return (low ^ 0xA5) & 0xFF;
  }
};
inline constexpr unsigned placeBitsMax = 31;  // of depth and sizeLog2

inline constexpr size_t bucketWords = lineBytes / sizeof(uint64_t);
inline constexpr uint64_t emptyWord = 0;
inline constexpr uint64_t tombstone = uint64_t{1} << 32;

constexpr uint64_t indexWord(uint64_t fingerprint, uint16_t generation, uint32_t units) {
  return fingerprint << 48 | uint64_t{generation} << 32 | units;
}
constexpr uint64_t fingerprintOf(uint64_t word) { return word >> 48; }
constexpr uint32_t unitsOf(uint64_t word) { return static_cast<uint32_t>(word); }
constexpr bool isLive(uint64_t word) { return fingerprintOf(word) != 0; }
// Equal for two words of one key, less than 65536 changes apart: they name the same version of its record.
constexpr uint64_t versionOf(uint64_t word) { return word >> 32; }

// Which words of a bucket carry a fingerprint, one bit each; and whether one is empty. Without branches on the words:
// the CPU would guess them wrong once a look-up, and with a right guess it already begins the next look-up while this
// one waits for memory.
inline unsigned matchesIn(const Word* bucket, uint64_t fingerprint) {
#if defined(MEMTAB_COMPARES_PAIRS)
  // An x86 loads each word of an aligned pair at once and in order, which is what an acquire load of a word is there;
  // the fence binds the compiler. Of two pairs of words the upper halves come together, and of these the upper halves
  // again are what is compared.
  const __m128i wanted = _mm_set1_epi16(static_cast<int16_t>(fingerprint));
  const auto* const pairs = reinterpret_cast<const __m128i*>(bucket);
  const auto matchesOf = [&](int pair) {
    const __m128 first = _mm_castsi128_ps(_mm_load_si128(pairs + pair));
    const __m128 second = _mm_castsi128_ps(_mm_load_si128(pairs + pair + 1));
    const __m128i uppers = _mm_castps_si128(_mm_shuffle_ps(first, second, _MM_SHUFFLE(3, 1, 3, 1)));
    return _mm_srai_epi32(_mm_cmpeq_epi16(uppers, wanted), 16);
  };
  const __m128i matches = _mm_packs_epi32(matchesOf(0), matchesOf(2));
  std::atomic_signal_fence(std::memory_order_acquire);
  return static_cast<unsigned>(_mm_movemask_epi8(_mm_packs_epi16(matches, _mm_setzero_si128())));
#else
  uint64_t result = 0;
#pragma GCC unroll 8
  for (unsigned i = 0; i < bucketWords; ++i) {
    const uint64_t difference = fingerprintOf(bucket[i].load(std::memory_order_acquire)) ^ fingerprint;
    result |= (difference - 1) >> 63 << i;
  }
  return static_cast<unsigned>(result);
#endif
}
inline bool hasEmptyWord(const Word* bucket) {
  bool result = false;
#pragma GCC unroll 8
  for (unsigned i = 0; i < bucketWords; ++i) {
    result |= bucket[i].load(std::memory_order_acquire) == emptyWord;
  }
  return result;
}

// Where a hash belongs in a segment. The multiplication makes both parts depend on all bits, whatever share of them the
// directory already used. No fingerprint is 0: that is how empty words and tombstones match nobody.
struct Spot {
  explicit constexpr Spot(uint64_t hash) : mixed((hash ^ hash >> 32) * 0x9E37'79B9'7F4A'7C15) {}
  constexpr uint64_t fingerprint() const { return mixed >> 48 == 0 ? 1 : mixed >> 48; }
  constexpr size_t bucket(size_t buckets) const { return (mixed >> 20) & (buckets - 1); }
  uint64_t mixed;
};

// The directory index of a hash: its upper bits.
constexpr size_t prefixOf(uint64_t hash, unsigned depth) { return depth == 0 ? 0 : hash >> (64 - depth); }

// The greatest hash that shares the upper depth bits with hash.
constexpr uint64_t lastHashOf(uint64_t hash, unsigned depth) {
  return depth == 0 ? ~uint64_t{0} : hash | ~uint64_t{0} >> depth;
}

// Asks for all lines of a block of usual size. An address where nothing is does no harm.
inline void prefetchBlock(const std::byte* block) {
  constexpr size_t usualBytes = 112;
  __builtin_prefetch(block);
  __builtin_prefetch(block + lineBytes);
  __builtin_prefetch(block + usualBytes - 1);
}

// Whether two keys are the same one. They are a few bytes long: calling a function would cost more than comparing.
inline bool isSameKey(Bytes a, Bytes b) {
  if (a.size() != b.size()) {
    return false;
  }
  size_t at = 0;
  for (; a.size() - at >= sizeof(uint64_t); at += sizeof(uint64_t)) {
    uint64_t words[2];
    std::memcpy(&words[0], a.data() + at, sizeof(uint64_t));
    std::memcpy(&words[1], b.data() + at, sizeof(uint64_t));
    if (words[0] != words[1]) {
      return false;
    }
  }
  while (at < a.size() && a[at] == b[at]) {
    ++at;
  }
  return at == a.size();
}

// The first word of a block.
struct BlockHead {
  uint32_t checksum;
  uint32_t length;  // of the whole block, this word included
  uint8_t collection;
  uint16_t keyLength;

  static constexpr uint32_t lengthMax = (1u << 20) - 1;
  static constexpr uint32_t keyLengthMax = (1u << 9) - 1;

  size_t words() const { return (size_t{length} + 7) / 8; }
  size_t recordAt() const { return sizeof(uint64_t) + keyLength; }
  bool isSane() const { return length >= recordAt(); }
  uint64_t word() const {
    return checksum | static_cast<uint64_t>(length | uint32_t{collection} << 20 | uint32_t{keyLength} << 23) << 32;
  }
  static BlockHead of(uint64_t word) {
    const auto upper = static_cast<uint32_t>(word >> 32);
    return {static_cast<uint32_t>(word), upper & lengthMax, static_cast<uint8_t>(upper >> 20 & 7),
            static_cast<uint16_t>(upper >> 23)};
  }
};

// One change in the ring. The writer stores 0 in the first word, then the others, then the sequence number.
struct RingSlot {
  static constexpr size_t words = lineBytes / sizeof(uint64_t);
  static constexpr unsigned wordsLog2 = 3;
  static constexpr size_t keyBytes = (words - 2) * sizeof(uint64_t);
  static constexpr uint64_t headWord(unsigned collection, size_t keyLength) {
    return collection | uint64_t{keyLength} << 8;
  }
  static constexpr unsigned collectionOf(uint64_t head) { return head & 0xFF; }
  static constexpr size_t keyLengthOf(uint64_t head) { return head >> 8 & 0xFFFF; }
};
static_assert(size_t{1} << RingSlot::wordsLog2 == RingSlot::words);

}  // namespace Memtab
