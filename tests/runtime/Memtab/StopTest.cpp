// What a reader meets between any two stores, which is also what stands after the writer was killed there: a script
// that makes a table grow, split, double, change and shrink again is looked at after every single store of it.
#include <set>

#include "tests/runtime/Memtab/EngineScene.h"

namespace Memtab {
namespace {

class StopScene {
 public:
  StopScene() : store_(Region::anonymous(), 7, {&hash_, 1}, {}, WatchedStores{&watch_}) {
    watch_ = [this] { check(); };
  }
  ~StopScene() { watch_ = nullptr; }

  void put(const std::string& key, const std::string& record) {
    const std::pair at(hash_(bytesOf(key)), key);
    begin(at, record);
    store_.put(0, at.first, bytesOf(key), bytesOf(record));
    content_[at] = record;
    EXPECT_TRUE(sawNew_ || storesOfOperation_ == 0);
  }
  void del(const std::string& key) {
    const std::pair at(hash_(bytesOf(key)), key);
    begin(at, std::nullopt);
    store_.del(0, at.first, bytesOf(key));
    content_.erase(at);
    EXPECT_TRUE(sawNew_);
  }
  const Content& content() const { return content_; }
  size_t states() const { return states_; }
  size_t storesMax() const { return storesMax_; }

 private:
  void begin(std::pair<uint64_t, std::string> at, std::optional<std::string> record) {
    touched_ = std::move(at);
    new_ = std::move(record);
    old_ = content_.contains(touched_) ? std::optional(content_[touched_]) : std::nullopt;
    sequence_ = store_.sequence();
    sawNew_ = false;
    storesOfOperation_ = 0;
  }

  // A fresh reader sees the touched key old, and from one store on new, and everything else as it was.
  void check() {
    ++states_;
    storesMax_ = std::max(storesMax_, ++storesOfOperation_);
    const Reader reader(store_.view(), {&hash_, 1});
    const Lookup lookup = reader.get(0, touched_.first, bytesOf(touched_.second));
    ASSERT_TRUE(lookup.state == Found::found || lookup.state == Found::absent);
    const auto seen = lookup.state == Found::found ? std::optional(textOf(lookup.record)) : std::nullopt;
    ASSERT_TRUE(seen == (sawNew_ ? new_ : old_) || seen == new_);
    sawNew_ = seen == new_;
    ASSERT_TRUE(reader.sequence() == sequence_ || (sawNew_ && reader.sequence() == sequence_ + 1));
    if (storesOfOperation_ % 16 != 0 && sawNew_ == checkedNew_ && storesOfOperation_ > 32) {
      return;  // filling aside
    }
    checkedNew_ = sawNew_;
    Content expected = content_;
    expected.erase(touched_);
    if (seen) {
      expected[touched_] = *seen;
    }
    expectContent(reader, 0, expected);
  }

  HashFn hash_ = spreadHash;
  std::function<void()> watch_;
  BasicStore<WatchedStores> store_;
  Content content_;
  std::pair<uint64_t, std::string> touched_;
  std::optional<std::string> old_, new_;
  uint64_t sequence_ = 0;
  bool sawNew_ = false, checkedNew_ = false;
  size_t states_ = 0, storesOfOperation_ = 0, storesMax_ = 0;
};

// Fails if any change is more than one store wide, or if a split, doubling, merge or halving shows while it is made.
TEST(MemtabStop, everyStoreLeavesOldOrNew) {
  Support::forEachSeed(1, [](unsigned seed) {
    StopScene scene;
    Random random(seed);
    for (unsigned i = 0; i < 700; ++i) {
      const unsigned key = i % 11 == 0 ? random() % (i + 1) : i;
      scene.put(std::to_string(key), std::string(random() % 60, i % 11 == 0 ? 'b' : 'a'));
    }
    while (!scene.content().empty()) {
      const auto victim = std::next(scene.content().begin(), static_cast<long>(random() % scene.content().size()));
      scene.del(std::string(victim->first.second));
      if (::testing::Test::HasFailure()) {
        break;
      }
    }
    EXPECT_GT(scene.storesMax(), 1000u);  // a split was among them
    RecordProperty("states", std::to_string(scene.states()));
    std::printf("states checked: %zu\n", scene.states());
  });
}

// A walk that makes one step after every store of the writer.
class WalkScene {
 public:
  WalkScene()
      : store_(Region::anonymous(), 7, {&hash_, 1}, {.ringSlotsLog2 = 3, .bytesKept = 0}, WatchedStores{&watch_}),
        reader_(store_.view(), {&hash_, 1}) {
    watch_ = [this] { step(); };
  }
  ~WalkScene() { watch_ = nullptr; }

