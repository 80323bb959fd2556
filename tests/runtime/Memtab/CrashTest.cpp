// Death before any store, enumerated completely: the crash states of an operation are the prefixes of its stores.
#include <set>

#include "tests/runtime/Memtab/CrashScene.h"

namespace Memtab {
namespace {

using Op = std::function<void(MortalStore&)>;
using Bytestring = std::vector<std::byte>;

void put(MortalStore& store, unsigned c, const std::string& key, const std::string& record) {
  store.put(c, spreadHash(bytesOf(key)), bytesOf(key), bytesOf(record));
}
void del(MortalStore& store, unsigned c, const std::string& key) {
  store.del(c, spreadHash(bytesOf(key)), bytesOf(key));
}

// Enumerates the deaths of one operation over one table.
class Enumeration {
 public:
  // Runs op to its end, which becomes the table's content, if isKept.
  void run(const Op& op, bool isKept = true) {
    begin(op);
    bool wasNew = false;
    for (size_t n = 0; n < stores_; ++n) {
      SCOPED_TRACE("death before store " + std::to_string(n) + " of " + std::to_string(stores_));
      memory_.bytesAre(before_);
      Life life(memory_);
      life.left = n;
      ASSERT_FALSE(life.run(op));
      const Contents seen = look(*life.store);
      EXPECT_TRUE(seen == contents_[1] || !wasNew) << "a later store takes the change back";
      wasNew = seen == contents_[1];
      const uint64_t sequence = life.store->reader().sequence();
      const uint64_t intent = life.store->reader().intent();
      EXPECT_EQ(life.rings != 0, sequence != sequences_[0]) << "each visible change rings, and nothing else";
      const Bytestring bytes = memory_.bytes();
      const size_t repairs = succeed(seen, sequence, intent, op);
      if (repairs > plainStores_ || n % 32 == 0 || n + 1 == stores_) {
        succeedMortally(bytes, repairs, seen, intent);
      }
      if (::testing::Test::HasFailure()) {
        return;
      }
    }
    memory_.bytesAre(isKept ? after_ : before_);
  }

  // Dies while a table is made, or taken over.
  void runBeginning() {
    const Bytestring bytes = memory_.bytes();
    Life whole(memory_);
    const Contents contents = contentsOf(whole.store->reader());
    const size_t stores = ~size_t{0} - whole.left;
    succeedMortally(bytes, stores, contents, whole.store->sequence());
    memory_.bytesAre(bytes);
  }

  const Memory& memory() const { return memory_; }
  size_t states() const { return states_; }

 private:
  void begin(const Op& op) {
    before_ = memory_.bytes();
    Life life(memory_);
    plainStores_ = ~size_t{0} - life.left;
    contents_[0] = contentsOf(life.store->reader());
    sequences_[0] = life.store->sequence();
    const size_t left = life.left;
    ASSERT_TRUE(life.run(op));
    stores_ = left - life.left;
    contents_[1] = contentsOf(life.store->reader());
    sequences_[1] = life.store->sequence();
    EXPECT_EQ(life.faults(), "");
    EXPECT_TRUE(refersToStanding(contents_[0]) && refersToStanding(contents_[1]));
    expectRing(life.store->reader());
    after_ = memory_.bytes();
  }

  // The ring names each key that differs, once.
  void expectRing(const Reader& reader) {
    std::set<std::pair<unsigned, std::string>> named, differing;
    for (uint64_t sequence = sequences_[0] + 1; sequence <= sequences_[1]; ++sequence) {
      Change change;
      if (sequence + reader.ringSlots() > sequences_[1]) {
        ASSERT_TRUE(reader.change(sequence, change));
        EXPECT_TRUE(named.emplace(change.collection, textOf(change.key())).second);
      }
    }
    for (unsigned c = 0; c < 2; ++c) {
      for (const unsigned side : {0u, 1u}) {
        for (const auto& [place, record] : contents_[side][c]) {
          const auto other = contents_[1 - side][c].find(place);
          if (other == contents_[1 - side][c].end() || other->second != record) {
            differing.emplace(c, place.second);
          }
        }
      }
    }
    EXPECT_EQ(differing.size(), sequences_[1] - sequences_[0]);
    EXPECT_TRUE(std::includes(differing.begin(), differing.end(), named.begin(), named.end()));
  }

