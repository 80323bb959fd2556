// A protocol table with a million LDP entries of one via each, at random indexes.
//
//   put          into an empty table            replace   every entry, changed
//   get          every entry, in another order than that of the puts
//   iterate      keys in the table's order      iterateRecords   the same with each record decoded
//
// Items are entries.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <vector>

#include "tunnel/TunnelTable.h"

namespace {

using namespace Tunnel::TunnelTable;

constexpr std::uint64_t entryCount = 1'000'000;

std::vector<std::uint64_t> shuffledIndexes(unsigned seed) {
  std::vector<std::uint64_t> indexes(entryCount);
  std::iota(indexes.begin(), indexes.end(), 1);
  std::shuffle(indexes.begin(), indexes.end(), std::mt19937_64(seed));
  return indexes;
}

LdpTunnelTableEntry ldpEntry() {
  const Ipkit::MplsLabelOperation::Label labels[] = {300123};
  LdpTunnelTableEntry entry;
  entry.viaRef().append(MplsVia(Via(Ipkit::IpGenAddr::ipv4(0xC0000201), Ipkit::IntfId::ordinary(12)),
                                Ipkit::MplsLabelOperation::push(labels)));
  return entry;
}

void putAll(LdpTunnelTable& table, const std::vector<std::uint64_t>& indexes, std::uint64_t tieBreaker) {
  LdpTunnelTableEntry entry = ldpEntry();
  entry.tieBreakerIs(tieBreaker);
  for (const std::uint64_t index : indexes) {
    entry.tunnelIdIs(TunnelId(TunnelType::ldpTunnel, index));
    entry.tepIs(Ipkit::IpGenPrefix::host(Ipkit::IpGenAddr::ipv4(static_cast<std::uint32_t>(0x0A000000 + index / 2))));
    table.entryIs(entry);
  }
}

void count(benchmark::State& state) { state.SetItemsProcessed(state.iterations() * std::int64_t{entryCount}); }

void put(benchmark::State& state) {
  const std::vector<std::uint64_t> indexes = shuffledIndexes(1);
  for (auto _ : state) {
    state.PauseTiming();
    auto table = Zol::make<LdpTunnelTable>("ldp");
    state.ResumeTiming();
    putAll(*table, indexes, 0);
    state.PauseTiming();
    state.counters["bytes/entry"] = static_cast<double>(table->bytesUsed()) / entryCount;
    table = nullptr;
    state.ResumeTiming();
  }
  count(state);
}
BENCHMARK(put)->Unit(benchmark::kMillisecond)->Iterations(3);

class Filled : public benchmark::Fixture {
 public:
  void SetUp(benchmark::State&) override {
    if (table.size() == 0) {
      putAll(table, shuffledIndexes(1), 0);
    }
  }
  static inline LdpTunnelTable& table = *new LdpTunnelTable("ldp");  // kept to the end of the process
};

BENCHMARK_DEFINE_F(Filled, replace)(benchmark::State& state) {
  const std::vector<std::uint64_t> indexes = shuffledIndexes(2);
  std::uint64_t round = 0;
  for (auto _ : state) {
    putAll(table, indexes, ++round);
  }
  count(state);
}
BENCHMARK_REGISTER_F(Filled, replace)->Unit(benchmark::kMillisecond)->Iterations(3);

BENCHMARK_DEFINE_F(Filled, get)(benchmark::State& state) {
  const std::vector<std::uint64_t> indexes = shuffledIndexes(3);
  for (auto _ : state) {
    LdpTunnelTableEntry entry;
    for (const std::uint64_t index : indexes) {
      benchmark::DoNotOptimize(table.read(TunnelId(TunnelType::ldpTunnel, index), entry));
    }
  }
  count(state);
}
BENCHMARK_REGISTER_F(Filled, get)->Unit(benchmark::kMillisecond)->Iterations(3);

void iterateAll(benchmark::State& state, bool decodes) {
  for (auto _ : state) {
    LdpTunnelTable::Hint hint;
    for (bool more = Filled::table.first(hint); more; more = Filled::table.next(hint)) {
      benchmark::DoNotOptimize(hint.key());
      if (decodes) {
        benchmark::DoNotOptimize(hint.record(Filled::table).via().size());
      }
    }
  }
  count(state);
}
BENCHMARK_DEFINE_F(Filled, iterate)(benchmark::State& state) { iterateAll(state, false); }
BENCHMARK_REGISTER_F(Filled, iterate)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK_DEFINE_F(Filled, iterateRecords)(benchmark::State& state) { iterateAll(state, true); }
BENCHMARK_REGISTER_F(Filled, iterateRecords)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
