// The system RIB at router scale: a million LDP tunnels at half a million endpoints, two at each.
//
//   fill      from full tables to an empty backlog: the drain alone, every RIB entry written
//   churn     100,000 tunnels published anew with another preference, then the drain alone
//   restart   a new RIB reactor over the same tables and RIBs, start and drain; writes nothing
//
// Items are reviews. bytes/tunnel is what table, seen ids, candidate store, RIB and per-protocol RIB take together: the
// growth of the process from before the table's first entry to after the drain.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <fstream>
#include <memory>

#include "runtime/Quor/EndlessSlicePolicy.h"
#include "runtime/Quor/SimulatedLoop.h"
#include "runtime/Quor/SimulatedTimeSource.h"
#include "tunnel_table_sm/TunnelRibConfigDirSm.h"

namespace {

using namespace Tunnel::TunnelTable;

constexpr std::uint32_t tunnelCount = 1'000'000;
constexpr std::uint32_t churnCount = 100'000;

double residentBytes() {
  malloc_trim(0);
  std::ifstream statm("/proc/self/statm");
  double total = 0;
  double resident = 0;
  statm >> total >> resident;
  return resident * 4096;
}

// A table with its tunnels, and the RIB side over it once it is started.
struct Router {
  Router() {
    infos->tunnelTableInfoIs("ldp", tunnelTableInfo(TunnelTableIdentifier::ldp));
    const auto config = Zol::make<TunnelRibConfig>("system");
    config->entryIs(Zol::make<TunnelRibProtoEntry>(TunnelTableIdentifier::ldp));
    configDir->configIs(config);
    protocolRibs->protocolTunnelRibIs(TunnelType::ldpTunnel)->tunnelRibIs(Zol::make<TunnelRib>("ldpTunnel"));
    const Ipkit::MplsLabelOperation::Label labels[] = {300123};
    entry.viaRef().append(MplsVia(Via(Ipkit::IpGenAddr::ipv4(0xC0000201), Ipkit::IntfId::ordinary(12)),
                                  Ipkit::MplsLabelOperation::push(labels)));
    for (std::uint32_t i = 0; i < tunnelCount; ++i) {
      put(i, 55);
    }
  }
  void put(std::uint32_t index, TunnelEntryPref pref) {
    entry.tunnelIdIs(TunnelId(TunnelType::ldpTunnel, index));
    entry.tepIs(Ipkit::IpGenPrefix::host(Ipkit::IpGenAddr::ipv4(0x0A000000 + index / 2)));
    entry.prefIs(pref);
    ldp->entryIs(entry);
  }
  void start() {
    sm = nullptr;
    sm = tunnelRibConfigDirSmFactory(rib, Zol::make<BgpLuConvergence>("bgpLu"), Zol::make<TunnelConvergence>("all"),
                                     configDir, infos, entityManager, protocolRibs, tunnelIdCollFactory(),
                                     Zol::make<TunnelRibNameIdMap>("ids"), scheduler);
  }
  void settle() { Quor::settle(*scheduler, time); }
  std::uint64_t writes() const { return rib->collectionControl().sequence(); }

  Quor::SimulatedTimeSource time;
  Quor::EndlessSlicePolicy policy;
  Zol::Ptr<Quor::TaskScheduler> scheduler = Zol::make<Quor::TaskScheduler>(time, policy);
  Zol::Ptr<Statehub::EntityManager> entityManager = Zol::make<Statehub::EntityManager>();
  Zol::Ptr<TunnelTableInfoCollection> infos = Zol::make<TunnelTableInfoCollection>("infos");
  Zol::Ptr<TunnelRibConfigDir> configDir = Zol::make<TunnelRibConfigDir>("config");
  Zol::Ptr<ProtocolTunnelRibCollection> protocolRibs = protocolTunnelRibCollectionFactory("protocolRibs");
  Zol::Ptr<TunnelRib> rib = Zol::make<TunnelRib>("system");
  Zol::Ptr<LdpTunnelTable> ldp = Zol::dynamicPtrCast<LdpTunnelTable>(
      TunnelTableMounter(entityManager).readMountTable(tunnelTableInfo(TunnelTableIdentifier::ldp)));
  LdpTunnelTableEntry entry;
  Zol::Ptr<TunnelRibConfigDirSm> sm;
};

void fill(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    const double before = residentBytes();
    auto router = std::make_unique<Router>();
    router->start();
    state.ResumeTiming();
    router->settle();
    state.PauseTiming();
    if (router->rib->size() != tunnelCount / 2) {
      state.SkipWithError("not all written");
    }
    state.counters["bytes/tunnel"] = (residentBytes() - before) / tunnelCount;
    router.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * std::int64_t{tunnelCount});
}
BENCHMARK(fill)->Unit(benchmark::kMillisecond)->Iterations(1);

void churn(benchmark::State& state) {
  Router router;
  router.start();
  router.settle();
  TunnelEntryPref pref = 55;
  for (auto _ : state) {
    state.PauseTiming();
    ++pref;
    for (std::uint32_t i = 0; i < churnCount; ++i) {
      router.put(static_cast<std::uint32_t>(std::uint64_t(i) * 2654435761U % tunnelCount), pref);
    }
    state.ResumeTiming();
    router.settle();
  }
  state.SetItemsProcessed(state.iterations() * std::int64_t{churnCount});
}
BENCHMARK(churn)->Unit(benchmark::kMillisecond)->Iterations(5);

void restart(benchmark::State& state) {
  Router router;
  router.start();
  router.settle();
  const std::uint64_t writes = router.writes();
  for (auto _ : state) {
    router.start();
    router.settle();
  }
  if (router.writes() != writes) {
    state.SkipWithError("a restart wrote");
  }
  state.SetItemsProcessed(state.iterations() * std::int64_t{tunnelCount});
}
BENCHMARK(restart)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
