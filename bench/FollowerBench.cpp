// A follower of a table with a million records of 90 bytes under 8-byte keys.
//
//   idle          nothing changed                     ring        4000 changes, all still in the ring
//   prime         the first look                      fewChanged  10 thousand changes, so the ring is overtaken
//   fewLate       200 thousand changes of 10 thousand keys: generations may have come round
//   allChanged    every record is another
//
// Counters: keys reported, so that nobody gains speed by missing some.
#include <benchmark/benchmark.h>

#include <cstring>

#include "runtime/Memtab/Follower.h"
#include "runtime/Memtab/MemtabMap.h"

namespace {

using Memtab::Bytes;

constexpr std::uint64_t large = 1'000'000;
constexpr Memtab::HashFn hashes[] = {Memtab::hashOfKeyBytes<std::uint64_t>};

class Table {
 public:
  Table() {
    for (std::uint64_t key = 0; key < large; ++key) {
      put(key);
    }
  }
  void put(std::uint64_t key) {
    ++changes_;
    std::memcpy(record_, &changes_, sizeof changes_);
    const Bytes bytes = std::as_bytes(std::span(&key, 1));
    store.put(0, hashes[0](bytes), bytes, Bytes(record_, sizeof record_));
  }
  void putMany(std::uint64_t changes, std::uint64_t keys) {
    for (std::uint64_t n = 0; n < changes; ++n) {
      put(n % keys * 97 % large);
    }
  }

  Memtab::Store store{Memtab::Region::anonymous(), 1, hashes};

 private:
  std::byte record_[90] = {};
  std::uint64_t changes_ = 0;
};

// One for all benchmarks: it takes longer to fill than they take.
Table& table() {
  static Table table;
  return table;
}

using Follower = Memtab::Follower<std::uint64_t>;
constexpr auto noDamage = [](const Memtab::Damage&) { std::abort(); };

std::uint64_t settle(Follower& follower) {
  std::uint64_t reported = 0;
  while (follower.poll(
      4096, [&reported](std::uint64_t) { ++reported; }, noDamage)) {
  }
  return reported;
}

void idle(benchmark::State& state) {
  Follower follower(table().store.reader(), 0);
  follower.prime(noDamage);
  for (auto _ : state) {
    benchmark::DoNotOptimize(settle(follower));
  }
}

void prime(benchmark::State& state) {
  for (auto _ : state) {
    Follower follower(table().store.reader(), 0);
    follower.prime(noDamage);
    state.counters["keys"] = static_cast<double>(follower.knownKeys());
  }
}

void follow(benchmark::State& state) {
  Follower follower(table().store.reader(), 0);
  follower.prime(noDamage);
  for (auto _ : state) {
    state.PauseTiming();
    table().putMany(static_cast<std::uint64_t>(state.range(0)), static_cast<std::uint64_t>(state.range(1)));
    state.ResumeTiming();
    state.counters["reported"] = static_cast<double>(settle(follower));
  }
  state.SetItemsProcessed(state.iterations() * state.range(1));
}

BENCHMARK(idle);
BENCHMARK(prime)->Unit(benchmark::kMillisecond);
BENCHMARK(follow)->Name("ring")->Args({4000, 4000})->Unit(benchmark::kMillisecond);
BENCHMARK(follow)->Name("fewChanged")->Args({10'000, 10'000})->Unit(benchmark::kMillisecond);
BENCHMARK(follow)->Name("fewLate")->Args({200'000, 10'000})->Unit(benchmark::kMillisecond);
BENCHMARK(follow)->Name("allChanged")->Args({large, large})->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace
