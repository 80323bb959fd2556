// The shared-memory table engine with records of 90 bytes under 8-byte keys, at 100 thousand and a million records.
//
//   fill       into an empty table, in the order of the keys' numbers
//   get        random keys, all there          getOrdered   the same in the order of hashes, as reviews drain
//   absent     random keys, none there         replace      random keys, records that differ
//   walk       a cursor over everything        erase        every key, in the order of filling
//   group      replace, three keys a group     takeOver     beginning anew over the bytes of a table that was left
//
// A random look-up of a large table waits twice for memory (index, then record), so the speed of memory decides: look
// at ratios within one run. Counters: bytes in use per record, and the sum of what was read, so that nobody gains speed
// by reading less.
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "runtime/Memtab/Store.h"

namespace {

using Memtab::Bytes;

constexpr std::size_t recordBytes = 90;

std::uint64_t mixed(std::uint64_t x) {
  x = (x ^ x >> 33) * 0xFF51'AFD7'ED55'8CCD;
  x = (x ^ x >> 33) * 0xC4CE'B9FE'1A85'EC53;
  return x ^ x >> 33;
}

std::uint64_t hashOf(Bytes key) {
  std::uint64_t number = 0;
  std::memcpy(&number, key.data(), std::min(key.size(), sizeof(number)));
  return mixed(number);
}

class Table {
 public:
  explicit Table(std::size_t count, Memtab::Region region = Memtab::Region::anonymous())
      : store(std::move(region), 1, hashes) {
    for (std::uint64_t key = 0; key < count; ++key) {
      put(key, key);
    }
  }
  static Bytes bytesOf(const std::uint64_t& key) { return std::as_bytes(std::span(&key, 1)); }
  void put(std::uint64_t key, std::uint64_t value) {
    std::memcpy(record_, &value, sizeof(value));
    store.put(0, mixed(key), bytesOf(key), Bytes(record_, recordBytes));
  }
  std::uint64_t get(std::uint64_t key) const {
    const Memtab::Lookup found = store.get(0, mixed(key), bytesOf(key));
    return found.record.empty() ? 0 : std::to_integer<std::uint64_t>(found.record.front());
  }
  void del(std::uint64_t key) { store.del(0, mixed(key), bytesOf(key)); }

  static constexpr Memtab::HashFn hashes[] = {hashOf};
  Memtab::Store store;

 private:
  std::byte record_[recordBytes] = {};
};

enum class Order { filled, random, hashed, absent };

std::vector<std::uint64_t> keys(std::size_t count, Order order) {
  std::vector<std::uint64_t> result(count);
  for (std::uint64_t i = 0; i < count; ++i) {
    result[i] = order == Order::random ? mixed(i + count) % count : order == Order::absent ? count + i : i;
  }
  if (order == Order::hashed) {
    std::sort(result.begin(), result.end(), [](std::uint64_t a, std::uint64_t b) { return mixed(a) < mixed(b); });
  }
  return result;
}

void fill(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    const Table table(count);
    state.counters["bytes"] = static_cast<double>(table.store.bytesUsed()) / static_cast<double>(count);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <Order order, class Step>
void eachKey(benchmark::State& state, Step step) {
  Table table(static_cast<std::size_t>(state.range(0)));
  const auto wanted = keys(static_cast<std::size_t>(state.range(0)), order);
  std::uint64_t sum = 0;
  for (auto _ : state) {
    sum = 0;
    for (const std::uint64_t key : wanted) {
      sum += step(table, key);
    }
  }
  state.counters["sum"] = static_cast<double>(sum);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

constexpr auto getStep = [](Table& table, std::uint64_t key) { return table.get(key); };
void get(benchmark::State& state) { eachKey<Order::random>(state, getStep); }
void getOrdered(benchmark::State& state) { eachKey<Order::hashed>(state, getStep); }
void absent(benchmark::State& state) { eachKey<Order::absent>(state, getStep); }

void replace(benchmark::State& state) {
  eachKey<Order::random>(state, [n = std::uint64_t{1} << 40](Table& table, std::uint64_t key) mutable {
    table.put(key, ++n);
    return 0u;
  });
}

void group(benchmark::State& state) {
  eachKey<Order::random>(state, [n = std::uint64_t{3} << 40](Table& table, std::uint64_t key) mutable {
    if (n % 3 == 0) {
      table.store.groupBegin();
    }
    table.put(key, ++n);
    if (n % 3 == 0) {
      table.store.groupEnd([](unsigned, Bytes, Memtab::ChangeKind) {});
    }
    return 0u;
  });
}

// Memory that outlives the region made of it.
class Kept final : public Memtab::Backing {
 public:
  Kept(int file, std::size_t bytes) : file_(file), bytes_(bytes) {}
  std::size_t attach(std::byte* base, std::size_t bytes) override {
    mmap(base, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED | MAP_NORESERVE, file_, 0);
    return bytes_;
  }
  bool extend(std::byte*, std::size_t, std::size_t to) override {
    return ftruncate(file_, static_cast<off_t>(to)) == 0;
  }
  void giveBack(std::byte*, std::size_t, std::size_t) override {}

 private:
  int file_;
  std::size_t bytes_;
};

void takeOver(benchmark::State& state) {
  const int file = memfd_create("table", MFD_CLOEXEC);
  const auto open = [file](std::size_t bytes) {
    return Memtab::Region(std::make_unique<Kept>(file, bytes), Memtab::Region::reserveDefault);
  };
  std::size_t bytes = 0;
  {
    Table table(static_cast<std::size_t>(state.range(0)), open(0));
    bytes = table.store.bytesMapped();
  }
  for (auto _ : state) {
    const Memtab::Store store(open(bytes), 1, Table::hashes);
    state.counters["sum"] = static_cast<double>(store.entries(0));
  }
  close(file);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void walk(benchmark::State& state) {
  const Table table(static_cast<std::size_t>(state.range(0)));
  std::uint64_t sum = 0;
  for (auto _ : state) {
    Memtab::Cursor cursor = table.store.cursor(0);
    for (sum = 0; cursor.next() == Memtab::Cursor::Step::entry;) {
      sum += std::to_integer<std::uint64_t>(cursor.record().front());
    }
  }
  state.counters["sum"] = static_cast<double>(sum);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void erase(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    Table table(static_cast<std::size_t>(state.range(0)));
    state.ResumeTiming();
    for (std::uint64_t key = 0; key < static_cast<std::uint64_t>(state.range(0)); ++key) {
      table.del(key);
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

constexpr int small = 100'000;
constexpr int large = 1'000'000;
BENCHMARK(fill)->Arg(small)->Arg(large)->Unit(benchmark::kMillisecond);
BENCHMARK(get)->Arg(small)->Arg(large)->Unit(benchmark::kMillisecond);
BENCHMARK(getOrdered)->Arg(small)->Arg(large)->Unit(benchmark::kMillisecond);
BENCHMARK(absent)->Arg(small)->Arg(large)->Unit(benchmark::kMillisecond);
BENCHMARK(replace)->Arg(small)->Arg(large)->Unit(benchmark::kMillisecond);
BENCHMARK(group)->Arg(small)->Arg(large)->Unit(benchmark::kMillisecond);
BENCHMARK(takeOver)->Arg(small)->Arg(large)->Unit(benchmark::kMillisecond);
BENCHMARK(walk)->Arg(small)->Arg(large)->Unit(benchmark::kMillisecond);
BENCHMARK(erase)->Arg(small)->Arg(large)->Unit(benchmark::kMillisecond);

}  // namespace
