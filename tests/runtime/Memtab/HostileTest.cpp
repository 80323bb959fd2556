// Regions whose bytes are not what the writer wrote. Run under AddressSanitizer this also shows that no read leaves the
// usable part.
#include "tests/runtime/Memtab/EngineScene.h"

namespace Memtab {
namespace {

class HostileScene {
 public:
  explicit HostileScene(int keys) : store_(Region::anonymous(), 7, hashes_) {
    for (int i = 0; i < keys; ++i) {
      const std::string key = "key" + std::to_string(i);
      const unsigned c = i % 8 == 0 ? 1 : 0;
      const std::string record = key + std::string(static_cast<size_t>(i) % 70, 'r');
      store_.put(c, spreadHash(bytesOf(key)), bytesOf(key), bytesOf(record));
      content_[c][{spreadHash(bytesOf(key)), key}] = record;
    }
  }
  Word& at(size_t offset) { return *const_cast<Word*>(reinterpret_cast<const Word*>(store_.view().base + offset)); }
  size_t used() const { return store_.bytesUsed(); }
  Store& store() { return store_; }
  const Content& content(unsigned c) const { return content_[c]; }

  // Nothing crashes, hangs or reads wrong. Returns how many keys of collection c are absent or damaged.
  struct Losses {
    size_t absent = 0, damaged = 0, notWalked = 0, reported = 0;
  };
  Losses look(unsigned c) {
    Losses losses;
    for (const auto& [place, record] : content_[c]) {
      const Lookup lookup = store_.get(c, place.first, bytesOf(place.second));
      losses.absent += lookup.state == Found::absent;
      losses.damaged += lookup.state == Found::damaged;
      if (lookup.state == Found::found) {
        EXPECT_EQ(textOf(lookup.record), record);
      } else if (lookup.state == Found::damaged) {
        EXPECT_FALSE(lookup.damage.text().empty());
      }
    }
    Cursor cursor = store_.cursor(c);
    size_t walked = 0;
    for (Cursor::Step step = cursor.next(); step != Cursor::Step::end; step = cursor.next()) {
      EXPECT_NE(step, Cursor::Step::recovering);
      if (step == Cursor::Step::entry) {
        ++walked;
        const auto known = content_[c].find({cursor.hash(), textOf(cursor.key())});
        EXPECT_TRUE(known != content_[c].end() && known->second == textOf(cursor.record()));
      } else {
        ++losses.reported;
      }
    }
    losses.notWalked = content_[c].size() - walked;
    return losses;
  }

 private:
  HashFn hashes_[2] = {spreadHash, spreadHash};
  Store store_;
  Content content_[2];
};

// Fails if one flipped bit on the way to a record passes for "no such record". Only a flipped fingerprint does so to a
// look-up, and there the walk notices.
TEST(MemtabHostile, everyFlippedBitIsNoticed) {
  HostileScene scene(1200);
  const Place directory = Place::of(scene.at(descriptorsAt));
  ASSERT_GE(directory.depth, 1u);
  size_t index = Place::of(scene.at(directory.offset())).offset();
  while (!isLive(scene.at(index))) {
    index += sizeof(uint64_t);
  }
  const size_t block = size_t{unitsOf(scene.at(index))} * unitBytes;
  for (const size_t at : {size_t{descriptorsAt}, directory.offset(), directory.offset() + 8, index, block, block + 8}) {
    for (unsigned bit = 0; bit < 64; ++bit) {
      SCOPED_TRACE("word at " + std::to_string(at) + ", bit " + std::to_string(bit));
      const bool isFingerprint = at == index && bit >= 48;
      const bool isGeneration = at == index && bit >= 32 && bit < 48;  // tells reuse apart, names nothing
      const uint64_t good = scene.at(at);
      scene.at(at) = good ^ uint64_t { 1 } << bit;
      const auto losses = scene.look(0);
      EXPECT_EQ(losses.absent, isFingerprint ? 1u : 0u);
      EXPECT_EQ(losses.damaged != 0, !isFingerprint && !isGeneration);
      EXPECT_EQ(losses.notWalked != 0 && losses.reported != 0, !isGeneration);
      scene.at(at) = good;
    }
  }
  EXPECT_EQ(scene.look(0).notWalked, 0u);
}

// Fails if any content of the region crashes, hangs or misleads a reader, or the writer that goes on in it.
TEST(MemtabHostile, randomWords) {
  Support::forEachSeed(40, [](unsigned seed) {
    HostileScene scene(1500);
    std::mt19937_64 random(seed);
    for (int round = 0; round < 6; ++round) {
      for (int i = 0; i < 1 << (2 * round); ++i) {
        const size_t where = random() % 4 == 0 ? random() % 32 * 8 : random() % (scene.used() / 8) * 8;
        Word& word = scene.at(where);
        const uint64_t values[] = {random(), word ^ uint64_t{1} << random() % 64,
                                   scene.at(random() % scene.used() / 8 * 8), 0, ~uint64_t{0}};
        word = values[random() % 5];
      }
      scene.look(0);
      scene.look(1);
    }
    for (int i = 0; i < 3000; ++i) {
      const std::string key = "key" + std::to_string(random() % 3000);
      const unsigned c = random() % 2;
      if (random() % 2 == 0) {
        scene.store().put(c, spreadHash(bytesOf(key)), bytesOf(key), bytesOf(key));
      } else {
        scene.store().del(c, spreadHash(bytesOf(key)), bytesOf(key));
      }
    }
  });
}

// Fails if a damaged record cannot be replaced or deleted, or takes others with it.
TEST(MemtabHostile, damagedRecordsAreReplaced) {
  HostileScene scene(1000);
  const Place segment = Place::of(scene.at(Place::of(scene.at(descriptorsAt)).offset()));
  for (size_t slot = 0; slot < segment.words(); ++slot) {
    const uint64_t word = scene.at(segment.offset() + 8 * slot);
    if (isLive(word)) {
      scene.at(size_t{unitsOf(word)} * unitBytes + (slot % 2 == 0 ? 8 : 0)) ^= 0x10;  // key, or checksum
    }
  }
  const size_t entries = scene.store().entries(0);
  EXPECT_GT(scene.look(0).damaged, 10u);
  for (const auto& [place, record] : scene.content(0)) {
    EXPECT_NE(scene.store().put(0, place.first, bytesOf(place.second), bytesOf(record)), PutResult::inserted);
  }
  EXPECT_EQ(scene.store().entries(0), entries);
  expectContent(scene.store().reader(), 0, scene.content(0));
}

}  // namespace
}  // namespace Memtab
