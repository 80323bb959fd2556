// Groups against plain maps: what is seen while a group is open, what it reports, and what it leaves.
#include "tests/runtime/Memtab/Structure.h"

namespace Memtab {
namespace {

using Placed = std::tuple<unsigned, uint64_t, std::string>;
using Model = std::map<Placed, std::string>;

constexpr HashFn groupHashes[] = {spreadHash, coarseHash};

class GroupScene {
 public:
  explicit GroupScene(size_t bytesMax)
      : store(Region::anonymous(bytesMax), 7, groupHashes, {.ringSlotsLog2 = 3, .referred = 2}) {}

  void put(Model& model, unsigned c, const std::string& key, const std::string& record) {
    const uint64_t hash = groupHashes[c](bytesOf(key));
    const auto old = model.find({c, hash, key});
    const PutResult expected = old == model.end()      ? PutResult::inserted
                               : old->second == record ? PutResult::unchanged
                                                       : PutResult::replaced;
    ASSERT_EQ(store.put(c, hash, bytesOf(key), bytesOf(record)), expected);
    model[{c, hash, key}] = record;
  }
  void del(Model& model, unsigned c, const std::string& key) {
    const uint64_t hash = groupHashes[c](bytesOf(key));
    ASSERT_EQ(store.del(c, hash, bytesOf(key)), model.erase({c, hash, key}) == 1);
  }
  void expectSeen(const Model& model, unsigned c, const std::string& key) {
    const uint64_t hash = groupHashes[c](bytesOf(key));
    const Lookup found = store.get(c, hash, bytesOf(key));
    const auto at = model.find({c, hash, key});
    ASSERT_EQ(found.state, at == model.end() ? Found::absent : Found::found);
    ASSERT_TRUE(at == model.end() || textOf(found.record) == at->second);
  }
  void expectEntries(const Model& model) {
    for (unsigned c = 0; c < 2; ++c) {
      ASSERT_EQ(store.entries(c), static_cast<size_t>(std::count_if(model.begin(), model.end(), [&](const auto& each) {
                  return std::get<0>(each.first) == c;
                })));
    }
  }
  Model walked() const {
    Model model;
    for (unsigned c = 0; c < 2; ++c) {
      for (const auto& [place, record] : walk(store.reader(), c)) {
        model[{c, place.first, place.second}] = record;
      }
    }
    return model;
  }

  Store store;
};

// What must have been reported for a group that led from one content to the other.
std::map<Placed, ChangeKind> differences(const Model& before, const Model& after) {
  std::map<Placed, ChangeKind> result;
  for (const auto& [place, record] : after) {
    const auto old = before.find(place);
    if (old == before.end() || old->second != record) {
      result[place] = old == before.end() ? ChangeKind::inserted : ChangeKind::replaced;
    }
  }
  for (const auto& [place, record] : before) {
    if (!after.contains(place)) {
      result[place] = ChangeKind::deleted;
    }
  }
  return result;
}

// Fails if a group shows its changes too early or hides them from itself, reports what did not change, or keeps a part
// when there is no space for all of it.
TEST(MemtabGroup, equalsMap) {
  Support::forEachSeed(1, [](unsigned seed) {
    size_t refused = 0;
    for (const size_t bytesMax : {size_t{1} << 30, size_t{65536} + Allocator::reserveMin}) {
      GroupScene scene(bytesMax);
      Model model;
      Random random(seed);
      for (int round = 0; round < 600 && !HasFailure(); ++round) {
        const Model before = model;
        const uint64_t sequence = scene.store.sequence();
        scene.store.groupBegin();
        const unsigned steps = random() % (random() % 20 == 0 ? 200 : 8);
        for (unsigned i = 0; i < steps; ++i) {
          const unsigned c = random() % 2;
          const std::string key = std::to_string(random() % (i % 2 == 0 ? 700 : 6));
          if (random() % 4 != 0) {
            scene.put(model, c, key, std::string(random() % 3 * 60, static_cast<char>('a' + random() % 2)));
          } else {
            scene.del(model, c, key);
          }
          scene.expectSeen(model, random() % 2, std::to_string(random() % 6));
        }
        scene.expectEntries(model);
        ASSERT_EQ(scene.store.sequence(), sequence);
        std::map<Placed, ChangeKind> told;
        try {
          scene.store.groupEnd([&](unsigned c, Bytes key, ChangeKind kind) {
            EXPECT_TRUE(told.emplace(Placed{c, groupHashes[c](key), textOf(key)}, kind).second);
            EXPECT_EQ(scene.store.sequence(), sequence + differences(before, model).size());
          });
        } catch (const NoSpace&) {
          ++refused;
          model = before;
        }
        ASSERT_TRUE(told == differences(before, model));
        ASSERT_EQ(scene.store.sequence(), sequence + told.size());
        scene.expectEntries(model);
        if (round % 50 == 0) {
          ASSERT_TRUE(scene.walked() == model);
          ASSERT_EQ(Structure(scene.store.view(), groupHashes).faults(scene.store), "");
        }
      }
      ASSERT_TRUE(scene.walked() == model);
    }
    EXPECT_GT(refused, 10u);
  });
}

// Fails if a notified key's handler cannot use the table, or what it throws leaves the group open.
TEST(MemtabGroup, handlersMayWrite) {
  GroupScene scene(size_t{1} << 20);
  Model model;
  scene.store.groupBegin();
  scene.put(model, 0, "a", "1");
  scene.store.groupEnd([&](unsigned, Bytes, ChangeKind) { scene.put(model, 0, "b", "2"); });
  scene.expectEntries(model);
  scene.store.groupBegin();
  scene.put(model, 0, "c", "3");
  const auto thrower = [](unsigned, Bytes, ChangeKind) { throw std::runtime_error("handler"); };
  EXPECT_THROW(scene.store.groupEnd(thrower), std::runtime_error);
  EXPECT_FALSE(scene.store.isGroupOpen());
  EXPECT_TRUE(scene.walked() == model);
}

}  // namespace
}  // namespace Memtab
