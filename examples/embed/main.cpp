// A program that takes the tunnel library into its process: it owns the entities, makes the two reactors and runs the
// scheduler; everything else follows from configuration and tables. Here a small publisher stands for the protocols.
#include <array>
#include <iostream>
#include <map>

#include "runtime/Quor/EventLoop.h"
#include "runtime/Quor/OwnedTask.h"
#include "runtime/Quor/RealTimeSource.h"
#include "runtime/Quor/UnitSlicePolicy.h"
#include "tunnel_table_sm/TunnelFibSm.h"
#include "tunnel_table_sm/TunnelRibConfigDirSm.h"

namespace {
using namespace Tunnel::TunnelTable;
using Id = TunnelTableIdentifier;
using Zol::make;
using Zol::Ptr;

// What the reactors read and write. It outlives them.
struct Entities {
  Ptr<Statehub::EntityManager> entityManager = make<Statehub::EntityManager>();
  Ptr<TunnelTableInfoCollection> tableInfos = make<TunnelTableInfoCollection>("tableInfo");
  Ptr<TunnelRibConfigDir> ribConfigs = make<TunnelRibConfigDir>("ribConfig");
  Ptr<TunnelRibNameIdMap> ribIds = make<TunnelRibNameIdMap>("ribIds");
  Ptr<BgpLuConvergence> bgpLuConvergence = make<BgpLuConvergence>("bgpLuConvergence");
  Ptr<TunnelConvergence> convergence = make<TunnelConvergence>("convergence");
  Ptr<TunnelIdColl> unprogrammable = tunnelIdCollFactory();
  Ptr<ProtocolTunnelRibCollection> protocolRibs = protocolTunnelRibCollectionFactory("protocolRibs");
  Ptr<TunnelRib> systemRib = make<TunnelRib>("systemRib");
  Ptr<TunnelFib> fib = make<TunnelFib>("fib");

