// Taking over regions whose bytes are not what the writer wrote: refused and untouched, or repaired, with all that is
// missing reported.
#include "tests/runtime/Memtab/CrashScene.h"

namespace Memtab {
namespace {

class DamagedScene {
 public:
  explicit DamagedScene(int keys) {
    Life life(memory_);
    for (int i = 0; i < keys; ++i) {
      const std::string key = "key" + std::to_string(i);
      const unsigned c = i % 8 == 0 ? 1 : 0;
      const std::string record = key + std::string(static_cast<size_t>(i) % 70, 'r');
      life.store->put(c, spreadHash(bytesOf(key)), bytesOf(key), bytesOf(record));
      contents_[c][{spreadHash(bytesOf(key)), key}] = record;
    }
    used_ = life.store->allocator().end();
    whole_ = bytes = memory_.bytes();
  }
  uint64_t& at(size_t offset) { return *reinterpret_cast<uint64_t*>(bytes.data() + offset); }
  size_t used() const { return used_; }
  void heal() { bytes = whole_; }

  struct Outcome {
    bool isRefused = false;
    size_t lost = 0, damages = 0;
  };
  // Takes the bytes over. What is not refused has only right records, a sound structure, and room for the others.
  Outcome takeOver() {
    Outcome outcome;
    memory_.bytesAre(bytes);
    try {
      const Life life(memory_);
      outcome.damages = life.store->takeOver().damages.size();
      EXPECT_EQ(life.faults(), "");
      for (unsigned c = 0; c < 2; ++c) {
        const Content left = walk(life.store->reader(), c);
        EXPECT_TRUE(std::includes(contents_[c].begin(), contents_[c].end(), left.begin(), left.end()));
        outcome.lost += contents_[c].size() - left.size();
        putBack(life, c, left);
      }
      EXPECT_EQ(life.faults(), "");
    } catch (const IncompatibleTable& error) {
      outcome.isRefused = true;
      EXPECT_FALSE(std::string(error.what()).empty());
      EXPECT_TRUE(memory_.bytes() == bytes);
    }
    return outcome;
  }

  std::vector<std::byte> bytes;

 private:
  void putBack(const Life& life, unsigned c, const Content& left) {
    for (const auto& [place, record] : contents_[c]) {
      const PutResult result = life.store->put(c, place.first, bytesOf(place.second), bytesOf(record));
      EXPECT_EQ(result, left.contains(place) ? PutResult::unchanged : PutResult::inserted);
    }
    expectContent(life.store->reader(), c, contents_[c]);
  }

  Memory memory_;
  Contents contents_;
  std::vector<std::byte> whole_;
  size_t used_ = 0;
};

// Fails if one flipped bit makes a take-over lose more than what it hit, or lose anything in silence.
TEST(MemtabHostileTakeOver, everyFlippedBit) {
  DamagedScene scene(500);
  const Place directory = Place::of(scene.at(descriptorsAt));
  ASSERT_GE(directory.depth, 1u);
  const Place segment = Place::of(scene.at(directory.offset()));
  std::vector<size_t> offsets = {directory.offset(), directory.offset() + 8};
  for (size_t offset = 0; offset < ownerStartAt + 16; offset += 8) {
    offsets.push_back(offset);
  }
  size_t slot = segment.offset();
  for (; !isLive(scene.at(slot)); slot += 8) {
    offsets.push_back(slot);
  }
  const size_t block = size_t{unitsOf(scene.at(slot))} * unitBytes;
  offsets.insert(offsets.end(), {slot, block, block + 8, block + 16});
  size_t refused = 0;
  for (const size_t offset : offsets) {
    for (unsigned bit = 0; bit < 64 && !HasFailure(); ++bit) {
      SCOPED_TRACE("word at " + std::to_string(offset) + ", bit " + std::to_string(bit));
      scene.at(offset) ^= uint64_t{1} << bit;
      const auto outcome = scene.takeOver();
      scene.at(offset) ^= uint64_t{1} << bit;
      refused += outcome.isRefused;
      const bool isPrefix = offset == directory.offset() || offset == directory.offset() + 8;
      EXPECT_LE(outcome.lost, isPrefix ? 400u : 1u);
      EXPECT_TRUE(outcome.lost == 0 || outcome.damages != 0);
    }
  }
  EXPECT_GT(refused, 64 * 3u);  // magic, version, fingerprint and more
}

// Fails if any content makes a take-over crash, hang, read wrong, or leave what later changes stumble over.
TEST(MemtabHostileTakeOver, randomWords) {
  size_t refused = 0;
  size_t lost = 0;
  const bool isWhole = Support::forEachSeed(150, [&](unsigned seed) {
    DamagedScene scene(1200);
    std::mt19937_64 random(seed);
    const bool isFlip = seed % 2 == 0;
    for (unsigned i = 1u << random() % 12; i > 0; --i) {
      const bool isHeader = !isFlip && random() % 64 == 0;
      uint64_t& word =
          scene.at(isHeader ? random() % 40 * 8 : headerBytes + random() % (scene.used() - headerBytes) / 8 * 8);
      const uint64_t values[] = {random(), scene.at(random() % scene.used() / 8 * 8), 0, ~uint64_t{0}};
      word = isFlip ? word ^ uint64_t { 1 } << random() % 64 : values[random() % 4];
    }
    const auto outcome = scene.takeOver();
    EXPECT_TRUE(outcome.lost == 0 || outcome.damages != 0);
    refused += outcome.isRefused;
    lost += outcome.lost;
  });
  std::printf("refused %zu, records lost and put back %zu\n", refused, lost);
  EXPECT_TRUE(!isWhole || lost > 1000u);
}

// Fails if a piece that two words claim is handed out while one of them stands, or freed twice later.
TEST(MemtabHostileTakeOver, twoWordsForOnePiece) {
  DamagedScene scene(500);
  const Place directory = Place::of(scene.at(descriptorsAt));
  const Place segment = Place::of(scene.at(directory.offset()));
  for (size_t bucket = 0; bucket < segment.words(); bucket += bucketWords) {
    uint64_t* const words = &scene.at(segment.offset() + 8 * bucket);
    if (isLive(words[0]) && words[bucketWords - 1] == emptyWord) {
      words[bucketWords - 1] = words[0];
      EXPECT_EQ(scene.takeOver().damages, 1u);
      scene.heal();
    }
  }
  Place shifted = Place::of(scene.at(directory.offset() + 8));
  shifted.units = segment.units + lineBytes / unitBytes;
  scene.at(directory.offset() + 8) = shifted.word();
  EXPECT_GE(scene.takeOver().damages, 1u);
}

// Fails if a table that lost its header passes for an empty one.
TEST(MemtabHostileTakeOver, wipedHeaderIsNoNewTable) {
  for (const size_t wiped : {size_t{8}, headerBytes}) {
    DamagedScene scene(100);
    std::fill_n(scene.bytes.begin(), wiped, std::byte{0});
    EXPECT_TRUE(scene.takeOver().isRefused);
  }
}

}  // namespace
}  // namespace Memtab
