// The parts under the engine: checksum, size classes, region.
#include <set>

#include "runtime/Memtab/Crc32c.h"
#include "tests/runtime/Memtab/EngineScene.h"

namespace Memtab {
namespace {

// Fails if the CPU's instruction and the tables disagree: regions would read as damaged on another machine.
TEST(MemtabParts, checksums) {
  std::mt19937_64 random(1);
  for (size_t count = 0; count < 70; ++count) {
    std::vector<uint64_t> data(count);
    std::generate(data.begin(), data.end(), random);
    const uint64_t head = random();
    std::vector<Word> shared(count);
    for (size_t i = 0; i < count; ++i) {
      shared[i] = data[i];
    }
    std::vector<uint64_t> copy(count);
    EXPECT_EQ(crcOf(head, data.data(), count), crcOfPortable(head, data.data(), count));
    EXPECT_EQ(crcCopy(head, shared.data(), copy.data(), count), crcOfPortable(head, data.data(), count));
    EXPECT_EQ(copy, data);
  }
}

// Fails if a piece is smaller than asked for, wastes more than an eighth, or overlaps another.
TEST(MemtabParts, allocatorGivesDisjointPieces) {
  for (size_t bytes = 1; bytes < 70000; bytes += 1 + bytes / 50) {
    const size_t room = Allocator::classBytes(Allocator::sizeClass(bytes));
    EXPECT_GE(room, bytes);
    EXPECT_LE(room, bytes + std::max(unitBytes - 1, bytes / 8));
    EXPECT_EQ(Allocator::sizeClass(room), Allocator::sizeClass(bytes));
  }
  Region region = Region::anonymous();
  Allocator allocator(region);
  Random random(2);
  std::map<size_t, size_t> pieces;  // begin -> bytes
  for (int i = 0; i < 20000; ++i) {
    if (random() % 3 != 0 || pieces.empty()) {
      const size_t bytes = 1 + random() % (random() % 20 == 0 ? 6000 : 300);
      const size_t at = size_t{allocator.allocate(bytes)} * unitBytes;
      ASSERT_GE(at, headerBytes);
      ASSERT_LE(at + bytes, region.size());
      ASSERT_TRUE(bytes > 64 || at / 64 == (at + bytes - 1) / 64);
      const auto behind = pieces.lower_bound(at);
      ASSERT_TRUE(behind == pieces.end() || behind->first >= at + bytes);
      ASSERT_TRUE(behind == pieces.begin() || std::prev(behind)->first + std::prev(behind)->second <= at);
      pieces[at] = bytes;
    } else {
      const auto victim = pieces.lower_bound(random() % region.size());
      if (victim != pieces.end()) {
        allocator.release(static_cast<uint32_t>(victim->first / unitBytes), victim->second);
        pieces.erase(victim);
      }
    }
  }
  for (const auto& [at, bytes] : pieces) {
    allocator.release(static_cast<uint32_t>(at / unitBytes), bytes);
  }
  EXPECT_EQ(allocator.bytesUsed(), headerBytes);
}

// Fails if growing moves memory, views lose track when the region object moves, or the limit is not kept.
TEST(MemtabParts, regionGrowsInPlace) {
  Region region = Region::anonymous(size_t{1} << 20);
  const std::byte* base = region.base();
  const View view = region.view();
  region.base()[100] = std::byte{42};
  region.extendTo(500000);
  Region moved = std::move(region);
  moved.extendTo(size_t{1} << 20);
  EXPECT_EQ(moved.base(), base);
  EXPECT_EQ(view.size(), size_t{1} << 20);
  EXPECT_EQ(view.base[100], std::byte{42});
  EXPECT_EQ(view.base[view.size() - 1], std::byte{0});
  EXPECT_THROW(moved.extendTo((size_t{1} << 20) + 1), NoSpace);
  EXPECT_EQ(moved.size(), size_t{1} << 20);
}

}  // namespace
}  // namespace Memtab
