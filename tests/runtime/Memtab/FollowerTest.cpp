#include "tests/runtime/Memtab/FollowerScene.h"

namespace Memtab {
namespace {

class FollowerScene {
 public:
  FollowerScene() : store(Region::anonymous(), 1, numberHashes), reader(store.view(), numberHashes) {}
  Store store;
  Reader reader;
};

// Damages the record of key, or mends it.
void flipByteOf(const Store& store, uint64_t key) {
  static size_t offset = 0;  // of the last record that was found whole
  const Lookup found = store.reader().get(0, numberHashes[0](bytesOf(key)), bytesOf(key));
  if (found.state == Found::found) {
    offset = size_t{unitsOf(found.word)} * unitBytes + sizeof(uint64_t) + sizeof key;
  }
  const_cast<std::byte*>(store.view().base)[offset] ^= std::byte{1};
}

// Random writes with polls and reads ahead of them in between. Fails if a change is lost or reported twice, if nothing
// changed and something is reported, or if another collection's changes are mistaken for ours.
TEST(MemtabFollower, mirrorEqualsTable) {
  size_t ringFollowed = 0;
  size_t compared = 0;
  const bool isWhole = Support::forEachSeed(20, [&](unsigned seed) {
    FollowerScene scene;
    Random random(seed);
    Mirror mirror(scene.reader);
    std::set<uint64_t> touched;
    for (unsigned phase = 0; phase < 30; ++phase) {
      const Numbers before = mirror.numbers;
      const unsigned changes = random() % 5 == 0 ? 6000 : random() % 300;
      const bool isPolled = random() % 2 == 0;
      touched.clear();
      for (unsigned n = 0; n < changes; ++n) {
        const uint64_t key = random() % (phase % 2 == 0 ? 3000 : 40);
        const unsigned collection = random() % 4 == 0 ? 1 : 0;
        const bool isChanged = random() % 3 == 0 ? del(scene.store, key, collection)
                                                 : put(scene.store, key, std::to_string(random() % 50), collection);
        if (isChanged && collection == 0) {
          touched.insert(key);
        }
        if (isPolled && random() % 50 == 0) {
          mirror.poll(random() % 20);
        }
        if (isPolled && random() % 3 == 0) {
          mirror.readAhead(random() % 2 == 0 ? key : random() % 40);
        }
      }
      const uint64_t comparisons = mirror.follower.comparisons();
      const std::set<uint64_t> reported = mirror.settle(1 + random() % 5000);
      (comparisons == mirror.follower.comparisons() ? ringFollowed : compared) += 1;
      ASSERT_TRUE(mirror.numbers == numbersIn(scene.reader)) << "phase " << phase;
      ASSERT_EQ(mirror.follower.knownKeys(), mirror.numbers.size());
      ASSERT_TRUE(std::includes(touched.begin(), touched.end(), reported.begin(), reported.end()));
      for (const uint64_t key : touched) {
        const auto was = before.find(key);
        const auto is = mirror.numbers.find(key);
        const bool isDifferent =
            (was == before.end()) != (is == mirror.numbers.end()) || (was != before.end() && was->second != is->second);
        ASSERT_TRUE(isPolled || !isDifferent || reported.count(key) == 1) << key;
      }
      EXPECT_TRUE(mirror.settle().empty());
    }
    EXPECT_TRUE(mirror.damages.empty());
  });
  if (isWhole) {
    EXPECT_GT(ringFollowed, 50u);
    EXPECT_GT(compared, 50u);
  }
}

// Fails if one change has to wait until the bulk before it has been told, whether the ring still has that or not.
TEST(MemtabFollower, lastChangeIsToldFirst) {
  for (const uint64_t bulk : {1000U, 50000U}) {
    StateDirectoryScene files;
    WriterFile file(files.path, "table", fileFingerprint, 2);
    Store store(file.region(), fileFingerprint, numberHashes);
    file.publish();
    const ReaderFile readerFile(files.path, "table", fileFingerprint, 2);
    const Reader reader(readerFile.view(), numberHashes);
    Mirror mirror(reader);
    mirror.settle();
    for (uint64_t key = 1; key <= bulk; ++key) {
      put(store, key, "bulk");
    }
    put(store, 7, "late");
    mirror.poll(64);
    EXPECT_EQ(mirror.numbers.count(7), 1U);
    EXPECT_LT(mirror.numbers.size(), 100U);
    put(store, 8, "later");
    mirror.poll(64);
    EXPECT_EQ(mirror.numbers.count(8), 1U);
    mirror.settle();
    EXPECT_EQ(mirror.numbers.size(), bulk);
  }
}

// A hash that lets somebody in while a reader looks at a key.
std::function<void()> meanwhile;
uint64_t hookedHash(Bytes key) {
  if (meanwhile) {
    std::exchange(meanwhile, nullptr)();
  }
  return hashOfKeyBytes<uint64_t>(key);
}

// Fails if a comparison loses keys of a segment that the writer splits, merges or moves at that moment: the ring tells
// of the keys that were put or deleted, not of their neighbours.
TEST(MemtabFollower, writerGoesOnDuringComparison) {
  const HashFn hash = hookedHash;
  for (const bool isGrowing : {true, false}) {
    for (int callsBefore = 0; callsBefore < 400; callsBefore += 7) {
      Store store(Region::anonymous(), 1, {&hash, 1});
      const uint64_t keys = isGrowing ? 300 : 3000;
      for (uint64_t key = 0; key < keys; ++key) {
        put(store, key, std::to_string(key));
      }
      const Reader reader(store.view(), {&hash, 1});
      Mirror mirror(reader);
      int calls = 0;
      std::function<void()> count = [&] {
        if (calls++ < callsBefore) {
          meanwhile = count;
          return;
        }
        for (uint64_t key = 0; key < 2900; ++key) {
          isGrowing ? put(store, keys + key, "more") : del(store, key);
        }
      };
      meanwhile = count;
      while (mirror.poll()) {
      }
      meanwhile = nullptr;
      ASSERT_TRUE(mirror.numbers == numbersIn(reader)) << isGrowing << callsBefore;
    }
  }
}

// Fails if a follower's first walk does not end while the table changes at each of its steps by more than the ring
// holds, or if it misses later changes.
TEST(MemtabFollower, primeEndsUnderAFastWriter) {
  constexpr unsigned keys = 3000;
  const HashFn hash = hookedHash;
  Store store(Region::anonymous(), 1, {&hash, 1}, {.ringSlotsLog2 = 3});
  for (uint64_t key = 0; key < keys; ++key) {
    put(store, key, "old");
  }
  const Reader reader(store.view(), {&hash, 1});
  Mirror mirror(reader);
  Random random(1);
  unsigned steps = 0;
  const std::function<void()> write = [&] {
    if (++steps > 20 * keys) {
      throw std::runtime_error("the walk does not end");
    }
    for (int i = 0; i < 20; ++i) {
      put(store, random() % keys, std::to_string(steps));
    }
    meanwhile = write;
  };
  meanwhile = write;
  mirror.follower.prime([](const Damage& damage) { ADD_FAILURE() << damage.text(); });
  meanwhile = nullptr;
  EXPECT_EQ(mirror.follower.knownKeys(), keys);
  mirror.numbers = numbersIn(reader);
  for (uint64_t key = 0; key < keys; key += 7) {
    put(store, key, "new");
  }
  mirror.settle();
  EXPECT_TRUE(mirror.numbers == numbersIn(reader));
  EXPECT_EQ(mirror.numbers.size(), keys);
}

// Fails if an index word that reads the same after its generation has come round is taken for no change.
TEST(MemtabFollower, generationComesRound) {
  size_t sameWords = 0;
  for (const unsigned rounds : {1u, 2u, 3u}) {
    for (const bool isLate : {false, true}) {  // late: the word was stored long before the follower looked last
      FollowerScene scene;
      Mirror mirror(scene.reader);
      put(scene.store, 7, "old");
      const auto wordOf = [&] {
        return scene.reader.get(0, numberHashes[0](bytesOf(uint64_t{7})), bytesOf(uint64_t{7})).word;
      };
      const uint64_t word = wordOf();
      for (unsigned n = 0; isLate && n < 60000; ++n) {
        put(scene.store, 1000 + n % 2, std::to_string(n));
      }
      mirror.settle();
      const uint64_t end = 1 + 65536 * rounds;
      while (scene.store.sequence() + 2 < end) {
        put(scene.store, 1000, std::to_string(scene.store.sequence()));
      }
      del(scene.store, 7);
      put(scene.store, 7, "new");
      EXPECT_EQ(scene.store.sequence(), end);
      sameWords += wordOf() == word;
      EXPECT_EQ(mirror.settle().count(7), 1u) << rounds << isLate;
      EXPECT_EQ(mirror.numbers.at(7), "new");
    }
  }
  EXPECT_GT(sameWords, 0u);
}

// Fails if a part of the table that cannot be read counts as deleted, or if it is news when it can be read again.
TEST(MemtabFollower, damageIsNotAbsence) {
  FollowerScene scene;
  for (uint64_t key = 0; key < 5000; ++key) {
    put(scene.store, key, std::to_string(key));
  }
  Mirror mirror(scene.reader);
  mirror.settle();
  auto* const words = reinterpret_cast<Word*>(const_cast<std::byte*>(scene.store.view().base));
  const Place directory = Place::of(words[descriptorsAt / 8]);
  for (const size_t at : {descriptorsAt / 8, directory.offset() / 8, directory.offset() / 8 + directory.words() - 1}) {
    const uint64_t word = words[at];
    words[at] = word ^ 1;
    mirror.rebind(scene.reader);
    EXPECT_TRUE(mirror.settle().empty());
    EXPECT_EQ(mirror.follower.knownKeys(), 5000u);
    EXPECT_FALSE(mirror.damages.empty());
    words[at] = word;
    mirror.rebind(scene.reader);
    mirror.damages.clear();
    EXPECT_TRUE(mirror.settle().empty());
    EXPECT_TRUE(mirror.damages.empty());
  }
  // Index words that are wiped are no deletions: the header counts more.
  const Place segment = Place::of(words[directory.offset() / 8]);
  std::vector<uint64_t> wiped;
  for (size_t i = 0; i < segment.words(); ++i) {
    wiped.push_back(words[segment.offset() / 8 + i].exchange(emptyWord));
  }
  mirror.rebind(scene.reader);
  EXPECT_TRUE(mirror.settle().empty());
  EXPECT_EQ(mirror.follower.knownKeys(), 5000u);
  EXPECT_FALSE(mirror.damages.empty());
  EXPECT_TRUE(scene.reader.hasLostEntries(0));
  Word& lastPlace = words[directory.offset() / 8 + directory.words() - 1];
  lastPlace ^= 1;  // now nobody can count
  mirror.rebind(scene.reader);
  EXPECT_TRUE(mirror.settle().empty());
  EXPECT_EQ(mirror.follower.knownKeys(), 5000u);
  lastPlace ^= 1;
  for (size_t i = 0; i < segment.words(); ++i) {
    words[segment.offset() / 8 + i] = wiped[i];
  }
  mirror.rebind(scene.reader);
  mirror.damages.clear();
  EXPECT_TRUE(mirror.settle().empty());
  EXPECT_FALSE(scene.reader.hasLostEntries(0));
  put(scene.store, 7, "unreadable");
  flipByteOf(scene.store, 7);
  EXPECT_TRUE(mirror.settle().empty());
  EXPECT_TRUE(mirror.follower.knows(7));
  EXPECT_EQ(mirror.damages.size(), 1u);
  flipByteOf(scene.store, 7);
  mirror.rebind(scene.reader);
  EXPECT_EQ(mirror.settle(), std::set<uint64_t>{7});
}

// A table of a hundred records in a file, whose writer leaves it and has a successor, and a mirror that knows all.
struct Succession {
  Succession() {
    for (uint64_t key = 0; key < 100; ++key) {
      put(*store, key, std::to_string(key));
    }
    file->publish();
    readerFile.emplace(files.path, "table", fileFingerprint, 2);
    reader.emplace(readerFile->view(), numberHashes);
    mirror.emplace(*reader);
    mirror->settle();
  }
  // Opens the file anew; a store of its region is the successor.
  Region leave() {
    store.reset();
    file.reset();
    file.emplace(files.path, "table", fileFingerprint, 2);
    return file->region();
  }

