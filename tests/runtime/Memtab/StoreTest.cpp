// The engine against a plain map: content, order, growth and shrinking, walks under change, a full region.
#include "tests/runtime/Memtab/EngineScene.h"

namespace Memtab {
namespace {

struct Row {
  int line;
  HashFn hash;
  unsigned keys, steps;
  size_t recordMax;
};

// Fails if a split, merge, tombstone or reused block loses or mixes records, whatever the hash is like.
TEST(MemtabStore, equalsMap) {
  Support::forEachSeed(1, [](unsigned seed) {
    for (const Row& row : {Row{__LINE__, spreadHash, 12, 2000, 40}, Row{__LINE__, spreadHash, 6000, 60000, 120},
                           Row{__LINE__, spreadHash, 300, 3000, 20000}, Row{__LINE__, narrowHash, 3000, 20000, 60},
                           Row{__LINE__, coarseHash, 1500, 8000, 60}}) {
      SCOPED_TRACE(row.line);
      const HashFn hashes[] = {row.hash, spreadHash};
      Store store(Region::anonymous(), 7, hashes);
      Content content[2];
      Random random(seed);
      for (unsigned step = 0; step < row.steps; ++step) {
        const unsigned c = random() % 2;
        const std::string key = std::string(random() % 3, 'k') + std::to_string(random() % row.keys);
        const std::string record(random() % row.recordMax, static_cast<char>(random()));
        const uint64_t hash = hashes[c](bytesOf(key));
        const auto old = content[c].find({hash, key});
        const uint64_t sequence = store.sequence();
        if (random() % 8 < (step / 4096 % 2 == 0 ? 5u : 2u)) {  // phases of growth and of decline
          const PutResult expected = old == content[c].end() ? PutResult::inserted
                                     : old->second == record ? PutResult::unchanged
                                                             : PutResult::replaced;
          ASSERT_EQ(store.put(c, hash, bytesOf(key), bytesOf(record)), expected);
          ASSERT_EQ(store.sequence(), sequence + (expected == PutResult::unchanged ? 0 : 1));
          content[c][{hash, key}] = record;
        } else {
          ASSERT_EQ(store.del(c, hash, bytesOf(key)), old != content[c].end());
          if (old != content[c].end()) {
            content[c].erase(old);
          }
          ASSERT_EQ(store.get(c, hash, bytesOf(key)).state, Found::absent);
        }
        ASSERT_EQ(store.entries(c), content[c].size());
        if (step % (row.steps / 8) == 0) {
          expectContent(store.reader(), c, content[c]);
        }
      }
      expectContent(store.reader(), 0, content[0]);
      expectContent(store.reader(), 1, content[1]);
    }
  });
}

// Fails if growth stalls, if deleting everything leaves segments or directories behind, or if small tables are dear.
TEST(MemtabStore, growsAndShrinks) {
  const HashFn hashes[] = {spreadHash, narrowHash};
  Store store(Region::anonymous(), 7, hashes);
  const size_t bytesEmpty = store.bytesUsed();
  for (const unsigned count : {10u, 150000u}) {
    for (unsigned c = 0; c < (count == 10 ? 2u : 1u); ++c) {
      Content content;
      for (unsigned i = 0; i < count; ++i) {
        const std::string key = std::to_string(i);
        content[{hashes[c](bytesOf(key)), key}] = key + key;
        store.put(c, hashes[c](bytesOf(key)), bytesOf(key), bytesOf(key + key));
      }
      if (count == 10) {
        EXPECT_LE(store.bytesUsed() - bytesEmpty, 1300u);
      }
      expectContent(store.reader(), c, content);
      for (const auto& [place, record] : content) {
        ASSERT_TRUE(store.del(c, place.first, bytesOf(place.second)));
      }
      EXPECT_EQ(store.entries(c), 0u);
      EXPECT_TRUE(walk(store.reader(), c).empty());
    }
  }
  EXPECT_LE(store.bytesUsed() - bytesEmpty, 4096u);
  EXPECT_LE(store.bytesMapped(), size_t{2} << 20);
}

// Fails if a change between two steps makes a walk skip, repeat or invent an entry.
TEST(MemtabCursor, survivesChanges) {
  Support::forEachSeed(1, [](unsigned seed) {
    for (const HashFn hash : {&spreadHash, &coarseHash}) {
      Store store(Region::anonymous(), 7, {&hash, 1});
      Random random(seed);
      Content content;
      const auto change = [&] {
        const std::string key = std::to_string(random() % 3000);
        const std::string record = std::to_string(random());
        const uint64_t h = hash(bytesOf(key));
        if (random() % 2 == 0) {
          store.put(0, h, bytesOf(key), bytesOf(record));
          content[{h, key}] = record;
        } else {
          store.del(0, h, bytesOf(key));
          content.erase({h, key});
        }
        return std::pair(h, key);
      };
      for (int round = 0; round < 18; ++round) {
        for (int i = 0; i < 3000; ++i) {
          change();
        }
        Cursor cursor = store.cursor(0);
        const auto start = std::next(content.begin(), static_cast<long>(random() % content.size()))->first;
        cursor.seek(start.first, bytesOf(start.second));
        Content waiting(content.find(start), content.end());  // present all the time, and not returned yet
        std::pair<uint64_t, std::string> last;
        for (Cursor::Step step = cursor.next(); step != Cursor::Step::end; step = cursor.next()) {
          ASSERT_EQ(step, Cursor::Step::entry);
          const std::pair at(cursor.hash(), textOf(cursor.key()));
          ASSERT_TRUE(at >= start && last < at);
          ASSERT_EQ(content.at(at), textOf(cursor.record()));
          waiting.erase(at);
          last = at;
          for (unsigned i = random() % (1u << round % 6); i > 0; --i) {
            const auto changed = change();
            if (!content.contains(changed)) {
              waiting.erase(changed);
            }
          }
        }
        EXPECT_TRUE(waiting.empty());
      }
    }
  });
}

// Fails if the last put before the region is full loses something, or if room cannot be used again.
TEST(MemtabStore, fullRegion) {
  const HashFn hash = spreadHash;
  Store store(Region::anonymous(430000), 7, {&hash, 1}, {.ringSlotsLog2 = 3});
  Content content;
  const auto put = [&](const std::string& key, const std::string& record) {
    const auto result = store.put(0, hash(bytesOf(key)), bytesOf(key), bytesOf(record));
    content[{hash(bytesOf(key)), key}] = record;
    return result;
  };
  unsigned refused = 0;
  for (unsigned i = 0; refused < 300; ++i) {  // goes on when it is full: other sizes, other ways to fail
    const uint64_t sequence = store.sequence();
    try {
      put(std::to_string(i), std::string(refused == 0 ? 90 : 20 * refused, 'r'));
    } catch (const NoSpace&) {
      ++refused;
      ASSERT_EQ(store.sequence(), sequence);
      ASSERT_EQ(store.entries(0), content.size());
    }
  }
  EXPECT_GT(content.size(), 2000u);
  expectContent(store.reader(), 0, content);
  while (!content.empty()) {
    const auto place = content.begin()->first;
    ASSERT_TRUE(store.del(0, place.first, bytesOf(place.second)));
    content.erase(content.begin());
  }
  for (unsigned i = 0; i < 1500; ++i) {
    put(std::to_string(i), std::string(90, 's'));
  }
  expectContent(store.reader(), 0, content);
  EXPECT_THROW(put("k", std::string(1 << 20, 'r')), Zol::RangeException);
  EXPECT_THROW(put(std::string(512, 'k'), ""), Zol::RangeException);
}

}  // namespace
}  // namespace Memtab
