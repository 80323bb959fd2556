// The ring of changes, while its slots are overwritten. A reader that takes a wrong key from it follows another record.
#include <atomic>
#include <chrono>
#include <thread>

#include "tests/runtime/Memtab/EngineScene.h"

namespace Memtab {
namespace {

constexpr uint64_t slots = 8;
constexpr unsigned slotsLog2 = 3;

// The key of the n-th change fills its slot with one number.
using RingKey = std::array<uint64_t, RingSlot::keyBytes / sizeof(uint64_t)>;
RingKey keyOf(uint64_t n) {
  RingKey key;
  key.fill(n);
  return key;
}
bool isOf(const Change& change, uint64_t n) {
  return change.keyLength == RingSlot::keyBytes && change.words == keyOf(n);
}

// Fails if a slot has another key than that of its number, between any two stores of a writer. A reader may read it at
// that moment, and a killed writer leaves it like that.
TEST(MemtabRing, everyStoreLeavesEachNumberItsOwnKey) {
  const HashFn hash = spreadHash;
  std::function<void()> watch;
  BasicStore<WatchedStores> store(Region::anonymous(), 7, {&hash, 1}, {.ringSlotsLog2 = slotsLog2}, {&watch});
  const Reader reader(store.view(), {&hash, 1});
  Change change;
  watch = [&] {
    for (uint64_t n = 1; n <= reader.sequence() + 1; ++n) {
      ASSERT_TRUE(!reader.change(n, change) || isOf(change, n)) << n << " of " << reader.sequence();
    }
  };
  for (uint64_t n = 1; n <= 5 * slots; ++n) {
    const RingKey key = keyOf(n);
    const Bytes bytes = std::as_bytes(std::span(key));
    store.put(0, hash(bytes), bytes, {});
    for (uint64_t last = n; last + slots > n && last > 0; --last) {
      EXPECT_TRUE(reader.change(last, change)) << last << " of " << n;
    }
  }
  watch = nullptr;
}

// Fails if a reader that the writer overtakes in mid-copy takes the mixture for a key, or follows a ring word that it
// has not checked.
TEST(MemtabRing, anOvertakenReaderGetsNothing) {
  const HashFn hash = spreadHash;
  Region region = Region::anonymous();
  const View view = region.view();
  Pen<DirectStores> pen(std::move(region), {});
  Changes<DirectStores> changes(pen);
  changes.create(slotsLog2);
  changes.publish(true);
  const Reader reader(view, {&hash, 1});
  std::atomic<bool> isOver{false};
  std::thread writer([&] {
    const uint64_t ring = pen.load(ringAt);
    Place nowhere = Place::of(ring);
    nowhere.units = ~uint32_t{0} - 0xFFFF;
    while (!isOver) {
      const RingKey key = keyOf(changes.sequence() + 1);
      changes.log(0, 0, std::as_bytes(std::span(key)));
      changes.end(1);
      pen.store(ringAt, changes.sequence() % 4 == 0 ? nowhere.word() : ring);
    }
  });
  // Reads during which the writer moved the sequence; other reads prove nothing.
  constexpr size_t racesWanted = 50000;
  size_t races = 0;
  size_t mixed = 0;
  Change change;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  for (unsigned n = 1; races < racesWanted && (n % 1024 != 0 || std::chrono::steady_clock::now() < end); ++n) {
    const uint64_t last = reader.sequence();
    const uint64_t oldest = last < slots ? 1 : last + 1 - slots;  // the writer overwrites it next
    mixed += reader.change(oldest, change) && !isOf(change, oldest);
    races += reader.sequence() != last;
  }
  isOver = true;
  writer.join();
  EXPECT_EQ(mixed, 0u);
  EXPECT_GT(races, 10u);
}

}  // namespace
}  // namespace Memtab
