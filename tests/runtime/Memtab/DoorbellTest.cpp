#include <linux/seccomp.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <thread>

#include "runtime/Memtab/Doorbell.h"
#include "tests/runtime/Memtab/FollowerScene.h"

namespace Memtab {
namespace {

class DoorbellScene : public StateDirectoryScene {
 public:
  DoorbellScene() { std::filesystem::create_directory(path); }
  std::string bell() const { return at(".bell"); }
};

bool isRung(const DoorbellListener& listener, int milliseconds) {
  pollfd waited{listener.fd(), POLLIN, 0};
  return ::poll(&waited, 1, milliseconds) == 1;
}

// What two processes share beside the bell.
struct Shared {
  std::atomic<uint64_t> published;
  std::atomic<uint64_t> seen;
  std::atomic<uint64_t> sleeps;
};
Shared& sharedMemory() {
  void* const at = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return *new (at) Shared;
}

// Follows the published number up to last; exit status 1 if a sleep was not ended.
int follow(const std::string& path, Shared& shared, uint64_t last) {
  DoorbellListener listener(path);
  uint64_t seen = 0;
  while (seen < last) {
    listener.aboutToSleep();
    if (shared.published.load(std::memory_order_acquire) == seen) {
      ++shared.sleeps;
      if (!isRung(listener, 10000)) {
        return 1;
      }
    }
    listener.awake();
    seen = shared.published.load(std::memory_order_acquire);
    shared.seen = seen;
  }
  return 0;
}

// Fails if a sleeper is missed, whether it is just falling asleep or long gone, or if few sleeps were ended at all.
TEST(MemtabDoorbell, wakesWhoSleeps) {
  Support::forEachSeed(1, [](unsigned seed) {
    constexpr uint64_t last = 10000;
    DoorbellScene scene;
    DoorbellRinger ringer(scene.path);
    EXPECT_EQ(DoorbellScene::modeOf(scene.bell()), 0660u);
    Shared& shared = sharedMemory();
    const pid_t child = fork();
    if (child == 0) {
      _exit(follow(scene.path, shared, last));
    }
    Random random(seed);
    const auto isChildGone = [child] {
      siginfo_t ended{};
      return waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid != 0;
    };
    for (uint64_t n = 1; n <= last && shared.seen == n - 1; ++n) {
      for (unsigned i = random() % 2048; i > 0; --i) {  // the reader is about to fall asleep
        asm volatile("");
      }
      shared.published.store(n, std::memory_order_release);
      ringer.ring();
      for (unsigned spins = 0; shared.seen != n && !isChildGone(); ++spins) {
        if (spins > 100) {
          sched_yield();
        }
      }
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << "seen " << shared.seen << " of " << last;
    EXPECT_GT(shared.sleeps, 100u);
    EXPECT_EQ(DoorbellScene::modeOf(scene.at(".wake-0")), 0660u);
  });
}

// Fails if a dead reader kills or blocks the writer, keeps its slot, or leaves wake-ups to the next one.
TEST(MemtabDoorbell, deadReaders) {
  DoorbellScene scene;
  DoorbellRinger ringer(scene.path);
  for (int round = 0; round < 3; ++round) {
    inChild([&] {
      DoorbellListener listener(scene.path);
      listener.aboutToSleep();
      return raise(SIGKILL);
    });
    ringer.ring();
    ringer.ring();
    DoorbellListener listener(scene.path);
    EXPECT_FALSE(isRung(listener, 0));
    listener.aboutToSleep();
    EXPECT_FALSE(isRung(listener, 0));
    ringer.ring();
    EXPECT_TRUE(isRung(listener, 0));
    listener.awake();
    EXPECT_FALSE(isRung(listener, 0));
    ringer.ring();  // awake: no byte
    EXPECT_FALSE(isRung(listener, 0));
    listener.aboutToSleep();
    ringer.mend();  // nothing was spoilt: writers look every second, and sleepers go on sleeping
    EXPECT_FALSE(isRung(listener, 0));
    listener.awake();
  }
  EXPECT_EQ(scene.files(), 2u);  // the bell and one FIFO
}

// Fails if a sleeper that one ring cannot reach counts as awake for the next ring.
TEST(MemtabDoorbell, anUnreachableSleeperIsTriedAgain) {
  DoorbellScene scene;
  DoorbellRinger ringer(scene.path);
  DoorbellListener listener(scene.path);
  listener.aboutToSleep();
  std::filesystem::rename(scene.at(".wake-0"), scene.at(".away"));
  std::filesystem::create_directory(scene.at(".wake-0"));
  ringer.ring();
  EXPECT_FALSE(isRung(listener, 0));
  std::filesystem::remove(scene.at(".wake-0"));
  std::filesystem::rename(scene.at(".away"), scene.at(".wake-0"));
  ringer.ring();
  EXPECT_TRUE(isRung(listener, 0));
}

// Fails if two readers share a slot, or one more reader than there are slots is an error.
TEST(MemtabDoorbell, manyReaders) {
  DoorbellScene scene;
  DoorbellRinger ringer(scene.path);
  std::vector<std::unique_ptr<DoorbellListener>> listeners;
  for (unsigned n = 0; n <= Bell::slots; ++n) {
    listeners.push_back(std::make_unique<DoorbellListener>(scene.path));
    listeners.back()->aboutToSleep();
    EXPECT_EQ(listeners.back()->isSound(), n < Bell::slots);
  }
  ringer.ring();
  for (unsigned n = 0; n < Bell::slots; ++n) {
    EXPECT_TRUE(isRung(*listeners[n], 0)) << n;
  }
  listeners.erase(listeners.begin() + 7);
  EXPECT_TRUE(listeners.back()->mend());
  listeners.back()->aboutToSleep();
  ringer.ring();
  EXPECT_TRUE(isRung(*listeners.back(), 0));
}

// A child that may call nothing but exit() publishes while a reader is awake; the kernel kills it if it calls more.
TEST(MemtabDoorbell, noSystemCallWhileNobodySleeps) {
  DoorbellScene scene;
  DoorbellListener awake(scene.path);
  const pid_t child = fork();
  if (child == 0) {
    WriterFile file(scene.path, "table", fileFingerprint, 2);
    Store store(file.region(), fileFingerprint, numberHashes);
    file.publish();
    DoorbellRinger ringer(scene.path);
    const auto publish = [&](uint64_t round) {
      for (uint64_t key = 0; key < 1000; ++key) {
        put(store, key, std::string(8, static_cast<char>('a' + round)));
        ringer.ring();
      }
    };
    for (uint64_t round = 0; round < 4; ++round) {  // until the table has all its space
      publish(round);
    }
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT);
    publish(4);
    syscall(SYS_exit, 17);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 17) << status;
}

// Fails if a bell that is garbage, truncated, gone or hostile does more than go unheard until the listener's mend().
TEST(MemtabDoorbell, spoiltBells) {
  const DoorbellScene writable;
  { const DoorbellRinger made(writable.path); }
  chmod(writable.bell().c_str(), 0666);
  EXPECT_NE(thrown<FileRefused>([&] { DoorbellRinger(writable.path); }).find("(mode 666)"), std::string::npos);
  Random random(3);
  const std::function<void(const DoorbellScene&)> spoilers[] = {
      [](const DoorbellScene& s) { truncate(s.bell().c_str(), 0); },
      [](const DoorbellScene& s) { DoorbellScene::write(s.bell(), "garbage"); },
      [](const DoorbellScene& s) { unlink(s.bell().c_str()); },
      [](const DoorbellScene& s) { unlink(s.at(".wake-0").c_str()); },
      [](const DoorbellScene& s) {
        std::filesystem::remove_all(s.path);
        std::filesystem::create_directory(s.path);
      },
      [&random](const DoorbellScene& s) {
        std::fstream bell(s.bell(), std::ios::in | std::ios::out | std::ios::binary);
        for (int i = 0; i < 65536; ++i) {
          bell.put(static_cast<char>(random()));
        }
      },
      [&random](const DoorbellScene& s) {  // all but the magic number
        std::fstream bell(s.bell(), std::ios::in | std::ios::out | std::ios::binary);
        bell.seekp(64);
        for (int i = 64; i < 65536; ++i) {
          bell.put(static_cast<char>(random()));
        }
      }};
  for (const auto& spoil : spoilers) {
    DoorbellScene scene;
    DoorbellRinger ringer(scene.path);
    DoorbellListener listener(scene.path);
    listener.aboutToSleep();
    spoil(scene);
    ringer.ring();
    listener.awake();
    listener.aboutToSleep();
    ringer.ring();
    listener.awake();
    EXPECT_TRUE(listener.mend());
    listener.awake();
    for (int i = 0; i < 3; ++i) {
      listener.aboutToSleep();
      ringer.ring();
      EXPECT_TRUE(isRung(listener, 0));
      listener.awake();
    }
  }
  DoorbellScene scene;
  std::filesystem::remove_all(scene.path);
  DoorbellListener early(scene.path);  // before any writer
  EXPECT_FALSE(early.isSound());
  early.aboutToSleep();
  early.awake();
  EXPECT_THROW(DoorbellRinger(scene.path), FileAbsent);
}

}  // namespace
}  // namespace Memtab
