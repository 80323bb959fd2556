// RibScene: the RIB side of an agent in simulated time: tables, configuration, RIBs. A test writes table entries and
// looks at RIBs; expectRibs() asks the judge about all of them.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "runtime/Quor/EndlessSlicePolicy.h"
#include "runtime/Quor/SimulatedLoop.h"
#include "runtime/Quor/SimulatedTimeSource.h"
#include "runtime/Quor/UnitSlicePolicy.h"
#include "tests/support/HiddenTable.h"
#include "tests/support/NaiveRib.h"
#include "tests/support/TightStore.h"
#include "tunnel_table_sm/TunnelRibConfigDirSm.h"

namespace Tunnel::TunnelTable {

using Id = TunnelTableIdentifier;
inline constexpr Id ribTables[] = {Id::bgpLu, Id::ldp, Id::sr, Id::staticTable, Id::nexthopGroup};
inline constexpr TunnelType ribTypes[] = {TunnelType::bgpLuTunnel, TunnelType::ldpTunnel, TunnelType::srTunnel,
                                          TunnelType::staticTunnel, TunnelType::nexthopGroupTunnel};

inline Ipkit::IpGenPrefix tep(const std::string& text) { return Ipkit::IpGenPrefix::fromText(text); }
inline Ipkit::IpGenPrefix tep(unsigned n) { return Ipkit::IpGenPrefix::host(Ipkit::IpGenAddr::ipv4(0x0A000000U + n)); }

// In place of a preference: the default of the type.
inline constexpr unsigned asPublished = 256;

class RibScene {
 public:
  using TablePrefs = std::map<Id, std::optional<TunnelEntryPref>>;

  // unitsPerSlice 0: a drain never yields. isFull: whether the RIBs have no more space.
  explicit RibScene(std::size_t unitsPerSlice = 0, std::shared_ptr<bool> isFull = nullptr)
      : systemRib(makeRib("system", isFull)) {
    if (unitsPerSlice == 0) {
      policy = std::make_unique<Quor::EndlessSlicePolicy>();
    } else {
      policy = std::make_unique<Quor::UnitSlicePolicy>(unitsPerSlice);
    }
    scheduler = Zol::make<Quor::TaskScheduler>(time, *policy);
    for (const Id id : ribTables) {
      mount(id);
    }
    for (const TunnelType type : ribTypes) {
      protocolRibs->protocolTunnelRibIs(type)->tunnelRibIs(makeRib("protocol/" + stringValue(type), isFull));
    }
    configure("system", {{Id::bgpLu, {}}, {Id::ldp, {}}, {Id::sr, {}}, {Id::staticTable, {}}, {Id::nexthopGroup, {}}});
    start();
  }

  // ---- tables ----
  template <class Table>
  Zol::Ptr<Table> table(Id id) const {
    return Zol::dynamicPtrCast<Table>(TunnelTableMounter(entityManager).readMountTable(tunnelTableInfo(id)));
  }
  void mount(Id id) { infos->tunnelTableInfoIs(Zol::stringOf(id), tunnelTableInfo(id)); }
  void unmount(Id id) { infos->tunnelTableInfoDel(Zol::stringOf(id)); }
  bool isMounted(Id id) const { return infos->tunnelTableInfo().has(Zol::stringOf(id)); }

  // From now on the table cannot be read. Nobody may write it then.
  void hide(Id id) {
    const NaiveTunnels before = tunnels();
    hidden.emplace(id, std::pair(before, std::make_unique<Support::HiddenTable>(*tableOf(id))));
  }
  void show(Id id) { hidden.erase(id); }
  Zol::Ptr<TunnelTableBase> tableOf(Id id) const { return table<TunnelTableBase>(id); }

