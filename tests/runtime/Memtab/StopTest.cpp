// What a reader meets between any two stores, which is also what stands after the writer was killed there: a script
// that makes a table grow, split, double, change and shrink again is looked at after every single store of it.
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
  StopScene scene;
  Random random(3);
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
  std::printf("states looked at: %zu\n", scene.states());
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