  // What a reader finds right after the death: of each key the old record or the new one.
  Contents look(const MortalStore& store) {
    ++states_;
    const Reader reader(store.view(), crashHashes);
    const Contents seen = contentsOf(reader);
    EXPECT_TRUE(refersToStanding(seen));
    EXPECT_TRUE(reader.sequence() == sequences_[0] || (reader.sequence() == sequences_[1] && seen == contents_[1]));
    for (unsigned c = 0; c < 2; ++c) {
      Content expected = contents_[0][c];
      for (const auto* side : {&contents_[0][c], &contents_[1][c]}) {
        for (const auto& [place, record] : *side) {
          const auto known = seen[c].find(place);
          const auto is = [&](const Content& content) {
            const auto at = content.find(place);
            return known == seen[c].end() ? at == content.end() : at != content.end() && at->second == known->second;
          };
          EXPECT_TRUE(is(contents_[0][c]) || is(contents_[1][c])) << place.second;
          const Lookup lookup = reader.get(c, place.first, bytesOf(place.second));
          EXPECT_EQ(lookup.state, known == seen[c].end() ? Found::absent : Found::found) << place.second;
        }
      }
      EXPECT_LE(seen[c].size(), contents_[0][c].size() + contents_[1][c].size());
    }
    return seen;
  }

  // A successor has what the reader saw, and can do what its predecessor died of. Returns its stores.
  size_t succeed(const Contents& seen, uint64_t sequence, uint64_t intent, const Op& op) {
    Life life(memory_);
    const size_t stores = ~size_t{0} - life.left;
    judge(life, seen, intent);
    EXPECT_GE(life.store->sequence(), sequence);
    EXPECT_EQ(life.store->takeOver().wasUnderWay, intent != sequence);
    EXPECT_TRUE(life.run(op));
    EXPECT_TRUE(contentsOf(life.store->reader()) == contents_[1]);
    EXPECT_EQ(life.faults(), "");
    return stores;
  }

  void succeedMortally(const Bytestring& bytes, size_t stores, const Contents& seen, uint64_t sequence) {
    for (size_t m = 0; m < stores; ++m) {
      SCOPED_TRACE("its successor's before store " + std::to_string(m) + " of " + std::to_string(stores));
      memory_.bytesAre(bytes);
      const Life dying(memory_, m);
      ASSERT_FALSE(dying.store);
      const Life life(memory_);
      judge(life, seen, sequence);
      if (::testing::Test::HasFailure()) {
        return;
      }
    }
  }

  void judge(const Life& life, const Contents& seen, uint64_t sequence) {
    ++states_;
    ASSERT_TRUE(life.store);
    EXPECT_TRUE(contentsOf(life.store->reader()) == seen);
    EXPECT_EQ(life.faults(), "");
    EXPECT_EQ(life.store->sequence(), sequence);
    EXPECT_TRUE(life.store->takeOver().damages.empty());
    EXPECT_FALSE(life.store->ready());
  }

