// A writer that scrubs its table: whichever bytes are damaged while it is at work, a pass finds those that a reader
// would ever use, and afterwards the table is as it was.
#include "tests/runtime/Memtab/EngineScene.h"

namespace Memtab {
namespace {

constexpr HashFn scrubHashes[] = {spreadHash, coarseHash};

class ScrubScene : private ScrubVisitor {
 public:
  explicit ScrubScene(unsigned keys) : keys_(keys), store_(Region::anonymous(), 7, scrubHashes, {.ringSlotsLog2 = 4}) {
    for (unsigned i = 0; i < keys; ++i) {
      put(i % 8 == 0 ? 1 : 0, i, i);
      if (i % 5 == 0) {
        del(0, i / 2);
      }
    }
    store_.readyIs(true);
    EXPECT_EQ(pass(), 0U);
  }

  void put(unsigned collection, unsigned number, unsigned version) {
    const std::string key = "key" + std::to_string(number);
    const std::string record = std::to_string(version) + std::string(number % 90, 'r');
    store_.put(collection, hash(collection, key), bytesOf(key), bytesOf(record));
    contents_[collection][{hash(collection, key), key}] = record;
  }
  void del(unsigned collection, unsigned number) {
    const std::string key = "key" + std::to_string(number);
    store_.del(collection, hash(collection, key), bytesOf(key));
    contents_[collection].erase({hash(collection, key), key});
  }
  void damage(size_t at, size_t length, unsigned mask) {
    for (size_t i = at; i < std::min(at + length, used()); ++i) {
      const_cast<std::byte*>(store_.view().base)[i] ^= std::byte(mask);
    }
  }
  size_t used() const { return store_.allocator().end(); }

  // A pass; after each step the owner writes all of its records again. Returns the number of findings.
  size_t pass() {
    size_t found = 0;
    ScrubPlace place;
    do {
      ScrubReport report;
      store_.scrub(place, *this, report);
      EXPECT_EQ(report.beyondRepair, nullptr) << report.beyondRepair;
      found += report.repaired.size() + report.damaged.size();
      if (report.hasRepairedIndex || !report.damaged.empty()) {
        writeAgain(report.collection);
      }
    } while (place.isBegun);
    return found;
  }
  // Removes damaged records that have no owner, and then writes the missing ones.
  void drop() {
    ScrubPlace place;
    do {
      ScrubReport report;
      store_.scrub(place, *this, report);
      for (const ScrubFinding& finding : report.damaged) {
        store_.dropDamaged(finding.damage);
      }
    } while (place.isBegun);
    writeAgain(0);
    writeAgain(1);
  }
  void expectWhole() const {
    const Reader& reader = store_.reader();
    for (unsigned collection = 0; collection < 2; ++collection) {
      expectContent(reader, collection, contents_[collection]);
      EXPECT_EQ(reader.entries(collection), contents_[collection].size());
    }
    EXPECT_NO_THROW(requireCompatible(store_.view(), 7, 2));
    EXPECT_TRUE(reader.ready());
    EXPECT_EQ(reader.sequence(), store_.sequence());
    EXPECT_EQ(reader.ringSlots(), 16U);
    Change change;
    for (uint64_t sequence = store_.sequence() - 15; sequence <= store_.sequence(); ++sequence) {
      EXPECT_TRUE(!reader.change(sequence, change) || textOf(change.key()).starts_with("key"));
    }
  }

 private:
  void visit(unsigned, Bytes, Bytes) override {}
  static uint64_t hash(unsigned collection, const std::string& key) { return scrubHashes[collection](bytesOf(key)); }
  void writeAgain(unsigned collection) {
    for (const auto& [place, record] : contents_[collection]) {
      store_.put(collection, place.first, bytesOf(place.second), bytesOf(record));
    }
    for (unsigned number = 0; number < keys_; ++number) {
      const std::string key = "key" + std::to_string(number);
      if (!contents_[collection].contains({hash(collection, key), key})) {
        store_.del(collection, hash(collection, key), bytesOf(key));
      }
    }
  }

  const unsigned keys_;
  Store store_;
  std::array<Content, 2> contents_;
};

// Fails if a damaged byte that readers use is not found by one pass, or is not as it was after it.
TEST(MemtabScrub, everyByte) {
  ScrubScene scene(70);
  size_t found = 0;
  const size_t end = scene.used();  // records that are written again come later
  for (size_t at = 0; at < end && !testing::Test::HasFailure(); ++at) {
    SCOPED_TRACE(at);
    scene.damage(at, 1, 1U << at % 8);
    const size_t foundNow = scene.pass();
    found += foundNow != 0;
    if (foundNow == 0) {
      scene.expectWhole();                // no reader uses the byte
      scene.damage(at, 1, 1U << at % 8);  // and no later pass meets it with another
    } else if (at % 16 == 0) {
      scene.expectWhole();
    }
    EXPECT_EQ(scene.pass(), 0U);
  }
  scene.expectWhole();
  EXPECT_GT(found, 1000U);
}

// Fails if neighbouring bytes, damaged together and changed by the writer before the scrub comes by, are not repaired.
TEST(MemtabScrub, burstsAndChanges) {
  Support::forEachSeed(100, [](unsigned seed) {
    Random random(seed);
    const unsigned keys = 400 + random() % 1200;
    ScrubScene scene(keys);
    const size_t length = 1 + random() % 40;
    const size_t at = random() % scene.used();
    scene.damage(at, length, 1 + random() % 255);
    if (seed % 2 == 0) {
      for (unsigned i = random() % 300; i > 0; --i) {
        const unsigned number = random() % keys;
        random() % 3 == 0 ? scene.del(number % 8 == 0, number) : scene.put(number % 8 == 0, number, random() % 1000);
      }
    }
    scene.pass();
    scene.pass();
    scene.drop();
    EXPECT_EQ(scene.pass(), 0U);
    scene.expectWhole();
  });
}

// Fails if a record is lost for good because its segment grew while its index word was damaged.
TEST(MemtabScrub, growthKeepsDamagedWords) {
  Support::forEachSeed(60, [](unsigned seed) {
    Random random(seed);
    ScrubScene scene(300);
    const size_t at = random() % scene.used();
    scene.damage(at, 2, 1 + random() % 255);
    for (unsigned number = 300; number < 700; ++number) {
      scene.put(false, number, 5);
    }
    scene.pass();
    scene.drop();
    EXPECT_EQ(scene.pass(), 0U);
    scene.expectWhole();
  });
}

}  // namespace
}  // namespace Memtab
