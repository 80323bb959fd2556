// The tunnel FIB at router scale. Workloads, each over N transport (LDP) tunnels and N services (BGP-LU), one service
// through each transport tunnel, all label stacks distinct:
//
//   fill           full tables, empty FIB: drain to an empty backlog
//   restart        full tables, full FIB: start and drain; writes nothing
//   churnOne       one tunnel with one dependant changes its next hop, among all the others
//   flapNext       the next hop of one tunnel under D services changes
//   ring           N transport tunnels, each with a via of its own and one through the next, the last through the
//   first:
//                  published in shuffled order and drained (build), one edge removed (open) and put back (close)
//   encapIndex     finding an encapsulation by content among S stacks, and by a plain scan of the collection
//
// Reported: reviews a second of CPU time, bytes a tunnel of the FIB side (FIB region and the machine's own records).
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <ctime>
#include <memory>

#include "runtime/Quor/EndlessSlicePolicy.h"
#include "runtime/Quor/SimulatedLoop.h"
#include "tunnel_table_sm/TunnelFibSm.h"

namespace Tunnel::TunnelTable {
namespace {

using Ipkit::IntfId;
using Ipkit::IpGenAddr;
using Ipkit::MplsLabelOperation;

MplsVia directVia(std::uint32_t nextHop, std::uint32_t label) {
  const MplsLabelOperation::Label labels[] = {label & 0xFFFFF, label >> 20};
  return {Via(IpGenAddr::ipv4(nextHop), IntfId::ordinary(1 + (nextHop & 0xFF))), MplsLabelOperation::push(labels)};
}
LdpTunnelTableEntry ldp(std::uint32_t index, std::uint32_t nextHop) {
  LdpTunnelTableEntry entry{TunnelId(TunnelType::ldpTunnel, index)};
  entry.viaRef().append(directVia(nextHop, index));
  return entry;
}
BgpLuTunnelTableEntry bgpLu(std::uint32_t index, std::uint32_t next) {
  BgpLuTunnelTableEntry entry{TunnelId(TunnelType::bgpLuTunnel, index)};
  const MplsLabelOperation::Label labels[] = {index & 0xFFFFF};
  entry.labelOpIs(MplsLabelOperation::push(labels));
  entry.viaRef().append(Via(IpGenAddr(), DynamicTunnelIntfId::intfId(TunnelId(TunnelType::ldpTunnel, next))));
  entry.contributionIs(Contribution::contributing);
  return entry;
}

std::size_t heapBytes() { return mallinfo2().uordblks + mallinfo2().hblkhd; }

// A shuffled order of 0..count-1, the same in every run: publishers do not write in the order of our hashes.
std::uint32_t shuffled(std::uint32_t i, std::uint32_t count) {
  return static_cast<std::uint32_t>((std::uint64_t(i) * 2654435761U + 12345) % count);
}

// Tables with their contents, and a machine over them once it is started.
struct Router {
  Router(std::uint32_t transports, std::uint32_t services) {
    for (std::uint32_t i = 0; i < transports; ++i) {
      const std::uint32_t index = shuffled(i, transports);
      ldpTable->entryIs(ldp(index, 0x0A000000 + index));
    }
    for (std::uint32_t i = 0; i < services; ++i) {
      const std::uint32_t index = shuffled(i, services);
      bgpLuTable->entryIs(bgpLu(index, index % transports));
    }
    heapBefore = heapBytes();
  }
  void start() {
    sm = nullptr;
    sm = tunnelFibSmFactory(fib, unprogrammable, bgpLuTable, ldpTable, nullptr, nullptr, nullptr, nullptr, nullptr,
                            nullptr, nullptr, nullptr, nullptr, nullptr, scheduler);
  }
  void settle() { Quor::settle(*scheduler, time); }
  std::uint64_t writes() const { return fib->entry().collectionControl().sequence(); }