  Memory memory_;
  Bytestring before_, after_;
  std::array<Contents, 2> contents_;
  std::array<uint64_t, 2> sequences_{};
  size_t stores_ = 0, plainStores_ = 0, states_ = 0;
};

// What an operation did, as far as kinds of operations differ in it.
std::string kindOf(const Memory& memory, const Op& op) {
  Memory copy(memory.bytes());
  Life life(copy);
  const Structure before(life.store->view(), crashHashes);
  const size_t entries = life.store->entries(0);
  const size_t mapped = life.store->bytesMapped();
  op(*life.store);
  const Structure after(life.store->view(), crashHashes);
  const auto sign = [](const char* what, size_t from, size_t to) {
    return from == to ? std::string() : std::string(what) + (from < to ? "+ " : "- ");
  };
  return sign("entries", entries, life.store->entries(0)) + sign("directory", before.depths, after.depths) +
         sign("segments", before.segments, after.segments) + sign("words", before.segmentWords, after.segmentWords) +
         sign("tombstones", before.tombstones, after.tombstones) + sign("size", mapped, life.store->bytesMapped());
}

// A table that grows to 1300 records and shrinks again; every kind of operation is enumerated when it is first met.
size_t enumerateLife(unsigned seed, std::set<std::string>& kinds) {
  Enumeration enumeration;
  enumeration.runBeginning();
  Random random(seed);
  const auto step = [&](const Op& op) {
    const std::string kind = kindOf(enumeration.memory(), op);
    if (kinds.insert(kind).second) {
      SCOPED_TRACE(kind);
      enumeration.run(op);
    } else {
      Life(enumeration.memory()).run(op);
    }
  };
  std::vector<std::string> keys;
  for (unsigned i = 0; i < 3300 && !::testing::Test::HasFailure(); ++i) {
    if (!keys.empty() && random() % 8 < (i < 1500 ? 1u : 7u)) {
      const size_t victim = random() % keys.size();
      step([key = keys[victim]](MortalStore& store) { del(store, 0, key); });
      keys.erase(keys.begin() + static_cast<long>(victim));
    } else {
      const bool isOld = random() % 8 == 0 && !keys.empty();
      const std::string key = isOld ? keys[random() % keys.size()] : std::to_string(i);
      step([key, record = std::string(random() % 100, 'r')](MortalStore& store) { put(store, 0, key, record); });
      if (!isOld) {
        keys.push_back(key);
      }
    }
  }
  enumeration.runBeginning();
  return enumeration.states();
}

// Fails if some store of a put, delete, split, merge, rebuild, doubling, halving or growth leaves a state that a reader
// or a successor gets wrong.
TEST(MemtabCrash, everyStoreOfEveryKindOfChange) {
  size_t states = 0;
  size_t kindCount = 0;
  Support::forEachSeed(1, [&](unsigned seed) {
    std::set<std::string> kinds;
    states += enumerateLife(seed, kinds);
    kindCount += kinds.size();
    for (const char* effect : {"entries+", "entries-", "directory+", "directory-", "segments+", "segments-", "words+",
                               "words-", "tombstones+", "tombstones-", "size+"}) {
      EXPECT_TRUE(std::any_of(kinds.begin(), kinds.end(), [&](const std::string& kind) {
        return kind.find(effect) != std::string::npos;
      })) << effect;
    }
  });
  std::printf("kinds of changes: %zu, states: %zu\n", kindCount, states);
}

// Groups of any shape in which entries refer to records that come, change and go with them.
class GroupScript {
 public:
  explicit GroupScript(unsigned seed) : random_(seed) {}

  // A group that leads from one content to another in which all that is referred to stands, and nothing else does.
  Op next(unsigned steps) {
    std::vector<std::function<void(MortalStore&)>> calls;
    const auto before = entries_;
    for (unsigned i = 0; i < steps; ++i) {
      const std::string entry = "e" + std::to_string(random_() % 12);
      const std::string oldRecord = entries_.contains(entry) ? entries_[entry] : "";
      const bool isGone = random_() % 3 == 0;
      const std::string record = isGone ? "" : teps();
      if (isGone) {
        entries_.erase(entry);
        calls.push_back([entry](MortalStore& store) { del(store, 0, entry); });
      } else {
        entries_[entry] = record;
        calls.push_back([entry, record](MortalStore& store) { put(store, 0, entry, record); });
      }
      const std::string value = random_() % 4 == 0 ? std::to_string(random_() % 100) : "same";
      for (unsigned t = 0; t < tepCount; ++t) {
        const std::string tep = "t" + std::to_string(t);
        const bool isWanted = std::any_of(entries_.begin(), entries_.end(), [&](const auto& each) {
          return each.second.find(tep + ",") != std::string::npos;
        });
        if (isWanted && record.find(tep + ",") != std::string::npos) {
          calls.push_back([tep, value](MortalStore& store) { put(store, 1, tep, value); });
        } else if (!isWanted) {
          calls.push_back([tep](MortalStore& store) { del(store, 1, tep); });
        }
      }
    }
    return [calls](MortalStore& store) {
      store.groupBegin();
      for (const auto& call : calls) {
        call(store);
      }
      store.groupEnd([](unsigned, Bytes, ChangeKind) {});
    };
  }

