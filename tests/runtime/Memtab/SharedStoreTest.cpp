// Stores that maps share: notification of watchers, and mirrors whose file is replaced or damaged.
#include "tests/runtime/Memtab/FileScene.h"
#include "tests/support/Items.h"

namespace Memtab {
namespace {

using Support::Item;
using Support::Items;

// Fails if a change made by a watcher of a change is not notified, or loses the notifications that are still due.
TEST(MemtabSharedStore, aWatcherMayMakeTheNextChange) {
  Items items("items");
  std::vector<uint32_t> notified;
  const Support::ItemListener listener(items, [&](uint32_t id) {
    notified.push_back(id);
    if (id == 1) {
      items.change([&] {
        items.entryIs({10, 0});
        items.entryIs({11, 0});
      });
    }
  });
  items.change([&] {
    for (uint32_t id = 1; id <= 3; ++id) {
      items.entryIs({id, 0});
    }
  });
  EXPECT_EQ(notified, (std::vector<uint32_t>{1, 10, 11, 2, 3}));
}

// Complete tables of one item, as bytes that have the same epoch and sequence.
struct MirrorScene {
  std::string tableOf(uint32_t content) const {
    {
      Items items("items", Zol::Ptr<SharedStore>(Zol::make<FileStore>(files.path, "items", Items::layout())), 0U);
      items.entryIs({7, content});
      items.collectionReadyIs(true);
    }
    std::string bytes = StateDirectoryScene::bytesAt(files.at("items"));
    unlink(files.at("items").c_str());
    return bytes;
  }
  static uint64_t& wordAt(std::string& bytes, size_t at) { return *reinterpret_cast<uint64_t*>(bytes.data() + at); }
  // Another file of these bytes takes the name.
  void replaceBy(const std::string& bytes) const {
    StateDirectoryScene::write(files.at("new"), bytes);
    std::filesystem::rename(files.at("new"), files.at("items"));
  }
  // The same file has these bytes now.
  void overwriteBy(const std::string& bytes) const {
    std::fstream(files.at("items"), std::ios::in | std::ios::out | std::ios::binary) << bytes;
  }

  const StateDirectoryScene files;
};

// Fails if the judgement of a damaged file that takes a table's place is kept for the next file.
TEST(MemtabMirror, eachNewFileIsJudgedByItself) {
  const MirrorScene scene;
  const std::string next = scene.tableOf(2);
  scene.replaceBy(scene.tableOf(1));
  const auto mirror = Zol::make<MirrorStore>(scene.files.path, "items", Items::layout());
  const Items items("items", Zol::Ptr<SharedStore>(mirror), 0U);
  std::string damaged = next;
  MirrorScene::wordAt(damaged, Place::of(MirrorScene::wordAt(damaged, descriptorsAt)).offset()) ^= 1;
  scene.replaceBy(damaged);
  mirror->rescan();
  EXPECT_FALSE(mirror->hasNews());
  EXPECT_EQ(items.value(7).content(), 1u);
  scene.replaceBy(next);
  mirror->rescan();
  EXPECT_TRUE(mirror->hasNews());
  mirror->poll(64);
  EXPECT_EQ(items.value(7).content(), 2u);
}

// Fails if a record whose index word was wiped reads as absent once a scan has found that words are missing, or as
// damaged once they are back.
TEST(MemtabMirror, lostWordsAreNoAbsence) {
  const MirrorScene scene;
  std::string table = scene.tableOf(1);
  scene.replaceBy(table);
  const auto mirror = Zol::make<MirrorStore>(scene.files.path, "items", Items::layout());
  const Items items("items", Zol::Ptr<SharedStore>(mirror), 0U);
  const Place directory = Place::of(MirrorScene::wordAt(table, descriptorsAt));
  const Place segment = Place::of(MirrorScene::wordAt(table, directory.offset()));
  std::string wiped = table;
  std::fill_n(wiped.begin() + static_cast<long>(segment.offset()), segment.bytes(), '\0');
  scene.overwriteBy(wiped);
  mirror->rescan();
  EXPECT_EQ(mirror->trouble(), entriesLost);
  EXPECT_THROW(items.has(7), CorruptionException);
  EXPECT_THROW(items.has(8), CorruptionException);
  scene.overwriteBy(table);
  mirror->rescan();
  EXPECT_TRUE(items.has(7));
  EXPECT_FALSE(items.has(8));
}

}  // namespace
}  // namespace Memtab
