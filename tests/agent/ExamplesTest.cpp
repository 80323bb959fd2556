// Every bundled scenario, played line by line: wherever it settles, the RIBs, the per-protocol RIBs and the FIB are
// what the tables alone say, and a restart there writes nothing.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "agent/ScenarioReader.h"
#include "tests/agent/Scene.h"
#include "tests/support/NaiveFib.h"
#include "tests/support/NaiveRib.h"

namespace Agent {
namespace {

using namespace Tunnel::TunnelTable;
using Tables = ProtocolTables;

std::vector<std::filesystem::path> scenarioFiles(const char* directory) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    if (entry.path().extension() == ".jsonl") {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

NaiveTunnels ribTunnels(const AgentHost& host) {
  NaiveTunnels tunnels;
  const auto read = [&](TunnelTableIdentifier id, const auto& table) {
    if (host.isMounted(id)) {
      tunnels.read(id, *table);
    }
  };
  const Tables& tables = host.tables();
  read(TunnelTableIdentifier::bgpLu, tables.table<BgpLuTunnelTable>());
  read(TunnelTableIdentifier::ldp, tables.table<LdpTunnelTable>());
  read(TunnelTableIdentifier::sr, tables.table<SrTunnelTable>());
  read(TunnelTableIdentifier::staticTable, tables.table<StaticTunnelTable>());
  read(TunnelTableIdentifier::nexthopGroup, tables.table<NexthopGroupTunnelTable>());
  return tunnels;
}

void expectRibs(const AgentHost& host) {
  std::set<TunnelId> unprogrammable;
  for (const auto& [id, value] : host.unprogrammable()->entry().members()) {
    unprogrammable.insert(id);
  }
  const NaiveTunnels tunnels = ribTunnels(host);
  for (auto it = host.ribConfigs()->config().begin(); it; ++it) {
    const NaiveConfig config = naiveConfig(*it.value());
    EXPECT_EQ(contentsOf(*host.rib(*host.ribIds()->tunnelRibId(it.key()))), tunnels.rib(config, unprogrammable));
    if (config.remaps) {
      continue;
    }
    for (const auto& [type, wrapper] : host.protocolRibs()->protocolTunnelRib().members()) {
      EXPECT_EQ(tunnelsOf(*wrapper->tunnelRib()), tunnels.protocolRib(type, config, unprogrammable)) << type;
    }
  }
}

void expectFib(const AgentHost& host) {
  const Tables& t = host.tables();
  NaiveFib naive(*t.table<GreIntfTunnelTable>(), *t.table<IpsecVtiIntfTunnelTable>(),
                 *t.table<IpsecGreIntfTunnelTable>(), *t.table<BgpLuTunnelTable>(), *t.table<BgpLuPushTunnelTable>(),
                 *t.table<LdpTunnelTable>(), *t.table<SrTunnelTable>(), *t.table<StaticTunnelTable>(),
                 *t.table<SrTeSegmentListTunnelTable>(), *t.table<RsvpTunnelTable>(),
                 *t.table<NexthopGroupTunnelTable>(), *t.table<TiLfaTunnelTable>());
  EXPECT_EQ(fibDocument(*host.fib(), *host.unprogrammable()), naive.document());
}

std::uint64_t writes(const AgentHost& host) {
  std::uint64_t all = host.fib()->entry().collectionControl().sequence();
  for (const auto& [name, id] : host.ribIds()->tunnelRibNames()) {
    all += host.rib(id)->collectionControl().sequence();
  }
  for (const auto& [type, wrapper] : host.protocolRibs()->protocolTunnelRib().members()) {
    all += wrapper->tunnelRib()->collectionControl().sequence();
  }
  return all;
}

// yieldEvery: reviews a slice.
void play(const std::filesystem::path& path, std::uint64_t yieldEvery) {
  Quor::SimulatedTimeSource time;
  Quor::UnitSlicePolicy slices(yieldEvery);
  AgentHost host(time, slices);
  ScenarioPlayer player(host, time);
  std::ifstream in(path);
  ScenarioReader reader(in, path.filename());
  const auto check = [&] {
    SCOPED_TRACE(path.filename().string() + ":" + std::to_string(reader.lineNumber()));
    expectRibs(host);
    expectFib(host);
  };
  while (const auto line = reader.next()) {
    player.apply(*line);
    if (std::holds_alternative<SettleLine>(*line)) {
      check();
    }
  }
  player.settle();
  check();
  const std::uint64_t before = writes(host);
  host.restart();
  player.settle();
  EXPECT_EQ(writes(host), before) << path << ": a restart over unchanged tables wrote";
  check();
}

TEST(Examples, everySettledStateIsWhatTheTablesSay) {
  for (const auto& path : scenarioFiles(EXAMPLES_DIR)) {
    play(path, 1000000);
    if (std::filesystem::file_size(path) < 1000000) {
      play(path, 3);
    }
  }
}

// A hundred and more waiting tunnels at one endpoint are no matter for the judge: it shows them all.
TEST(Examples, everyHazardEndsInTheDecidedState) {
  for (const auto& path : scenarioFiles(TEST_DATA_DIR "/hazards")) {
    if (path.stem() == "custom-rib-before-table") {
      EXPECT_THROW(play(path, 1), InputError);
    } else if (path.stem() != "too-many-for-a-tep") {
      play(path, 1000000);
      play(path, 1);
    }
  }
}

}  // namespace
}  // namespace Agent
