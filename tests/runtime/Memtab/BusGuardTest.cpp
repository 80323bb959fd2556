#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>

#include "tests/runtime/Memtab/FollowerScene.h"

namespace Memtab {
namespace {

constexpr uint64_t keys = 20000;

class TruncationScene : public StateDirectoryScene {
 public:
  TruncationScene() : file(path, "table", fileFingerprint, 2), store(file.region(), fileFingerprint, numberHashes) {
    for (uint64_t key = 0; key < keys; ++key) {
      put(store, key, std::to_string(key));
    }
    file.publish();
  }
  void truncateTo(off_t size) const { ASSERT_EQ(truncate(file.path().c_str(), size), 0); }

  WriterFile file;
  Store store;
};

// Fails if a truncated table kills its reader, reads as empty, or yields a record that was never written.
TEST(MemtabTruncation, readerSeesDamage) {
  for (const off_t size : {off_t{0}, off_t{4096}, off_t{65536}, off_t{300000}, off_t{800000}}) {
    TruncationScene scene;
    const ReaderFile readerFile(scene.path, "table", fileFingerprint, 2);
    const Reader reader(readerFile.view(), numberHashes);
    Mirror mirror(reader);
    mirror.settle(keys);
    EXPECT_FALSE(readerFile.isDamaged());
    scene.truncateTo(size);
    size_t found = 0;
    size_t damaged = 0;
    for (uint64_t key = 0; key < keys; ++key) {
      const Lookup lookup = reader.get(0, numberHashes[0](bytesOf(key)), bytesOf(key));
      found += lookup.state == Found::found;
      damaged += lookup.state == Found::damaged;
      ASSERT_TRUE(lookup.state != Found::found || textOf(lookup.record) == std::to_string(key));
    }
    EXPECT_EQ(found + damaged, keys) << size;
    EXPECT_GT(damaged, 0u);
    EXPECT_TRUE(readerFile.isDamaged());
    Cursor cursor(reader, 0);
    size_t steps[4] = {};
    for (Cursor::Step step = cursor.next(); step != Cursor::Step::end; step = cursor.next()) {
      ++steps[static_cast<size_t>(step)];
    }
    EXPECT_GT(steps[static_cast<size_t>(Cursor::Step::damaged)], 0u);
    mirror.rebind(reader);
    EXPECT_TRUE(mirror.settle().empty());
    EXPECT_EQ(mirror.follower.knownKeys(), keys);
    EXPECT_FALSE(mirror.damages.empty());
  }
}

// Fails if the writer dies, goes on as if nothing had happened, or cannot begin anew.
TEST(MemtabTruncation, writerStops) {
  for (const off_t size : {off_t{0}, off_t{65536}, off_t{300000}}) {
    TruncationScene scene;
    scene.truncateTo(size);
    Random random(1);
    EXPECT_NE(thrown<CorruptionException>([&] {
                for (int n = 0; n < 100000; ++n) {
                  const uint64_t key = random() % (2 * keys);
                  random() % 3 == 0 ? del(scene.store, key) : put(scene.store, key, std::to_string(n));
                }
              }),
              "nothing thrown")
        << size;
    EXPECT_TRUE(scene.store.isDamaged());
    EXPECT_THROW(put(scene.store, 1, "x"), CorruptionException);
    EXPECT_THROW(del(scene.store, 1), CorruptionException);
  }
}

// Fails if a process dies of a long file that was truncated: the system lets it have some 65,000 mappings.
TEST(MemtabTruncation, oneFaultIsEnoughForAllThatIsGone) {
  constexpr size_t pageBytes = 4096;
  constexpr size_t bytes = size_t{600} << 20;
  constexpr size_t bytesLeft = 5 * pageBytes + 1;
  const StateDirectoryScene scene;
  std::filesystem::create_directory(scene.path);
  StateDirectoryScene::write(scene.at("sparse"), std::string(bytesLeft, 'x'));
  const int status = inChild([&] {
    const Descriptor file(open(scene.at("sparse").c_str(), O_RDWR | O_CLOEXEC));
    (void)!ftruncate(file.get(), bytes);
    void* const at = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, file.get(), 0);
    const BusGuard guard(static_cast<const std::byte*>(at), bytes, PROT_READ, file.get());
    (void)!ftruncate(file.get(), bytesLeft);
    size_t left = 0;
    for (size_t page = 0; page < bytes / pageBytes; page += 2) {  // of neighbours the system makes one mapping
      left += static_cast<volatile const char*>(at)[page * pageBytes] == 'x';
    }
    return guard.isDamaged() && left == 3 ? 0 : 1;
  });
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

// Fails if faults that are none of ours are swallowed.
TEST(MemtabTruncation, otherFaultsGoOn) {
  struct sigaction present {};
  sigaction(SIGBUS, nullptr, &present);
  const bool isGuarded = (present.sa_flags & SA_SIGINFO) != 0 || present.sa_handler != SIG_DFL;
  StateDirectoryScene scene;
  std::filesystem::create_directory(scene.path);
  StateDirectoryScene::write(scene.at("other"), std::string(8192, 'x'));
  constexpr int swallowed = 7;
  const auto touchTruncated = [&] {
    const Descriptor file(open(scene.at("other").c_str(), O_RDWR | O_CLOEXEC));
    auto* const bytes = static_cast<volatile char*>(mmap(nullptr, 8192, PROT_READ, MAP_SHARED, file.get(), 0));
    (void)!ftruncate(file.get(), 0);
    return bytes[0] + swallowed;
  };
  int here = 0;
  const int status = inChild([&] {
    const BusGuard guard(reinterpret_cast<const std::byte*>(&here) - 4096, 4096, PROT_READ, -1);
    return touchTruncated();
  });
#ifdef __SANITIZE_ADDRESS__
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << "the sanitizer's handler was there before";
#else
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGBUS);
#endif
  if (!isGuarded) {
    const int handledStatus = inChild([&] {
      signal(SIGBUS, [](int) { _exit(42); });
      const BusGuard guard(reinterpret_cast<const std::byte*>(&here) - 4096, 4096, PROT_READ, -1);
      return touchTruncated();
    });
    EXPECT_EQ(WEXITSTATUS(handledStatus), 42);
  }
}

}  // namespace
}  // namespace Memtab
