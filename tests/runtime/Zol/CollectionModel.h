// Plays random steps on a collection and on a std::map that is sorted as the collection should be, and compares the
// two. The contract of iterators makes the model simple: at any time ++ goes to the first member behind the key where
// the iterator stands, whatever happened meanwhile.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <utility>
#include <vector>

namespace Zol {

// Less orders keys as the collection does. Keys are made from the numbers 0 to keyCount - 1.
template <class Collection, class Less, class MakeValue>
class CollectionModel {
 public:
  using Key = typename Collection::Key;
  using Value = typename Collection::Value;
  using Model = std::map<Key, std::uint32_t, Less>;

  CollectionModel(unsigned seed, std::uint32_t keyCount) : random_(seed), keyCount_(keyCount) {}

  void play(int steps) {
    for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
      step(i);
    }
    compareAll();
  }

 private:
  using Walker = decltype(std::declval<const Collection&>().begin());

  std::uint32_t below(std::uint32_t bound) { return static_cast<std::uint32_t>(random_() % bound); }
  Key someKey() { return Key(below(keyCount_)); }

  void step(int number) {
    if (number % 1000 == 0) {  // times of growth, of exchange and of decline
      constexpr std::uint32_t percents[] = {3, 50, 97};
      erasePercent_ = percents[below(3)];
    }
    const std::uint32_t dice = below(1000);
    if (dice < 700) {
      below(100) < erasePercent_ ? eraseOne() : insertOne();
    } else if (dice < 990) {
      walk();
    } else if (dice < 997) {
      compareAll();
    } else if (dice < 999) {
      Collection copy = collection_;
      collection_ = std::move(copy);
      EXPECT_EQ(copy.size(), 0U);  // NOLINT: what is moved from is empty
    } else {
      collection_.clear();
      model_.clear();
    }
  }

  void insertOne() {
    const Key key = someKey();
    const std::uint32_t number = below(1000);
    collection_.insertOrAssign(key, MakeValue()(number));
    model_[key] = number;
  }
  void eraseOne() {
    Key key = someKey();
    if (below(2) == 0 && !model_.empty()) {  // one that is there
      const auto present = model_.lower_bound(key);
      key = present == model_.end() ? model_.begin()->first : present->first;
    }
    EXPECT_EQ(collection_.erase(key), model_.erase(key) > 0);
  }

  // Moves an iterator that stands somewhere by one, or sets out with another one.
  void walk() {
    if (!walker_ || below(50) == 0) {
      if (below(2) == 0) {
        walker_.emplace(std::as_const(collection_).begin());
        expectAt(model_.begin());
      } else {
        const Key key = someKey();
        walker_.emplace(std::as_const(collection_).from(key));
        expectAt(model_.lower_bound(key));
      }
    } else {
      const auto next = model_.upper_bound(walker_->key());
      ++*walker_;
      expectAt(next);
    }
  }
  void expectAt(typename Model::const_iterator expected) {
    ASSERT_EQ(static_cast<bool>(*walker_), expected != model_.end());
    if (expected == model_.end()) {
      walker_.reset();
      return;
    }
    EXPECT_TRUE(walker_->key() == expected->first);
    EXPECT_TRUE(walker_->value() == MakeValue()(expected->second));
  }

  void compareAll() {
    ASSERT_EQ(collection_.size(), model_.size());
    auto expected = model_.begin();
    for (auto it = std::as_const(collection_).begin(); it; ++it, ++expected) {
      ASSERT_NE(expected, model_.end());
      ASSERT_TRUE(it.key() == expected->first);
    }
    for (std::uint32_t i = 0; i < keyCount_; ++i) {
      const auto* const value = collection_.find(Key(i));
      const auto modelled = model_.find(Key(i));
      ASSERT_EQ(value != nullptr, modelled != model_.end());
      ASSERT_TRUE(value == nullptr || *value == MakeValue()(modelled->second));
    }
  }

  std::mt19937 random_;
  const std::uint32_t keyCount_;
  std::uint32_t erasePercent_ = 20;
  Collection collection_;
  Model model_;
  std::optional<Walker> walker_;
};

// A value that owns memory: leaks, double destruction and use after destruction show under the address sanitizer.
struct Owned {
  std::shared_ptr<std::uint32_t> number;
  friend bool operator==(const Owned& a, const Owned& b) { return *a.number == *b.number; }
};
struct MakeOwned {
  Owned operator()(std::uint32_t number) const { return {std::make_shared<std::uint32_t>(number)}; }
};
struct MakeNumber {
  std::uint32_t operator()(std::uint32_t number) const { return number; }
};

// A value of half a kilobyte: few members fill a page.
struct Wide {
  std::array<std::uint32_t, 128> numbers;
  friend bool operator==(const Wide&, const Wide&) = default;
};
struct MakeWide {
  Wide operator()(std::uint32_t number) const {
    Wide wide;
    wide.numbers.fill(number);
    return wide;
  }
};

}  // namespace Zol
