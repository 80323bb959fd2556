#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "runtime/Zol/OrderedCollection.h"
#include "tests/runtime/Zol/CollectionModel.h"
#include "tests/support/Seeds.h"

namespace Zol {
namespace {

TEST(OrderedCollection, behavesAsASortedMap) {
  Support::forEachSeed(4, [](unsigned seed) {
    using Numbers = OrderedCollection<std::uint32_t, std::uint32_t>;
    using Owning = OrderedCollection<std::uint32_t, Owned>;
    CollectionModel<Numbers, std::less<>, MakeNumber>(seed, 10).play(4'000);
    CollectionModel<Owning, std::less<>, MakeOwned>(seed, 300).play(8'000);
    CollectionModel<Numbers, std::less<>, MakeNumber>(seed, 2'000).play(30'000);
  });
}

TEST(OrderedCollection, iteratorAtTheEndIsRefused) {
  const OrderedCollection<std::uint32_t> empty;
  auto it = empty.begin();
  const AssertionTrap trap;
  EXPECT_THROW(++it, AssertionException);
  EXPECT_THROW(it.key(), AssertionException);
  EXPECT_THROW(it.value(), AssertionException);
}

// Fails if an iterator trusts its place because both collections have changed equally often.
TEST(OrderedCollection, iteratorsSurviveAssignment) {
  OrderedCollection<std::uint32_t> many, few;
  for (std::uint32_t i = 0; i < 300; ++i) {
    many.insertOrAssign(i, true);
    few.insertOrAssign(i % 2, true);
  }
  for (std::uint32_t i = 0; i < 298; ++i) {
    few.erase(i % 2);
    few.insertOrAssign(i % 2, true);
  }
  auto it = many.from(299);
  auto other = few.begin();
  many = std::move(few);
  ++it;
  EXPECT_FALSE(it);
  ++other;
  EXPECT_FALSE(other);
  EXPECT_EQ(many.size(), 2U);
  EXPECT_TRUE(few.empty());  // NOLINT: what is moved from is empty
}

struct Retiring {
  OrderedCollection<std::uint32_t, std::shared_ptr<Retiring>>* collection;
  std::uint32_t next;
  ~Retiring() { collection->erase(next); }
};

// Fails if a destructor finds the collection half changed.
TEST(OrderedCollection, destructorOfAValueMayChangeTheCollection) {
  OrderedCollection<std::uint32_t, std::shared_ptr<Retiring>> collection;
  for (std::uint32_t i = 0; i < 400; ++i) {
    collection.insertOrAssign(i, std::shared_ptr<Retiring>(new Retiring{&collection, i + 1}));
  }
  collection.erase(200);
  EXPECT_EQ(collection.size(), 200U);
  collection.insertOrAssign(20, nullptr);
  EXPECT_EQ(collection.size(), 21U);
  collection.clear();
  EXPECT_TRUE(collection.empty());
}

}  // namespace
}  // namespace Zol