  void change(const std::string& key, const std::optional<std::string>& record) {
    const std::pair at(hash_(bytesOf(key)), key);
    touched_ = at;
    changed_.insert(at);
    pending_ = record;
    if (record) {
      store_.put(0, at.first, bytesOf(key), bytesOf(*record));
      content_[at] = *record;
    } else {
      store_.del(0, at.first, bytesOf(key));
      content_.erase(at);
    }
  }
  size_t walks() const { return walks_; }
  size_t bytesMapped() const { return store_.bytesMapped(); }

 private:
  void step() {
    if (!cursor_) {
      cursor_.emplace(reader_, 0);
      seen_.clear();
      changed_ = {touched_};
      return;
    }
    const Cursor::Step step = cursor_->next();
    ASSERT_NE(step, Cursor::Step::damaged) << cursor_->damage().text();
    if (step == Cursor::Step::entry) {
      const std::pair at(cursor_->hash(), textOf(cursor_->key()));
      ASSERT_TRUE(seen_.insert(at).second) << "twice: " << at.second;
      const auto known = content_.find(at);
      const bool isOld = known != content_.end() && known->second == textOf(cursor_->record());
      ASSERT_TRUE(isOld || (changed_.contains(at) && pending_ == textOf(cursor_->record()))) << at.second;
      return;
    }
    for (const auto& [at, record] : content_) {
      ASSERT_TRUE(seen_.contains(at) || changed_.contains(at)) << "missed: " << at.second;
    }
    ++walks_;
    cursor_.reset();
  }

  HashFn hash_ = spreadHash;
  std::function<void()> watch_;
  BasicStore<WatchedStores> store_;
  Reader reader_;
  std::optional<Cursor> cursor_;
  Content content_;
  std::set<std::pair<uint64_t, std::string>> seen_, changed_;  // since the walk began
  std::pair<uint64_t, std::string> touched_;
  std::optional<std::string> pending_;
  size_t walks_ = 0;
};

// Fails if a walk misses, repeats or makes up an entry because a split, merge or compaction goes on at every step.
TEST(MemtabStop, walkBetweenStores) {
  Support::forEachSeed(1, [](unsigned seed) {
    WalkScene scene;
    Random random(seed);
    size_t mappedMax = 0;
    for (int round = 0; round < 2; ++round) {
      for (unsigned i = 0; i < 1500 && !HasFailure(); ++i) {
        scene.change(std::to_string(i), std::string(random() % 400, 'a'));
        mappedMax = std::max(mappedMax, scene.bytesMapped());
      }
      for (unsigned i = 0; i < 1450 && !HasFailure(); ++i) {
        scene.change(std::to_string(i), std::nullopt);
      }
    }
    EXPECT_LT(scene.bytesMapped(), mappedMax / 2);
    EXPECT_GT(scene.walks(), 20u);
    std::printf("walks: %zu\n", scene.walks());
  });
}

struct Stop {};
struct StoppingStores {
  size_t* left;
  size_t* refused;
  void word(Word& at, uint64_t value, std::memory_order order) const {
    if (*left == 0) {
      ++*refused;
      throw Stop{};
    }
    --*left;
    at.store(value, order);
  }
};

// Fails if anything on the way out (claims, destructors) stores to the region after the writer was stopped.
TEST(MemtabStop, stoppedWriterStoresNothing) {
  const HashFn hash = spreadHash;
  bool isStopped = true;
  for (size_t n = 0; isStopped; n += 11) {
    size_t left = ~size_t{0};
    size_t refused = 0;
    {
      BasicStore<StoppingStores> store(Region::anonymous(), 7, {&hash, 1}, {}, {&left, &refused});
      left = n;
      try {
        for (int i = 0; i < 420; ++i) {
          const std::string key = std::to_string(i);
          store.put(0, hash(bytesOf(key)), bytesOf(key), bytesOf(key));
        }
        isStopped = false;
      } catch (const Stop&) {
        const size_t walked = walk(store.reader(), 0).size();
        ASSERT_TRUE(walked == store.entries(0) || walked == store.entries(0) + 1);
      }
    }
    ASSERT_EQ(refused, isStopped ? 1u : 0u);
  }
}

}  // namespace
}  // namespace Memtab
