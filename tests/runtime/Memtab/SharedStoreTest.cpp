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

// A mirror of the file `at`, and the bytes of two complete tables with the same epoch and sequence.
class MirrorScene {
 public:
  MirrorScene() : old(tableOf(1)), next(tableOf(2)) { replaceBy(old); }

  // The directory word of the segment of a table's first keys, and the segment's first live index word.
  static size_t directoryWordAt(const std::string& bytes) { return Place::of(wordAt(bytes, descriptorsAt)).offset(); }
  static size_t indexWordAt(const std::string& bytes) {
    size_t at = Place::of(wordAt(bytes, directoryWordAt(bytes))).offset();
    while (!isLive(wordAt(bytes, at))) {
      at += sizeof(uint64_t);
    }
    return at;
  }
  static std::string withFlippedBit(std::string bytes, size_t at) {
    bytes[at] = static_cast<char>(bytes[at] ^ 1);
    return bytes;
  }
  // Another file of these bytes takes the name.
  void replaceBy(const std::string& bytes) {
    StateDirectoryScene::write(files.at("new"), bytes);
    std::filesystem::rename(files.at("new"), files.at("items"));
  }
  // The same file has these bytes now.
  void overwriteBy(const std::string& bytes) {
    std::fstream(files.at("items"), std::ios::in | std::ios::out | std::ios::binary) << bytes;
  }

  StateDirectoryScene files;
  std::string old, next;

 private:
  static uint64_t wordAt(const std::string& bytes, size_t at) {
    uint64_t word = 0;
    std::memcpy(&word, bytes.data() + at, sizeof word);
    return word;
  }
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
};

// Fails if a damaged file that comes in the place of a table decides about the next file that comes.
TEST(MemtabMirror, eachNewFileIsJudgedByItself) {
  MirrorScene scene;
  const auto mirror = Zol::make<MirrorStore>(scene.files.path, "items", Items::layout());
  const Items items("items", Zol::Ptr<SharedStore>(mirror), 0U);
  scene.replaceBy(MirrorScene::withFlippedBit(scene.next, MirrorScene::directoryWordAt(scene.next)));
  mirror->rescan();
  EXPECT_FALSE(mirror->hasNews());
  EXPECT_EQ(items.value(7).content(), 1u);
  scene.replaceBy(scene.next);
  mirror->rescan();
  EXPECT_TRUE(mirror->hasNews());
  mirror->poll(64);
  EXPECT_EQ(items.value(7).content(), 2u);
}

// Fails if a record whose index word was wiped reads as absent once a scan has found that words are missing, or as
// damaged once they are back.
TEST(MemtabMirror, lostWordsAreNoAbsence) {
  MirrorScene scene;
  const auto mirror = Zol::make<MirrorStore>(scene.files.path, "items", Items::layout());
  const Items items("items", Zol::Ptr<SharedStore>(mirror), 0U);
  std::string wiped = scene.old;
  wiped.replace(MirrorScene::indexWordAt(wiped), sizeof(uint64_t), sizeof(uint64_t), '\0');
  scene.overwriteBy(wiped);
  mirror->rescan();
  EXPECT_EQ(mirror->trouble(), entriesLost);
  EXPECT_THROW(items.has(7), CorruptionException);
  EXPECT_THROW(items.has(8), CorruptionException);
  scene.overwriteBy(scene.old);
  mirror->rescan();
  EXPECT_TRUE(items.has(7));
  EXPECT_FALSE(items.has(8));
}

}  // namespace
}  // namespace Memtab
