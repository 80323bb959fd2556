// ProtocolTables: the twelve protocol tunnel tables, mounted at their usual places. What is done to "the table of that
// name" goes through withTable(), the one list of them.
#pragma once

#include <set>
#include <tuple>
#include <vector>

#include "runtime/Statehub/EntityManager.h"
#include "runtime/Zol/Assert.h"
#include "tunnel/TunnelTable.h"
#include "tunnel/TunnelTableIdentifier.h"

namespace Agent {

namespace Model = Tunnel::TunnelTable;
using TableId = Model::TunnelTableIdentifier;

// One table's class under its name.
template <class Table_, TableId id_>
struct NamedTable {
  using Table = Table_;
  static constexpr TableId id = id_;
};
using NamedTables =
    std::tuple<NamedTable<Model::BgpLuTunnelTable, TableId::bgpLu>,
               NamedTable<Model::BgpLuPushTunnelTable, TableId::bgpLuPush>,
               NamedTable<Model::LdpTunnelTable, TableId::ldp>, NamedTable<Model::RsvpTunnelTable, TableId::rsvp>,
               NamedTable<Model::SrTunnelTable, TableId::sr>,
               NamedTable<Model::SrTeSegmentListTunnelTable, TableId::srTeSegmentList>,
               NamedTable<Model::StaticTunnelTable, TableId::staticTable>,
               NamedTable<Model::NexthopGroupTunnelTable, TableId::nexthopGroup>,
               NamedTable<Model::TiLfaTunnelTable, TableId::tiLfa>,
               NamedTable<Model::GreIntfTunnelTable, TableId::greTunnelInterface>,
               NamedTable<Model::IpsecVtiIntfTunnelTable, TableId::ipsecVtiTunnelInterface>,
               NamedTable<Model::IpsecGreIntfTunnelTable, TableId::ipsecGreTunnelInterface>>;

// f(NamedTable<...>()) for each of the twelve.
template <class F>
void forEachNamedTable(F&& f) {
  std::apply([&f](auto... named) { (f(named), ...); }, NamedTables());
}

// In the order above.
const std::vector<TableId>& allTables();

// The tables that a tunnel RIB can take, by name.
constexpr TableId ribTables[] = {TableId::bgpLu, TableId::ldp, TableId::nexthopGroup, TableId::sr,
                                 TableId::staticTable};
bool isRibTable(TableId table);

class ProtocolTables {
 public:
  // Mounts all twelve for reading. They stay mounted here whether or not the RIBs are told of them.
  explicit ProtocolTables(Statehub::EntityManager& entityManager);
  // Mounts these alone, with this access. Raises what mounting raises.
  ProtocolTables(Statehub::EntityManager& entityManager, const std::set<TableId>& mounted, Statehub::Access access);

  // Null when it is not mounted.
  template <class Table>
  const Zol::Ptr<Table>& table() const {
    return std::get<Zol::Ptr<Table>>(tables_);
  }
  const Model::TunnelTableBase& table(TableId id) const;

  // f(table) for the table of that name, by its own class. Requires: mounted.
  template <class F>
  void withTable(TableId id, F&& f) const {
    bool found = false;
    forEachNamedTable([&](auto named) {
      if (named.id == id) {
        found = true;
        const auto& mounted = table<typename decltype(named)::Table>();
        ZOL_ASSERT(mounted != nullptr);
        f(*mounted);
      }
    });
    ZOL_ASSERT(found);
  }

 private:
  template <class... Named>
  static std::tuple<Zol::Ptr<typename Named::Table>...> pointersTo(std::tuple<Named...>);

  decltype(pointersTo(NamedTables())) tables_;
};

}  // namespace Agent
