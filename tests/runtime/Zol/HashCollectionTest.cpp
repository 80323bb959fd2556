#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "runtime/Zol/HashCollection.h"
#include "tests/runtime/Zol/CollectionModel.h"
#include "tests/support/Seeds.h"

namespace Zol {
namespace {

// Keys with a hash of the test's choice.
template <class HashOf>
struct HashedKey {
  explicit HashedKey(std::uint64_t number) : value(number) {}
  std::uint64_t value;
  std::uint32_t hash() const { return HashOf()(value); }
  friend auto operator<=>(const HashedKey&, const HashedKey&) = default;
};
struct Spread {
  std::uint32_t operator()(std::uint64_t value) const {
    OneAtATime hash;
    hash.word(value);
    return hash.result();
  }
};
struct Same {
  std::uint32_t operator()(std::uint64_t) const { return 0x12345678; }
};
struct Last {  // the largest hashes, the one that marks empty slots among them
  std::uint32_t operator()(std::uint64_t value) const { return 0xFFFFFFFF - static_cast<std::uint32_t>(value % 3); }
};
struct Few {
  std::uint32_t operator()(std::uint64_t value) const { return static_cast<std::uint32_t>(value % 7) << 29; }
};
struct Crowded {  // all in a small part of the hash range, as when ids are filed in the order of a walk
  std::uint32_t operator()(std::uint64_t value) const { return 0xABC00000 + Spread()(value) % 5000; }
};
struct TextKey : std::string {
  explicit TextKey(std::uint64_t number) : std::string("a key that does not fit into the string: ") {
    append(std::to_string(number));
  }
};

template <class Key>
struct ByHashThenKey {
  bool operator()(const Key& a, const Key& b) const {
    const auto orderOf = [](const Key& key) { return std::min(hashOf(key), 0xFFFFFFFEU); };
    return std::make_tuple(orderOf(a), std::cref(a)) < std::make_tuple(orderOf(b), std::cref(b));
  }
};

template <class Key>
struct HashCollectionModel : testing::Test {
  template <class Value, class MakeValue>
  void play(std::uint32_t keyCount, int steps) {
    using Collection = HashCollection<Key, Value>;
    SCOPED_TRACE("keys " + std::to_string(keyCount));
    Support::forEachSeed(3, [&](unsigned seed) {
      CollectionModel<Collection, ByHashThenKey<Key>, MakeValue>(seed, keyCount).play(steps);
    });
  }
};
using ModelKeys =
    testing::Types<HashedKey<Spread>, HashedKey<Same>, HashedKey<Last>, HashedKey<Few>, HashedKey<Crowded>, TextKey>;
TYPED_TEST_SUITE(HashCollectionModel, ModelKeys);

TYPED_TEST(HashCollectionModel, behavesAsASortedMap) {
  this->template play<std::uint32_t, MakeNumber>(10, 4'000);
  this->template play<Owned, MakeOwned>(60, 6'000);
  this->template play<std::uint32_t, MakeNumber>(2'000, 20'000);
  this->template play<Wide, MakeWide>(700, 15'000);
}

using Ids = HashCollection<HashedKey<Spread>>;
using Id = HashedKey<Spread>;

std::vector<std::uint64_t> order(const Ids& ids) {
  std::vector<std::uint64_t> order;
  for (auto it = ids.begin(); it; ++it) {
    order.push_back(it.key().value);
  }
  return order;
}

// Fails if the order depends on what the collection held before, or on how large it is.
TEST(HashCollection, orderIsAFunctionOfTheKeys) {
  Ids up, down, shrunk;
  for (std::uint64_t i = 0; i < 20'000; ++i) {
    shrunk.insert(Id(i));
  }
  for (std::uint64_t i = 0; i < 20'000; ++i) {
    if (i < 5'000 || i >= 6'000) {
      shrunk.erase(Id(i));
    }
  }
  for (std::uint64_t i = 5'000; i < 6'000; ++i) {
    up.insert(Id(i));
    down.insert(Id(10'999 - i));
  }
  EXPECT_EQ(order(up), order(down));
  EXPECT_EQ(order(up), order(shrunk));
  EXPECT_EQ(order(up), order(Ids(shrunk)));
  EXPECT_TRUE(up == shrunk);
  EXPECT_LE(shrunk.bytesUsed(), up.bytesUsed() * 2) << "memory follows the members";
}

// Fails if a step that reactors take for each of a million ids costs more, the more ids there are: filing ids in the
// order of a walk, draining in this order, always taking the first. Bounds are generous for slow machines; what is
// quadratic misses them by far.
TEST(HashCollection, orderedUseStaysLinear) {
  constexpr std::uint64_t count = 300'000;
  const auto begin = std::chrono::steady_clock::now();
  Ids source;
  for (std::uint64_t i = 0; i < count; ++i) {
    source.insert(Id(i));
  }
  Ids filed, drained = source;
  for (auto it = source.begin(); it; ++it) {
    filed.insert(it.key());
  }
  EXPECT_EQ(filed.size(), count);
  for (auto it = drained.begin(); it; ++it) {
    drained.erase(it.key());
  }
  EXPECT_EQ(drained.bytesUsed(), 0U);
  while (!filed.empty()) {
    const Id first = filed.begin().key();
    filed.erase(first);
  }
  for (auto it = source.from(Id(7)); source.size() > count / 2; ++it) {  // as a drain that stops at a bookmark
    source.erase(it.key());
  }
  while (!source.empty()) {
    const Id first = source.begin().key();
    source.erase(first);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

// Fails if small sets take large pieces, or if keys that collide make the directory grow.
TEST(HashCollection, memoryStaysInProportion) {
  EXPECT_EQ(Ids().bytesUsed(), 0U);
  Ids ids;
  ids.insert(Id(1));
  EXPECT_LE(ids.bytesUsed(), 64U);
  for (std::uint64_t i = 0; i < 100'000; ++i) {
    ids.insert(Id(i));
  }
  EXPECT_LE(ids.bytesUsed(), 100'000U * 50);
  HashCollection<HashedKey<Same>> colliding;
  for (std::uint64_t i = 0; i < 2'000; ++i) {
    colliding.insert(HashedKey<Same>(i));
  }
  EXPECT_LE(colliding.bytesUsed(), 2'000U * 100);
  HashCollection<HashedKey<Crowded>> crowded;
  for (std::uint64_t i = 0; i < 4'000; ++i) {
    crowded.insert(HashedKey<Crowded>(i));
  }
  EXPECT_LE(crowded.bytesUsed(), 4'000U * 100);
  for (std::uint64_t i = 10; i < 4'000; ++i) {
    crowded.erase(HashedKey<Crowded>(i));
  }
  EXPECT_LE(crowded.bytesUsed(), 10U * 300);
}

TEST(HashCollection, currentMemberMayBeDeletedDuringAWalk) {
  HashCollection<std::uint32_t, std::string> collection;
  for (std::uint32_t i = 0; i < 100; ++i) {
    collection.insert(i, std::to_string(i));
  }
  std::set<std::uint32_t> visited;
  for (auto it = collection.begin(); it; ++it) {
    visited.insert(it.key());
    EXPECT_EQ(it.value(), std::to_string(it.key()));
    const std::uint32_t key = it.key();
    collection.erase(key);
    EXPECT_EQ(it.key(), key) << "the key stays readable";
    const AssertionTrap trap;
    EXPECT_THROW(it.value(), AssertionException);
  }
  EXPECT_EQ(visited.size(), 100U);
  EXPECT_TRUE(collection.empty());
}

TEST(HashCollection, iteratorAtTheEndIsRefused) {
  const HashCollection<std::uint32_t> empty;
  auto it = empty.begin();
  const AssertionTrap trap;
  EXPECT_THROW(++it, AssertionException);
  EXPECT_THROW(it.key(), AssertionException);
  EXPECT_THROW(it.value(), AssertionException);
}

// Fails if an iterator takes another collection's slots for its own because both have changed equally often.
TEST(HashCollection, iteratorsSurviveAssignment) {
  HashCollection<std::uint32_t> a, b;
  for (std::uint32_t i = 0; i < 3; ++i) {
    a.insert(i);
    b.insert(i);
  }
  auto it = a.begin();
  auto other = b.begin();
  a = std::move(b);
  ++it;
  EXPECT_TRUE(it);
  ++other;
  EXPECT_FALSE(other);
}

// Fails if a key inside a member is used after the member has moved.
TEST(HashCollection, keyMayLieInAMember) {
  HashCollection<std::uint64_t, std::uint64_t> chain;
  chain.insert(0, 1);
  for (std::uint64_t i = 0; i < 1'000; ++i) {
    const std::uint64_t& next = *chain.find(i);
    chain.insert(next, i + 2);
  }
  EXPECT_EQ(*chain.find(1'000), 1'001U);
}

// A value that goes tells its collection, as a child that retires others with it.
struct Retiring {
  HashCollection<std::uint32_t, std::shared_ptr<Retiring>>* collection;
  std::uint32_t next;
  ~Retiring() { collection->erase(next); }
};

// Fails if a destructor finds the collection half changed.
TEST(HashCollection, destructorOfAValueMayChangeTheCollection) {
  HashCollection<std::uint32_t, std::shared_ptr<Retiring>> collection;
  for (std::uint32_t i = 0; i < 100; ++i) {
    collection.insert(i, std::shared_ptr<Retiring>(new Retiring{&collection, i + 1}));
  }
  collection.erase(50);
  EXPECT_EQ(collection.size(), 50U);
  collection.insertOrAssign(20, nullptr);
  EXPECT_EQ(collection.size(), 21U);
  collection.clear();
  EXPECT_TRUE(collection.empty());
}

}  // namespace
}  // namespace Zol