 private:
  static constexpr unsigned tepCount = 6;
  std::string teps() {
    std::string list;
    for (unsigned t = 0; t < tepCount; ++t) {
      list += random_() % 4 == 0 ? "t" + std::to_string(t) + "," : "";
    }
    return list;
  }
  Random random_;
  std::map<std::string, std::string> entries_;
};

// Fails if the order within a group, or its one move of the sequence, is wrong at any store of it.
TEST(MemtabCrash, everyStoreOfGroups) {
  size_t states = 0;
  Support::forEachSeed(12, [&](unsigned seed) {
    Enumeration enumeration;
    GroupScript script(seed);
    for (const unsigned steps : {1u, 1u, 2u, 3u, 5u, 12u, 2u, 1u}) {
      enumeration.run(script.next(steps));
    }
    states += enumeration.states();
  });
  std::printf("states: %zu\n", states);
}

// Fails if a group that makes segments split and merge shows in parts, or is not whole after its writer's death.
TEST(MemtabCrash, everyStoreOfGroupsThatGrow) {
  Enumeration enumeration;
  const auto manyFrom = [](unsigned from, unsigned to, bool isPut) {
    return [=](MortalStore& store) {
      store.groupBegin();
      for (unsigned i = from; i < to; ++i) {
        const std::string number = std::to_string(i);
        isPut ? put(store, 0, "e" + number, "t" + number + ",") : del(store, 0, "e" + number);
        isPut ? put(store, 1, "t" + number, "tep") : del(store, 1, "t" + number);
      }
      store.groupEnd([](unsigned, Bytes, ChangeKind) {});
    };
  };
  Life(enumeration.memory()).run(manyFrom(0, 380, true));
  enumeration.run(manyFrom(380, 412, true));
  Life(enumeration.memory()).run(manyFrom(20, 400, false));
  enumeration.run(manyFrom(0, 20, false));
  std::printf("states: %zu\n", enumeration.states());
}

// Fails if a restart over unchanged inputs moves the sequence or stores more than that there is a new owner.
TEST(MemtabCrash, successorOfACompleteTableStoresNothing) {
  Memory memory;
  const auto fill = [](MortalStore& store) {
    for (unsigned i = 0; i < 700; ++i) {
      put(store, i % 2, std::to_string(i), std::string(i % 50, 'r'));
    }
    store.readyIs(true);
  };
  Life(memory).run(fill);
  const Bytestring before = memory.bytes();
  const Life life(memory);
  EXPECT_FALSE(life.store->ready());
  EXPECT_EQ(life.store->reader().epoch(), 2u);
  EXPECT_EQ(~size_t{0} - life.left, 4u);  // epoch, owner and its start, ready
  fill(*life.store);
  EXPECT_EQ(~size_t{0} - life.left, 5u);
  Bytestring after = memory.bytes();
  after[epochAt] = before[epochAt];
  EXPECT_TRUE(after == before);
}

// Fails if a record is lost, or a piece leaked, at any store of moving blocks, segments and directory to the front and
// giving the rest back.
TEST(MemtabCrash, everyStoreOfCompaction) {
  Enumeration enumeration;
  const auto key = [](unsigned i) { return "t" + std::to_string(i); };
  Life(enumeration.memory()).run([&](MortalStore& store) {
    for (unsigned i = 0; i < 1600; ++i) {
      put(store, 1, key(i), std::string(60, 'r'));
    }
    for (unsigned i = 0; i < 1300; ++i) {
      del(store, 1, key(i));
    }
  });
  size_t mapped = enumeration.memory().bytes().size();
  const Op op = [&](MortalStore& store) {
    store.groupBegin();
    for (unsigned i = 1300; i < 1400; ++i) {
      del(store, 1, key(i));
    }
    store.groupEnd([](unsigned, Bytes, ChangeKind) {});
    mapped = std::min(mapped, store.bytesMapped());
  };
  const size_t before = mapped;
  enumeration.run(op);
  EXPECT_LT(mapped - Allocator::reserveMin, (before - Allocator::reserveMin) / 2);
  std::printf("states: %zu\n", enumeration.states());
}

}  // namespace
}  // namespace Memtab
