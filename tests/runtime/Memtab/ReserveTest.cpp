// A table whose region cannot grow: who may use the reserve, and how it is refilled.
#include "tests/runtime/Memtab/FileScene.h"
#include "tests/runtime/Memtab/Structure.h"

namespace Memtab {
namespace {

constexpr HashFn reserveHashes[] = {spreadHash, spreadHash};

// A FIB in small: entries in collection 0, and for each of them a record of its own in collection 1 that it refers to.
class FullTable : public testing::Test {
 protected:
  void open() {
    store_.reset();
    file_.reset();
    file_ = std::make_unique<WriterFile>(scene_.path, "fib", fileFingerprint, 2);
    store_ = std::make_unique<Store>(file_->region(size_t{1} << 20), fileFingerprint, reserveHashes,
                                     StoreOptions{.ringSlotsLog2 = 8, .referred = 2});
  }
  void write(unsigned entry, size_t size) {
    const unsigned stack = nextStack_++;
    std::string record = std::to_string(stack);
    record.resize(std::max(size, record.size()), static_cast<char>('a' + random_() % 26));
    store_->groupBegin();
    store_->put(0, hashOf(entry), bytesOf(std::to_string(entry)), bytesOf(record));
    store_->put(1, hashOf(stack), bytesOf(std::to_string(stack)), bytesOf("label stack"));
    if (const auto old = entries_.find(entry); old != entries_.end()) {
      store_->del(1, hashOf(old->second.stack), bytesOf(std::to_string(old->second.stack)));
    }
    store_->groupEnd([](unsigned, Bytes, ChangeKind) {});
    entries_[entry] = {record, stack};
  }
  bool isRefused(unsigned entry, size_t size) {
    const uint64_t sequence = store_->sequence();
    try {
      write(entry, size);
    } catch (const NoSpace&) {
      EXPECT_EQ(store_->sequence(), sequence);
      return true;
    }
    return false;
  }
  void erase(unsigned entry) {
    store_->groupBegin();
    const unsigned stack = entries_[entry].stack;
    EXPECT_TRUE(store_->del(0, hashOf(entry), bytesOf(std::to_string(entry))));
    EXPECT_TRUE(store_->del(1, hashOf(stack), bytesOf(std::to_string(stack))));
    store_->groupEnd([](unsigned, Bytes, ChangeKind) {});
    entries_.erase(entry);
  }
  unsigned any() { return std::next(entries_.begin(), random_() % static_cast<unsigned>(entries_.size()))->first; }
  // A few entries are as large as one of 512 vias.
  size_t anySize() { return random_() % 100 == 0 ? 12'000 : 40 + random_() % 200; }
  void fill() {
    for (unsigned refused = 0; refused < 20; ++last_) {
      refused += isRefused(last_, anySize()) ? 1U : 0U;
    }
  }
  // Records change, each for one of its size.
  void exchange(unsigned times) {
    for (unsigned i = 0; i < times; ++i) {
      const unsigned entry = any();
      ASSERT_NO_THROW(write(entry, entries_[entry].record.size()))
          << i << " of " << times << ", record of " << entries_[entry].record.size() << " bytes, free "
          << store_->bytesFree();
    }
  }
  void expectIntact() {
    const Content found = walk(store_->reader(), 0);
    EXPECT_EQ(found.size(), entries_.size());
    EXPECT_EQ(store_->entries(1), entries_.size());
    for (const auto& [entry, facts] : entries_) {
      EXPECT_EQ(found.at({hashOf(entry), std::to_string(entry)}), facts.record);
    }
    EXPECT_EQ(Structure(store_->view(), reserveHashes).faults(*store_), "");
  }
  static uint64_t hashOf(unsigned key) { return spreadHash(bytesOf(std::to_string(key))); }

  struct Facts {
    std::string record;
    unsigned stack;
  };
  StateDirectoryScene scene_;
  std::unique_ptr<WriterFile> file_;
  std::unique_ptr<Store> store_;
  std::map<unsigned, Facts> entries_;
  Random random_{12};
  unsigned last_ = 0;
  unsigned nextStack_ = 0;
};
using MemtabReserve = FullTable;

// Fails if a full table refuses a replacement of equal size, or a deletion: at once, after a restart, after records
// have grown as far as they may, or in the long run, by fragments.
TEST_F(MemtabReserve, equalSizesAlwaysFit) {
  open();
  file_->publish();
  fill();
  const size_t reserve = store_->allocator().bytesReserved();
  EXPECT_GE(store_->bytesFree(), reserve);
  EXPECT_GE(reserve, size_t{128} << 10);
  exchange(3000);
  EXPECT_TRUE(isRefused(last_, 200));
  open();
  EXPECT_TRUE(isRefused(last_, 200)) << "a restart gives insertions the reserve";
  exchange(3000);
  for (unsigned refused = 0; refused < 50;) {
    const unsigned entry = any();
    refused += isRefused(entry, entries_[entry].record.size() + 16 + random_() % 100) ? 1U : 0U;
  }
  EXPECT_LT(store_->bytesFree(), reserve * 7 / 8) << "what grows may use a part of the reserve";
  EXPECT_GT(store_->bytesFree(), reserve / 3) << "and not all of it";
  exchange(20'000);
  expectIntact();
  while (entries_.size() > 10) {
    ASSERT_NO_THROW(erase(any()));
  }
  fill();
  EXPECT_GE(store_->bytesFree(), reserve);
  exchange(1000);
  expectIntact();
}

// Fails if insertions get released space before the reserve is whole again, or if blocks stay in the reserve when
// there is space for them elsewhere.
TEST_F(MemtabReserve, isRefilledFirst) {
  open();
  fill();
  const size_t reserve = store_->allocator().bytesReserved();
  while (!isRefused(any(), 260)) {
  }
  const size_t before = store_->bytesFree();
  ASSERT_LT(before, reserve);
  while (store_->bytesFree() < reserve - 2000) {
    erase(any());
    EXPECT_TRUE(isRefused(last_, 40));
  }
  for (unsigned i = 0; i < 400; ++i) {
    erase(any());
  }
  exchange(400);
  EXPECT_TRUE(store_->allocator().isFree(store_->bytesMapped() - reserve, store_->bytesMapped()));
  EXPECT_FALSE(isRefused(last_++, 200));
  expectIntact();
}

}  // namespace
}  // namespace Memtab