  Quor::SimulatedTimeSource time;
  Quor::EndlessSlicePolicy policy;
  Zol::Ptr<Quor::TaskScheduler> scheduler = Zol::make<Quor::TaskScheduler>(time, policy);
  Zol::Ptr<LdpTunnelTable> ldpTable = Zol::make<LdpTunnelTable>("ldp");
  Zol::Ptr<BgpLuTunnelTable> bgpLuTable = Zol::make<BgpLuTunnelTable>("bgpLu");
  Zol::Ptr<TunnelFib> fib = Zol::make<TunnelFib>("fib");
  Zol::Ptr<TunnelIdColl> unprogrammable = tunnelIdCollFactory("unprogrammable");
  Zol::Ptr<TunnelFibSm> sm;
  std::size_t heapBefore = 0;
};

void fill(benchmark::State& state) {
  const auto count = static_cast<std::uint32_t>(state.range(0));
  std::size_t reviews = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto router = std::make_unique<Router>(count, count);
    router->start();
    state.ResumeTiming();
    router->settle();
    state.PauseTiming();
    reviews += router->scheduler->counters().units;
    const auto tunnels = static_cast<double>(2 * count);
    if (router->fib->entry().size() != 2 * count) {
      state.SkipWithError("not all written");
    }
    state.counters["machineBytes/tunnel"] =
        static_cast<double>(router->sm->dependencies().bytesUsed() + router->sm->tunnelFibWriter()->bytesUsed()) /
        tunnels;
    state.counters["fibBytes/tunnel"] = static_cast<double>(router->fib->entry().bytesUsed()) / tunnels;
    state.counters["heapBytes/tunnel"] = static_cast<double>(heapBytes() - router->heapBefore) / tunnels;
    router.reset();
    state.ResumeTiming();
  }
  state.counters["reviews/s"] = benchmark::Counter(static_cast<double>(reviews), benchmark::Counter::kIsRate);
}
BENCHMARK(fill)->Arg(5000)->Arg(50000)->Arg(500000)->Unit(benchmark::kMillisecond)->Iterations(1);

void restart(benchmark::State& state) {
  const auto count = static_cast<std::uint32_t>(state.range(0));
  Router router(count, count);
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
  state.SetItemsProcessed(state.iterations() * 2 * count);
}
BENCHMARK(restart)->Arg(50000)->Arg(500000)->Unit(benchmark::kMillisecond)->Iterations(1);

void churnOne(benchmark::State& state) {
  const auto count = static_cast<std::uint32_t>(state.range(0));
  Router router(count, count);
  router.start();
  router.settle();
  std::uint32_t i = 0;
  for (auto _ : state) {
    ++i;
    router.ldpTable->entryIs(ldp(shuffled(i, count), 0x0B000000 + i));
    router.settle();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(churnOne)->Arg(500000)->Unit(benchmark::kMicrosecond)->MinTime(0.2);

void flapNext(benchmark::State& state) {
  const auto dependants = static_cast<std::uint32_t>(state.range(0));
  Router router(1, dependants);
  router.start();
  router.settle();
  std::uint32_t nextHop = 0x0C000000;
  for (auto _ : state) {
    router.ldpTable->entryIs(ldp(0, ++nextHop));
    router.settle();
  }
  state.counters["dependants/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * dependants, benchmark::Counter::kIsRate);
}
BENCHMARK(flapNext)->Arg(100000)->Arg(500000)->Unit(benchmark::kMillisecond)->MinTime(0.5);

// Counters are averages of one building, opening and closing.
void ring(benchmark::State& state) {
  const auto count = static_cast<std::uint32_t>(state.range(0));
  const auto put = [count](Router& router, std::uint32_t i, bool isClosed) {
    LdpTunnelTableEntry entry = ldp(i, 0x0A000000 + i);
    if (isClosed) {
      const MplsLabelOperation::Label labels[] = {i & 0xFFFFF};
      const TunnelId next(TunnelType::ldpTunnel, (i + 1) % count);
      entry.viaRef().append(
          MplsVia(Via(IpGenAddr(), DynamicTunnelIntfId::intfId(next)), MplsLabelOperation::push(labels)));
    }
    router.ldpTable->entryIs(entry);
  };
  const auto seconds = [] { return static_cast<double>(clock()) / CLOCKS_PER_SEC; };
  for (auto _ : state) {
    Router router(0, 0);
    router.start();
    const auto settled = [&](const std::string& what) {
      const double start = seconds();
      const std::uint64_t before = router.scheduler->counters().units;
      router.settle();
      const auto add = [&](const std::string& name, double value) {
        benchmark::Counter& counter = state.counters[what + name];
        counter = benchmark::Counter(counter.value + value, benchmark::Counter::kAvgIterations);
      };
      router.settle();
      add("Ms", 1000 * (seconds() - start));
      add("Reviews", static_cast<double>(router.scheduler->counters().units - before));
    };
    for (std::uint32_t i = 0; i < count; ++i) {
      put(router, shuffled(i, count), true);
    }
    settled("build");
    put(router, count / 2, false);
    settled("open");
    put(router, count / 2, true);
    settled("close");
  }
}
BENCHMARK(ring)->Arg(500)->Arg(1000)->Arg(2000)->Arg(4000)->Unit(benchmark::kMillisecond)->MinTime(0.1);

void encapIndex(benchmark::State& state) {
  const auto stacks = static_cast<std::uint32_t>(state.range(0));
  const bool scans = state.range(1) != 0;
  const auto fib = Zol::make<TunnelFib>("fib");
  const auto writer = tunnelFibWriterFactory(fib);
  const auto stack = [](std::uint32_t i) {
    const MplsLabelOperation::Label labels[] = {i & 0xFFFFF};
    return MplsLabelOperation::push(labels);
  };
  for (std::uint32_t i = 0; i < stacks; ++i) {
    writer->insertLabelStackEncap(stack(i));
  }
  std::uint32_t i = 0;
  for (auto _ : state) {
    const MplsLabelOperation wanted = stack(shuffled(++i, stacks));
    if (!scans) {
      benchmark::DoNotOptimize(writer->insertLabelStackEncap(wanted));
      continue;
    }
    TunnelFib::Collection<LabelStackEncap>::Hint hint;
    const auto& encaps = fib->labelStackEncap();
    for (bool more = encaps.first(hint); more && !(hint.record(encaps).info() == wanted); more = encaps.next(hint)) {
    }
    benchmark::DoNotOptimize(hint.key());
  }
}
BENCHMARK(encapIndex)->ArgNames({"stacks", "scan"})->ArgsProduct({{1000, 10000, 100000}, {0, 1}})->MinTime(0.1);

}  // namespace
}  // namespace Tunnel::TunnelTable