  template <class Entry>
  static Entry at(Entry entry, const Ipkit::IpGenPrefix& endpoint, unsigned pref = asPublished,
                  std::uint32_t metric = 0) {
    entry.tepIs(endpoint);
    if (pref != asPublished) {
      entry.prefIs(static_cast<TunnelEntryPref>(pref));
    }
    if constexpr (requires { entry.metricsRef(); }) {
      entry.metricsRef().mIs(metric);
    }
    return entry;
  }
  void ldp(std::uint64_t i, const Ipkit::IpGenPrefix& endpoint, unsigned pref = asPublished,
           std::uint32_t metric = 0) const {
    ldpTable->entryIs(at(LdpTunnelTableEntry(TunnelId(TunnelType::ldpTunnel, i)), endpoint, pref, metric));
  }
  void sr(std::uint64_t i, const Ipkit::IpGenPrefix& endpoint, unsigned pref = asPublished,
          std::uint32_t metric = 0) const {
    srTable->entryIs(at(SrTunnelTableEntry(TunnelId(TunnelType::srTunnel, i)), endpoint, pref, metric));
  }
  void staticTunnel(std::uint64_t i, const Ipkit::IpGenPrefix& endpoint, unsigned pref = asPublished) const {
    staticTable->entryIs(at(StaticTunnelTableEntry(TunnelId(TunnelType::staticTunnel, i)), endpoint, pref));
  }
  void nexthopGroup(std::uint64_t i, const Ipkit::IpGenPrefix& endpoint, unsigned pref = asPublished) const {
    nexthopGroupTable->entryIs(
        at(NexthopGroupTunnelTableEntry(TunnelId(TunnelType::nexthopGroupTunnel, i)), endpoint, pref));
  }
  void bgpLu(std::uint64_t i, const Ipkit::IpGenPrefix& endpoint,
             Contribution contribution = Contribution::contributing, unsigned pref = asPublished) const {
    auto entry = at(BgpLuTunnelTableEntry(TunnelId(TunnelType::bgpLuTunnel, i)), endpoint, pref);
    entry.contributionIs(contribution);
    bgpLuTable->entryIs(entry);
  }
  bool del(const std::string& id) const {
    const TunnelId tunnel = TunnelId::fromText(id);
    const auto delFrom = [&tunnel](const auto& table) {
      return table->tunnelType() == tunnel.tunnelType() && table->entryDel(tunnel);
    };
    return delFrom(ldpTable) || delFrom(srTable) || delFrom(staticTable) || delFrom(nexthopGroupTable) ||
           delFrom(bgpLuTable);
  }

  // ---- configuration and time ----
  void configure(const std::string& name, const TablePrefs& tables) {
    const auto config = Zol::make<TunnelRibConfig>(name);
    for (const auto& [id, pref] : tables) {
      config->entryIs(Zol::make<TunnelRibProtoEntry>(id, pref));
    }
    configDir->configIs(config);
  }
  void start() {
    configDirSm = tunnelRibConfigDirSmFactory(systemRib, bgpLuConvergence, convergence, configDir, infos, entityManager,
                                              protocolRibs, unprogrammable, ribIds, scheduler);
  }
  void restart() {
    configDirSm = nullptr;
    start();
  }
  void settle() { Quor::settle(*scheduler, time); }
  void advance(double seconds) { Quor::advance(*scheduler, time, seconds); }

  // ---- RIBs ----
  Zol::Ptr<TunnelRib> rib(const std::string& name = "system") const {
    const auto id = ribIds->tunnelRibId(name);
    if (!id || *id == 0) {
      return systemRib;
    }
    return Zol::dynamicPtrCast<TunnelRib>(entityManager->getEntity(tunnelRibStatusPathPrefix + std::to_string(*id)));
  }
  Zol::Ptr<TunnelRibBuilderSm> builder(const std::string& name = "system") const {
    return (*configDirSm->tunnelRibSm().find(*ribIds->tunnelRibId(name)))->tunnelRibBuilderSm();
  }
  Zol::Ptr<TunnelRib> protocolRib(TunnelType type) const { return protocolRibs->protocolTunnelRib(type)->tunnelRib(); }

  // "55: ldpTunnel/1 ldpTunnel/2", ids ascending; empty when the endpoint is absent.
  std::string shown(const Ipkit::IpGenPrefix& endpoint, const std::string& name = "system") const {
    const TunnelRibEntry entry = rib(name)->value(endpoint);
    std::string text = entry.tunnelIds() == 0 ? "" : std::to_string(entry.pref()) + ":";
    const std::set<TunnelId> ids(entry.tunnelId().begin(), entry.tunnelId().end());
    for (const TunnelId& id : ids) {
      text += " " + Zol::stringOf(id);
    }
    return text;
  }
  std::uint64_t writes(const std::string& name = "system") const {
    std::uint64_t all = rib(name)->collectionControl().sequence();
    for (const TunnelType type : ribTypes) {
      all += protocolRib(type)->collectionControl().sequence();
    }
    return all;
  }