  StateDirectoryScene files;
  std::optional<WriterFile> file{std::in_place, files.path, "table", fileFingerprint, size_t{2}};
  std::optional<Store> store{std::in_place, file->region(), fileFingerprint, numberHashes};
  std::optional<ReaderFile> readerFile;
  std::optional<Reader> reader;
  std::optional<Mirror> mirror;
};

// Fails if a key that a successor found unreadable, and took out, stays known to a reader that looks at any moment of
// the take-over.
TEST(MemtabFollower, successorTakesOut) {
  Succession scene;
  flipByteOf(*scene.store, 7);
  const uint64_t sequence = scene.store->sequence();
  std::function<void()> watch = [&scene] { scene.mirror->poll(); };
  const BasicStore<WatchedStores> successor(scene.leave(), fileFingerprint, numberHashes, {}, WatchedStores{&watch});
  EXPECT_EQ(successor.sequence(), sequence);
  scene.mirror->settle();
  EXPECT_FALSE(scene.mirror->follower.knows(7));
  EXPECT_TRUE(scene.mirror->numbers == numbersIn(*scene.reader));
}

// Fails if what a reader could not read, or left out of a walk, is no news in a file that has it as it was before.
TEST(MemtabFollower, whatWasUnreadableIsNews) {
  FollowerScene one;
  FollowerScene two;
  for (uint64_t key = 0; key < 100; ++key) {
    put(one.store, key, std::to_string(key));
    put(two.store, key, std::to_string(key));
  }
  Mirror mirror(one.reader);
  mirror.settle();
  mirror.follower.handleRead(7, Found::damaged);
  mirror.follower.handleRead(8, Found::absent);
  mirror.rebind(two.reader);
  EXPECT_EQ(mirror.settle(), (std::set<uint64_t>{7, 8}));
  mirror.follower.handleUnread();
  mirror.rebind(one.reader);
  EXPECT_EQ(mirror.settle().size(), 100u);
}

// Fails if a record that a successor took out of a complete table counts as deleted before the table is complete again,
// or does not count then; or if a deletion by the successor is not told at once.
TEST(MemtabFollower, aCompleteTableIsInForceUntilItsSuccessorIs) {
  Succession scene;
  Mirror& mirror = *scene.mirror;
  scene.store->readyIs(true);
  mirror.settle();
  flipByteOf(*scene.store, 7);
  flipByteOf(*scene.store, 8);
  Store successor(scene.leave(), fileFingerprint, numberHashes);
  EXPECT_TRUE(mirror.settle().empty());
  EXPECT_TRUE(mirror.follower.withholds(7));
  put(successor, 8, "again");
  del(successor, 9);
  EXPECT_EQ(mirror.settle(), (std::set<uint64_t>{8, 9}));
  EXPECT_FALSE(mirror.follower.isBehind());
  successor.readyIs(true);
  EXPECT_FALSE(mirror.follower.withholds(7));
  EXPECT_EQ(mirror.settle(), std::set<uint64_t>{7});
  EXPECT_TRUE(mirror.numbers == numbersIn(*scene.reader));
}

// Fails if after a change of the file anything but the difference is reported.
TEST(MemtabFollower, anotherFile) {
  FollowerScene one;
  FollowerScene two;
  for (uint64_t key = 0; key < 3000; ++key) {
    put(one.store, key, std::to_string(key));
    if (key % 10 != 0) {
      put(two.store, 2999 - key, std::to_string(2999 - key + (key % 10 == 5)));
    }
  }
  put(two.store, 5000, "more");
  Mirror mirror(one.reader);
  EXPECT_EQ(mirror.settle(7).size(), 3000u);
  mirror.rebind(two.reader);
  EXPECT_EQ(mirror.settle(7).size(), 601u);
  EXPECT_TRUE(mirror.numbers == numbersIn(two.reader));
}

// Of a key that does not fit into the ring only the beginning is told there.
struct LongKey {
  std::array<uint64_t, 7> words{};
  auto operator<=>(const LongKey&) const = default;
  uint32_t hash() const { return Zol::hashOf(words[6]); }
};
void encodeValue(Zol::ByteWriter& out, const LongKey& key) {
  std::for_each(key.words.begin(), key.words.end(), [&out](uint64_t word) { out.word(word); });
}
void decodeValue(Zol::ByteReader& in, LongKey& key) {
  std::for_each(key.words.begin(), key.words.end(), [&in](uint64_t& word) { decodeValue(in, word); });
}

TEST(MemtabFollower, longKeys) {
  const HashFn hash = hashOfKeyBytes<LongKey>;
  Store store(Region::anonymous(), 1, {&hash, 1});
  Follower<LongKey> follower(store.reader(), 0);
  std::vector<uint64_t> seen;
  for (uint64_t n = 0; n < 100; ++n) {
    LongKey key;
    key.words[6] = n;
    const Bytes bytes = std::as_bytes(std::span(key.words));
    store.put(0, hash(bytes), bytes, bytesOf(std::string("r")));
    while (follower.poll(
        5, [&](const LongKey& k) { seen.push_back(k.words[6]); }, [](const Damage&) { FAIL(); })) {
    }
    ASSERT_EQ(seen.size(), n + 1);
    ASSERT_EQ(seen.back(), n);
  }
}

}  // namespace
}  // namespace Memtab
