// The hash collection at a million tunnel ids, beside std::unordered_map and Abseil's flat_hash_map: with the hashes
// that these use for 64-bit integers (Std, Absl), and with the ids' own hash (StdIdHash, AbslIdHash).
//
//   find      every id once, in an order that has nothing to do with theirs; each is there. The processor overlaps as
//             many look-ups as fit into its window of instructions: here the length of the hash counts, not the map
//   chained   the same, but each look-up waits for the result of the one before, as the steps of a review do
//   insert    into an empty collection, in the order of ids
//   iterate   all members
//   erase     every id, in the order of find
//   drain     walks the collection and deletes each member on the way, filing it in another
//
// dense: ids 0, 1, 2, ... of one type, as a protocol hands them out. random: indexes from the whole range.
// Items are members; what counts is the ratio of the times within one run.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <unordered_map>
#include <vector>

#include "runtime/Zol/HashCollection.h"
#if HAVE_ABSL
#include <absl/container/flat_hash_map.h>
#endif

namespace {

constexpr std::size_t idCount = 1'000'000;
constexpr std::uint64_t typeBits = std::uint64_t{5} << 44;

struct Id {
  std::uint64_t value;
  std::uint32_t hash() const {
    Zol::OneAtATime hash;
    hash.word(value);
    return hash.result();
  }
  friend auto operator<=>(const Id&, const Id&) = default;
};

enum Indexes { dense, random };

const std::vector<std::uint64_t>& ids(Indexes indexes) {
  static const auto make = [](bool random) {
    std::mt19937_64 generator(1);
    std::vector<std::uint64_t> made(idCount);
    for (std::size_t i = 0; i < idCount; ++i) {
      made[i] = typeBits | (random ? generator() >> 20 : i);
    }
    return made;
  };
  static const std::vector<std::uint64_t> all[] = {make(false), make(true)};
  return all[indexes];
}

const std::vector<std::uint64_t>& shuffled(Indexes indexes) {
  static const auto make = [](Indexes which) {
    std::vector<std::uint64_t> made = ids(which);
    std::shuffle(made.begin(), made.end(), std::mt19937_64(2));
    return made;
  };
  static const std::vector<std::uint64_t> all[] = {make(dense), make(random)};
  return all[indexes];
}

// What differs between the three maps.
struct Ours {
  Zol::HashCollection<Id, std::uint64_t> map;
  void insert(std::uint64_t id) { map.insert(Id{id}, id); }
  std::uint64_t find(std::uint64_t id) const { return *map.find(Id{id}); }
  void erase(std::uint64_t id) { map.erase(Id{id}); }
  std::uint64_t sum() const {
    std::uint64_t sum = 0;
    for (auto it = map.begin(); it; ++it) {
      sum += it.value();
    }
    return sum;
  }
};

struct IdHash {
  std::size_t operator()(std::uint64_t id) const { return Id{id}.hash(); }
};

template <class Map>
struct Other {
  Map map;
  void insert(std::uint64_t id) { map.emplace(id, id); }
  std::uint64_t find(std::uint64_t id) const { return map.find(id)->second; }
  void erase(std::uint64_t id) { map.erase(id); }
  std::uint64_t sum() const {
    std::uint64_t sum = 0;
    for (const auto& [key, value] : map) {
      sum += value;
    }
    return sum;
  }
};
using Std = Other<std::unordered_map<std::uint64_t, std::uint64_t>>;
using StdIdHash = Other<std::unordered_map<std::uint64_t, std::uint64_t, IdHash>>;

template <class Map>
Map filled(Indexes indexes) {
  Map map;
  for (const std::uint64_t id : ids(indexes)) {
    map.insert(id);
  }
  return map;
}

void countItems(benchmark::State& state) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(idCount));
}

template <class Map, Indexes indexes>
void find(benchmark::State& state) {
  const Map map = filled<Map>(indexes);
  for (auto _ : state) {
    std::uint64_t sum = 0;
    for (const std::uint64_t id : shuffled(indexes)) {
      sum += map.find(id);
    }
    benchmark::DoNotOptimize(sum);
  }
  countItems(state);
}

template <class Map, Indexes indexes>
void chained(benchmark::State& state) {
  const Map map = filled<Map>(indexes);
  for (auto _ : state) {
    std::uint64_t found = 0;
    for (const std::uint64_t id : shuffled(indexes)) {
      found = map.find(id ^ (found >> 63));  // no id has the highest bit
    }
    benchmark::DoNotOptimize(found);
  }
  countItems(state);
}

template <class Map, Indexes indexes>
void insert(benchmark::State& state) {
  for (auto _ : state) {
    const Map map = filled<Map>(indexes);
    benchmark::DoNotOptimize(&map);
    state.PauseTiming();  // not its destruction
    { const Map gone = std::move(const_cast<Map&>(map)); }
    state.ResumeTiming();
  }
  countItems(state);
}

template <class Map, Indexes indexes>
void iterate(benchmark::State& state) {
  const Map map = filled<Map>(indexes);
  for (auto _ : state) {
    benchmark::DoNotOptimize(map.sum());
  }
  countItems(state);
}

template <class Map, Indexes indexes>
void erase(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    Map map = filled<Map>(indexes);
    state.ResumeTiming();
    for (const std::uint64_t id : shuffled(indexes)) {
      map.erase(id);
    }
  }
  countItems(state);
}

void drain(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    Ours from = filled<Ours>(dense);
    state.ResumeTiming();
    Ours to;
    for (auto it = from.map.begin(); it; ++it) {
      to.insert(it.key().value);
      from.map.erase(it.key());
    }
    benchmark::DoNotOptimize(to.map.size());
  }
  countItems(state);
}

#define BENCH_ONE(operation, Map)                                                                   \
  BENCHMARK(operation<Map, dense>)->Name(#operation "/dense/" #Map)->Unit(benchmark::kMillisecond); \
  BENCHMARK(operation<Map, random>)->Name(#operation "/random/" #Map)->Unit(benchmark::kMillisecond);
#if HAVE_ABSL
using Absl = Other<absl::flat_hash_map<std::uint64_t, std::uint64_t>>;
using AbslIdHash = Other<absl::flat_hash_map<std::uint64_t, std::uint64_t, IdHash>>;
#define BENCH_ABSL(operation) BENCH_ONE(operation, Absl) BENCH_ONE(operation, AbslIdHash)
#else
#define BENCH_ABSL(operation)
#endif
#define BENCH_ALL(operation) \
  BENCH_ONE(operation, Ours) BENCH_ONE(operation, Std) BENCH_ONE(operation, StdIdHash) BENCH_ABSL(operation)

BENCH_ALL(find)
BENCH_ALL(chained)
BENCH_ALL(insert)
BENCH_ALL(iterate)
BENCH_ALL(erase)
BENCHMARK(drain)->Unit(benchmark::kMillisecond);

}  // namespace