  NaiveTunnels tunnels() const {
    NaiveTunnels all;
    const auto read = [&](Id id, const auto& table) {
      if (const auto at = hidden.find(id); at != hidden.end()) {
        all.readAgain(id, at->second.first);
      } else if (isMounted(id)) {
        all.read(id, *table);
      }
    };
    read(Id::bgpLu, bgpLuTable);
    read(Id::ldp, ldpTable);
    read(Id::sr, srTable);
    read(Id::staticTable, staticTable);
    read(Id::nexthopGroup, nexthopGroupTable);
    return all;
  }
  std::set<TunnelId> unprogrammableIds() const {
    std::set<TunnelId> ids;
    for (auto it = unprogrammable->entry().begin(); it; ++it) {
      ids.insert(it.key());
    }
    return ids;
  }
  void expectRibs(const std::string& what = "") const {
    const NaiveTunnels all = tunnels();
    const std::set<TunnelId> out = unprogrammableIds();
    for (auto it = configDir->config().begin(); it; ++it) {
      const NaiveConfig config = naiveConfig(*it.value());
      const NaiveRib shown = contentsOf(*rib(it.key()));
      EXPECT_EQ(withoutUnknown(shown), withoutUnknown(all.rib(config, out, shown))) << it.key() << ' ' << what;
      std::set<Ipkit::IpGenPrefix> endpoints;
      for (const TunnelType type : ribTypes) {
        const auto due = all.protocolRib(type, config, out, tunnelsOf(*protocolRib(type)));
        for (const auto& [endpoint, ids] : due) {
          endpoints.insert(endpoint);
        }
        if (!config.remaps) {
          EXPECT_EQ(tunnelsOf(*protocolRib(type)), due) << type << what;
        }
      }
      EXPECT_EQ(builder(it.key())->internalTunnelRib()->entry().size(), endpoints.size())
          << "endpoints with candidates";
    }
  }

  static Zol::Ptr<TunnelRib> makeRib(const std::string& name, const std::shared_ptr<bool>& isFull) {
    return isFull == nullptr ? Zol::make<TunnelRib>(name)
                             : Zol::make<TunnelRib>(name, Zol::make<Memtab::TightStore>(TunnelRib::layout(), isFull));
  }
  // Metrics are unknown while a table cannot be read.
  NaiveRib withoutUnknown(NaiveRib rib) const {
    for (auto& [endpoint, entry] : rib) {
      entry.metrics = hidden.empty() ? entry.metrics : TunnelMetrics();
    }
    return rib;
  }

  Quor::SimulatedTimeSource time;
  std::unique_ptr<Quor::SlicePolicy> policy;
  Zol::Ptr<Quor::TaskScheduler> scheduler;
  Zol::Ptr<Statehub::EntityManager> entityManager = Zol::make<Statehub::EntityManager>();
  Zol::Ptr<TunnelTableInfoCollection> infos = Zol::make<TunnelTableInfoCollection>("infos");
  Zol::Ptr<TunnelRibConfigDir> configDir = Zol::make<TunnelRibConfigDir>("config");
  Zol::Ptr<TunnelRibNameIdMap> ribIds = Zol::make<TunnelRibNameIdMap>("ribIds");
  Zol::Ptr<BgpLuConvergence> bgpLuConvergence = Zol::make<BgpLuConvergence>("bgpLuConvergence");
  Zol::Ptr<TunnelConvergence> convergence = Zol::make<TunnelConvergence>("convergence");
  Zol::Ptr<ProtocolTunnelRibCollection> protocolRibs = protocolTunnelRibCollectionFactory("protocolRibs");
  Zol::Ptr<TunnelIdColl> unprogrammable = tunnelIdCollFactory("unprogrammable");
  Zol::Ptr<TunnelRib> systemRib;
  Zol::Ptr<LdpTunnelTable> ldpTable = table<LdpTunnelTable>(Id::ldp);
  Zol::Ptr<SrTunnelTable> srTable = table<SrTunnelTable>(Id::sr);
  Zol::Ptr<StaticTunnelTable> staticTable = table<StaticTunnelTable>(Id::staticTable);
  Zol::Ptr<NexthopGroupTunnelTable> nexthopGroupTable = table<NexthopGroupTunnelTable>(Id::nexthopGroup);
  Zol::Ptr<BgpLuTunnelTable> bgpLuTable = table<BgpLuTunnelTable>(Id::bgpLu);
  std::map<Id, std::pair<NaiveTunnels, std::unique_ptr<Support::HiddenTable>>> hidden;  // with their contents
  Zol::Ptr<TunnelRibConfigDirSm> configDirSm;
};

}  // namespace Tunnel::TunnelTable
