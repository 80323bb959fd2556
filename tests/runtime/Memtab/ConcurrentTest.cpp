// A reader's thread against a writer's thread. A record repeats one number, so a torn one shows; the test goes on until
// readers were seen to be overtaken, since without that it would prove nothing.
#include <atomic>
#include <chrono>
#include <thread>

#include "tests/runtime/Memtab/EngineScene.h"

namespace Memtab {
namespace {

constexpr unsigned keysSteady = 200;     // always there, replaced all the time
constexpr unsigned keysFleeting = 2000;  // come and go, so that segments split and merge and the region shrinks

void write(Store& store, const std::atomic<bool>& isOver, std::atomic<size_t>& shrinkages) {
  Random random(1);
  for (unsigned n = 0; !isOver; ++n) {
    const unsigned which = random() % (keysSteady + keysFleeting);
    const unsigned hot = n % 4 == 0 ? which : which % 4;  // most changes hit four keys
    const std::string key = std::to_string(hot);
    const uint64_t hash = spreadHash(bytesOf(key));
    if (hot >= keysSteady && n / 32768 % 2 != 0) {
      const size_t mapped = store.bytesMapped();
      store.del(0, hash, bytesOf(key));
      shrinkages += store.bytesMapped() < mapped;
    } else {
      const std::string record(8 + random() % 200, static_cast<char>(n));
      store.put(0, hash, bytesOf(key), bytesOf(record));
    }
  }
}

bool isWhole(Bytes record) {
  return std::all_of(record.begin(), record.end(), [&](std::byte b) { return b == record.front(); });
}

// Fails if a copy mixes two versions, if a key that is never deleted reads as missing, or if a walk misses it; or if a
// table that is being changed passes for one that lost index words.
TEST(MemtabConcurrent, readersSeeWholeRecords) {
  const HashFn hash = spreadHash;
  Store store(Region::anonymous(), 7, {&hash, 1}, {.ringSlotsLog2 = 3, .bytesKept = 0});
  for (unsigned i = 0; i < keysSteady; ++i) {
    const std::string key = std::to_string(i);
    store.put(0, hash(bytesOf(key)), bytesOf(key), bytesOf(key.substr(0, 1)));
  }
  std::atomic<bool> isOver{false};
  std::atomic<size_t> shrinkages{0};
  std::thread writer([&] { write(store, isOver, shrinkages); });
  const Reader reader(store.view(), {&hash, 1});
  const auto start = std::chrono::steady_clock::now();
  const auto elapsed = [&] { return std::chrono::steady_clock::now() - start; };
  size_t walks = 0;
  size_t recovering = 0;
  for (unsigned n = 0; elapsed() < std::chrono::seconds(1) ||
                       ((reader.retries() < 10 || shrinkages == 0) && elapsed() < std::chrono::seconds(60));
       ++n) {
    for (unsigned i = 0; i < 1000; ++i) {
      const std::string key = std::to_string(i % 3 == 0 ? i % keysSteady : i % 4);
      const Lookup lookup = reader.get(0, hash(bytesOf(key)), bytesOf(key));
      recovering += lookup.state == Found::recovering;
      if (lookup.state != Found::recovering) {
        ASSERT_EQ(lookup.state, Found::found) << lookup.damage.text();
        ASSERT_TRUE(isWhole(lookup.record));
      }
    }
    for (unsigned i = 0; i < 100; ++i) {
      ASSERT_FALSE(reader.hasLostEntries(0));
    }
    size_t steady = 0;
    Cursor cursor(reader, 0);
    for (Cursor::Step step = cursor.next(); step != Cursor::Step::end; step = cursor.next()) {
      recovering += step == Cursor::Step::recovering;
      ASSERT_NE(step, Cursor::Step::damaged) << cursor.damage().text();
      if (step == Cursor::Step::entry) {
        ASSERT_TRUE(isWhole(cursor.record()));
        steady += std::stoul(textOf(cursor.key())) < keysSteady;
      }
    }
    // A reader that gets no time while the writer does may have to leave a segment out, but it says so.
    ASSERT_TRUE(steady == keysSteady || recovering > 0) << steady;
    ASSERT_LE(steady, keysSteady);
    ++walks;
  }
  isOver = true;
  writer.join();
  EXPECT_GT(reader.retries(), 0u);
  EXPECT_GT(shrinkages.load(), 0u);
  std::printf("walks %zu, shrinkages %zu, retries %lu, changes %lu\n", walks, shrinkages.load(),
              static_cast<unsigned long>(reader.retries()), static_cast<unsigned long>(store.sequence()));
}

}  // namespace
}  // namespace Memtab
