// From a publication in one process to its sight in another one that sleeps: a change each 100 microseconds.
//
//   doorbell   sequence stored, bell rung; the reader waits on its descriptor with poll(2)
//   futex      the least that the system needs: a bare futex wake, in the same rhythm
//   ringAwake  what ringing costs the writer while nobody sleeps
//
// Counters: median and 99th percentile of the way in microseconds.
#include <benchmark/benchmark.h>
#include <linux/futex.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "runtime/Memtab/Doorbell.h"

namespace {

constexpr std::uint64_t changes = 5000;
constexpr std::uint64_t pauseNanoseconds = 100'000;

struct Shared {
  std::atomic<std::uint32_t> published;
  std::atomic<bool> isListening;
  std::uint64_t nanoseconds[changes + 1];  // when each change was published; how long it took until it was seen
};

std::uint64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

class Directory {
 public:
  Directory() {
    std::string pattern = "/dev/shm/doorbellXXXXXX";
    path = mkdtemp(pattern.data());
  }
  ~Directory() { std::filesystem::remove_all(path); }
  std::string path;
};

// In another process: sees every change until the last.
template <class Sleep>
void listen(Shared& shared, Sleep sleep) {
  shared.isListening = true;
  for (std::uint32_t seen = 0; seen < changes;) {
    sleep(seen);
    const std::uint32_t published = shared.published.load(std::memory_order_acquire);
    const std::uint64_t time = now();
    while (seen < published) {
      ++seen;
      shared.nanoseconds[seen] = time - shared.nanoseconds[seen];
    }
  }
}

template <class Listen, class Wake>
void way(benchmark::State& state, Listen listenIn, Wake wake) {
  void* const at = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  for (auto _ : state) {
    Shared& shared = *new (at) Shared{};
    const pid_t child = fork();
    if (child == 0) {
      listenIn(shared);
      _exit(0);
    }
    while (!shared.isListening) {
    }
    for (std::uint32_t n = 1; n <= changes; ++n) {
      for (const std::uint64_t start = now(); now() - start < pauseNanoseconds;) {
      }
      shared.nanoseconds[n] = now();
      shared.published.store(n, std::memory_order_release);
      wake(shared);
    }
    waitpid(child, nullptr, 0);
    std::vector<std::uint64_t> times(shared.nanoseconds + 1, shared.nanoseconds + 1 + changes);
    std::sort(times.begin(), times.end());
    state.counters["median_us"] = static_cast<double>(times[changes / 2]) / 1000;
    state.counters["p99_us"] = static_cast<double>(times[changes * 99 / 100]) / 1000;
  }
  munmap(at, sizeof(Shared));
}

void doorbell(benchmark::State& state) {
  Directory directory;
  Memtab::DoorbellRinger ringer(directory.path);
  const auto listenIn = [&directory](Shared& shared) {
    Memtab::DoorbellListener listener(directory.path);
    listen(shared, [&](std::uint32_t seen) {
      listener.aboutToSleep();
      if (shared.published.load(std::memory_order_acquire) == seen) {
        pollfd waited{listener.fd(), POLLIN, 0};
        ::poll(&waited, 1, -1);
      }
      listener.awake();
    });
  };
  way(state, listenIn, [&ringer](Shared&) { ringer.ring(); });
}

long futexCall(Shared& shared, int operation, std::uint32_t value) {
  return syscall(SYS_futex, &shared.published, operation, value, nullptr, nullptr, 0);
}

void futex(benchmark::State& state) {
  const auto listenIn = [](Shared& shared) {
    listen(shared, [&shared](std::uint32_t seen) { futexCall(shared, FUTEX_WAIT, seen); });
  };
  way(state, listenIn, [](Shared& shared) { futexCall(shared, FUTEX_WAKE, 1); });
}

void ringAwake(benchmark::State& state) {
  Directory directory;
  Memtab::DoorbellRinger ringer(directory.path);
  Memtab::DoorbellListener listener(directory.path);
  for (auto _ : state) {
    ringer.ring();
  }
}

BENCHMARK(futex)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(doorbell)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(ringAwake);

}  // namespace
