// A writer process is killed at a random moment, again and again: while it opens, takes over, writes, grows, makes
// groups. A reader in this process follows at full speed all the time.
//
// What the n-th change is follows from n alone, and the writer notes in memory shared with us which change it has begun
// and which is complete. So after each death we know the content, save for the one change that was under way, of which
// each key has its old or its new record.
#include <signal.h>
#include <sys/mman.h>

#include <chrono>

#include "tests/runtime/Memtab/FollowerScene.h"

namespace Memtab {
namespace {

constexpr uint64_t keys = 2000;

struct Progress {
  std::atomic<bool> isOpen;
  std::atomic<uint64_t> begun;
  std::atomic<uint64_t> done;
};

// Key, and its new record; empty: deleted.
using Step = std::vector<std::pair<uint64_t, std::string>>;

Step stepOf(uint64_t n) {
  Random random(static_cast<unsigned>(n));
  Step step(n % 5 == 0 ? 1 + random() % 20 : 1);
  for (auto& [key, record] : step) {
    key = random() % (n / 2048 % 2 == 0 ? keys : keys / 16);
    const bool isDeletion = random() % (n / 1024 % 2 == 0 ? 3 : 8) == 0;
    record = isDeletion ? "" : std::string(1 + random() % 300, static_cast<char>('a' + key % 26)) + std::to_string(key);
  }
  return step;
}

bool isWhole(uint64_t key, const std::string& record) {
  const std::string tail = std::to_string(key);
  return record.ends_with(tail) &&
         record.find_first_not_of(static_cast<char>('a' + key % 26)) == record.size() - tail.size();
}

void make(Store& store, uint64_t n) {
  const Step step = stepOf(n);
  if (step.size() > 1) {
    store.groupBegin();
  }
  for (const auto& [key, record] : step) {
    record.empty() ? del(store, key) : put(store, key, record);
  }
  if (step.size() > 1) {
    store.groupEnd([](unsigned, Bytes, ChangeKind) {});
  }
}

class KillScene {
 public:
  KillScene() {
    void* const at = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    progress = new (at) Progress;
  }
  ~KillScene() { munmap(progress, sizeof(Progress)); }

  [[noreturn]] void write() {
    const Owner owner = Owner::ofThisProcess();
    WriterFile file(files.path, "table", fileFingerprint, 2);
    Store store(file.region(), fileFingerprint, numberHashes, {.owner = owner});
    if (!store.takeOver().damages.empty() || !file.asideReason().empty()) {
      _exit(1);
    }
    if (file.isNew()) {
      file.publish();
    }
    progress->isOpen = true;
    for (uint64_t n = progress->begun + 1;; ++n) {
      progress->begun = n;
      make(store, n);
      progress->done = n;
    }
  }

  // Reads while the child lives, for a while that depends on random.
  void watch(unsigned delayMicroseconds, bool isFromOpen) {
    using Clock = std::chrono::steady_clock;
    Clock::time_point start = Clock::now();
    const Clock::time_point forked = start;
    while (Clock::now() - start < std::chrono::microseconds(delayMicroseconds)) {
      if (isFromOpen && !progress->isOpen && Clock::now() - forked < std::chrono::seconds(10)) {
        start = Clock::now();
      }
      look();
    }
  }

  void look() {
    if (mirror) {
      mirror->poll(100);
      return;
    }
    try {
      readerFile.emplace(files.path, "table", fileFingerprint, 2);
      reader.emplace(readerFile->view(), numberHashes);
      mirror.emplace(*reader);
    } catch (const FileAbsent&) {
    }
  }

  // The writer is dead. Takes what it left for the content from now on.
  void check() {
    for (; counted < progress->done; ++counted) {
      apply(stepOf(counted + 1));
    }
    const bool isUnderWay = progress->begun != progress->done;
    std::map<uint64_t, std::string> pending;
    for (const auto& [key, record] : isUnderWay ? stepOf(progress->begun) : Step()) {
      pending[key] = record;
    }
    counted = progress->done = progress->begun.load();
    look();  // at last, if the table appeared only now
    if (!reader) {
      ASSERT_TRUE(model.empty());
      return;
    }
    EXPECT_FALSE(readerFile->isOwned());
    if (std::exchange(epoch, reader->epoch()) != epoch) {
      untold.clear();
    }
    for (const auto& [key, record] : pending) {
      untold.insert(key);
    }
    EXPECT_TRUE(mirror->damages.empty()) << mirror->damages.front();
    mirror->settle();
    const Numbers content = numbersIn(*reader);
    for (uint64_t key = 0; key < keys; ++key) {
      const std::string is = recordIn(content, key);
      ASSERT_TRUE(is.empty() || isWhole(key, is)) << key;
      const bool isOld = is == recordIn(model, key);
      ASSERT_TRUE(isOld || (pending.contains(key) && is == pending.at(key))) << "change " << counted << " key " << key;
      ASSERT_TRUE(untold.contains(key) || recordIn(mirror->numbers, key) == is) << key;
      cutShort += !isOld;
    }
    model = content;
  }

  static std::string recordIn(const Numbers& numbers, uint64_t key) {
    const auto at = numbers.find(key);
    return at == numbers.end() ? "" : at->second;
  }
  void apply(const Step& step) {
    for (const auto& [key, record] : step) {
      if (record.empty()) {
        model.erase(key);
      } else {
        model[key] = record;
      }
    }
  }

  StateDirectoryScene files;
  Progress* progress;
  std::optional<ReaderFile> readerFile;
  std::optional<Reader> reader;
  std::optional<Mirror> mirror;
  Numbers model;
  uint64_t counted = 0;       // changes in the model
  uint64_t epoch = 0;         // of the writer that died last
  std::set<uint64_t> untold;  // keys that a dead writer may have changed without saying so, until a successor does
  size_t cutShort = 0;
};

// Fails if a reader meets a mixed record, damage or a hang, if a complete change is lost, or if what a death leaves
// is not the old or the new.
TEST(MemtabKill, anyMoment) {
  constexpr unsigned killsOfSeed = 100;
  size_t beforeOpen = 0;
  size_t cutShort = 0;
  uint64_t changes = 0;
  Support::forEachSeed(3, [&](unsigned seed) {
    KillScene scene;
    Random random(seed);
    for (unsigned n = 0; n < killsOfSeed && !HasFailure(); ++n) {
      SCOPED_TRACE("after " + std::to_string(n) + " deaths");
      scene.progress->isOpen = false;
      const pid_t child = fork();
      ASSERT_GE(child, 0);
      if (child == 0) {
        scene.write();
      }
      scene.watch(random() % (n % 4 == 0 ? 3000 : 1500), n % 4 != 0);
      beforeOpen += !scene.progress->isOpen;
      kill(child, SIGKILL);
      int status = 0;
      waitpid(child, &status, 0);
      ASSERT_TRUE(WIFSIGNALED(status)) << "the writer gave up";
      scene.check();
    }
    cutShort += scene.cutShort;
    changes += scene.progress->begun;
    EXPECT_GT(scene.progress->begun, uint64_t{killsOfSeed});
  });
  std::printf("%zu deaths before the table was open, %zu records of unfinished changes, %lu changes\n", beforeOpen,
              cutShort, static_cast<unsigned long>(changes));
}

}  // namespace
}  // namespace Memtab