  // The tables that RIBs take are described before anything is configured, and have a per-protocol RIB each.
  Entities() {
    for (const Id id : {Id::bgpLu, Id::ldp, Id::sr, Id::staticTable, Id::nexthopGroup}) {
      tableInfos->tunnelTableInfoIs(Zol::stringOf(id), tunnelTableInfo(id));
      const TunnelType type = table<TunnelTableBase>(id)->tunnelType();
      protocolRibs->protocolTunnelRibIs(type)->tunnelRibIs(make<TunnelRib>(stringValue(type)));
    }
  }
  // The table at its usual place, mounted with the first call.
  template <class Table>
  Ptr<Table> table(Id id) const {
    return Zol::dynamicPtrCast<Table>(TunnelTableMounter(entityManager).readMountTable(tunnelTableInfo(id)));
  }
  void configureRib(const char* name, const std::map<Id, std::optional<TunnelEntryPref>>& tables) {
    const auto config = make<TunnelRibConfig>(name);
    for (const auto& [id, pref] : tables) {
      config->entryIs(make<TunnelRibProtoEntry>(id, pref));
    }
    ribConfigs->configIs(config);
  }
};

struct RibPrinter final : Zol::Listener<Ipkit::IpGenPrefix> {
  explicit RibPrinter(Ptr<TunnelRib> what) : rib(std::move(what)) { channelIs(&rib->entryChannel()); }
  void onKey(const Ipkit::IpGenPrefix& tep) override {
    const TunnelRibEntry entry = rib->value(tep);
    std::cout << "  RIB " << rib->id() << "  " << tep << (entry.tunnelIds() == 0 ? "  gone" : "");
    for (const TunnelId& id : entry.tunnelId()) {
      std::cout << "  " << id << " (" << unsigned{entry.pref()} << ")";
    }
    std::cout << '\n';
  }
  const Ptr<TunnelRib> rib;
};

struct FibPrinter final : Zol::Listener<TunnelId> {
  explicit FibPrinter(Ptr<TunnelFib> what) : fib(std::move(what)) { channelIs(&fib->entryChannel()); }
  void onKey(const TunnelId& id) override {
    const auto entry = fib->entry().value(id);
    std::cout << "  FIB  " << id << (entry.tunnelVias() == 0 ? "  gone" : "");
    for (const auto& via : entry.tunnelVia()) {
      const auto encap = fib->labelStackEncap().value(via.encapId());
      std::cout << "  " << via.intf() << ' ' << via.nextHop() << ' ' << encap.info();
    }
    std::cout << '\n';
  }
  const Ptr<TunnelFib> fib;
};

template <class Entry>
Entry entryOf(TunnelType type, std::uint64_t index, const char* tep, const char* intf, std::uint32_t label) {
  Entry entry{TunnelId(type, index)};
  entry.tepIs(Ipkit::IpGenPrefix::fromText(tep));
  entry.viaRef().append(MplsVia(Via(Ipkit::IpGenAddr::fromText("192.0.2.1"), Ipkit::IntfId::fromText(intf)),
                                Ipkit::MplsLabelOperation::push(std::array{label})));
  return entry;
}

// One step each time its task runs, which is when no review is waiting: 3 is less urgent than the reviews' 2.
struct Publisher {
  Publisher(Entities& all, Quor::EventLoop& runBy, const Ptr<Quor::TaskScheduler>& scheduler)
      : entities(all), loop(runBy), task(*this, &Publisher::doStep, scheduler, 3, "publisher") {
    task.scheduleTask();
  }
  void doStep() {
    const auto ldp = entities.table<LdpTunnelTable>(Id::ldp);
    const auto sr = entities.table<SrTunnelTable>(Id::sr);
    if (++step == 1) {
      std::cout << "LDP publishes a tunnel, SR one through it and one beside it\n";
      ldp->entryIs(entryOf<LdpTunnelTableEntry>(TunnelType::ldpTunnel, 5, "10.0.0.5/32", "if12", 300123));
      sr->entryIs(entryOf<SrTunnelTableEntry>(TunnelType::srTunnel, 9, "10.0.0.9/32", "tunnel:ldpTunnel/5", 17));
      sr->entryIs(entryOf<SrTunnelTableEntry>(TunnelType::srTunnel, 5, "10.0.0.5/32", "if13", 16005));
    } else if (step == 2) {
      std::cout << "a RIB of its own prefers SR\n";
      entities.configureRib("te", {{Id::ldp, 40}, {Id::sr, 20}});
      const std::string path = tunnelRibStatusPathPrefix + std::to_string(*entities.ribIds->tunnelRibId("te"));
      printer.emplace(Zol::dynamicPtrCast<TunnelRib>(entities.entityManager->getEntity(path)));
    } else if (step == 3) {
      std::cout << "LDP withdraws its tunnel\n";
      ldp->entryDel(TunnelId(TunnelType::ldpTunnel, 5));
    } else {
      return loop.stop();
    }
    task.scheduleTaskLowestDelay(0.02);
  }
  Entities& entities;
  Quor::EventLoop& loop;
  Quor::OwnedTask<Publisher> task;
  std::optional<RibPrinter> printer;
  unsigned step = 0;
};

}  // namespace

int main() {
  const Quor::RealTimeSource time;
  Quor::UnitSlicePolicy slices(100);  // reviews, then others have their turn
  const auto scheduler = make<Quor::TaskScheduler>(time, slices);
  Quor::EventLoop loop(scheduler);
  Entities all;
  RibPrinter ribPrinter(all.systemRib);
  FibPrinter fibPrinter(all.fib);
  all.configureRib("system", {{Id::ldp, {}}, {Id::sr, {}}, {Id::staticTable, {}}});
  const auto ribs =
      tunnelRibConfigDirSmFactory(all.systemRib, all.bgpLuConvergence, all.convergence, all.ribConfigs, all.tableInfos,
                                  all.entityManager, all.protocolRibs, all.unprogrammable, all.ribIds, scheduler);
  const auto fib = tunnelFibSmFactory(
      all.fib, all.unprogrammable, all.table<BgpLuTunnelTable>(Id::bgpLu), all.table<LdpTunnelTable>(Id::ldp),
      all.table<SrTunnelTable>(Id::sr), all.table<BgpLuPushTunnelTable>(Id::bgpLuPush),
      all.table<StaticTunnelTable>(Id::staticTable), all.table<SrTeSegmentListTunnelTable>(Id::srTeSegmentList),
      all.table<RsvpTunnelTable>(Id::rsvp), all.table<GreIntfTunnelTable>(Id::greTunnelInterface),
      all.table<IpsecVtiIntfTunnelTable>(Id::ipsecVtiTunnelInterface),
      all.table<IpsecGreIntfTunnelTable>(Id::ipsecGreTunnelInterface),
      all.table<NexthopGroupTunnelTable>(Id::nexthopGroup), all.table<TiLfaTunnelTable>(Id::tiLfa), scheduler);
  Publisher publisher(all, loop, scheduler);
  loop.run();
}
