// Walks of a reader between any two stores of the writer. CrashTest.cpp checks the content that a reader finds there.
#include <set>

#include "tests/runtime/Memtab/EngineScene.h"

namespace Memtab {
namespace {

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

}  // namespace
}  // namespace Memtab
