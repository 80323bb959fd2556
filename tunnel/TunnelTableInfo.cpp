#include "tunnel/TunnelTableInfo.h"

#include "tunnel/TunnelFib.h"
#include "tunnel/TunnelRib.h"

namespace Tunnel::TunnelTable {
namespace {

using Id = TunnelTableIdentifier;

struct TableRow {
  Id id;
  const char* typeName;
  Zol::Ptr<Zol::Entity> (*make)(const std::string& path, const Memtab::StoreSource& source);
};

template <class Table>
Zol::Ptr<Zol::Entity> makeTable(const std::string& path, const Memtab::StoreSource& source) {
  return Zol::make<Table>(path, source(Table::layout()));
}

constexpr TableRow tableRows[] = {
    {Id::bgpLu, "Tunnel::TunnelTable::BgpLuTunnelTable", makeTable<BgpLuTunnelTable>},
    {Id::bgpLuPush, "Tunnel::TunnelTable::BgpLuPushTunnelTable", makeTable<BgpLuPushTunnelTable>},
    {Id::ldp, "Tunnel::TunnelTable::LdpTunnelTable", makeTable<LdpTunnelTable>},
    {Id::rsvp, "Tunnel::TunnelTable::RsvpTunnelTable", makeTable<RsvpTunnelTable>},
    {Id::sr, "Tunnel::TunnelTable::SrTunnelTable", makeTable<SrTunnelTable>},
    {Id::staticTable, "Tunnel::TunnelTable::StaticTunnelTable", makeTable<StaticTunnelTable>},
    {Id::nexthopGroup, "Tunnel::TunnelTable::NexthopGroupTunnelTable", makeTable<NexthopGroupTunnelTable>},
    {Id::srTeSegmentList, "Tunnel::TunnelTable::SrTeSegmentListTunnelTable", makeTable<SrTeSegmentListTunnelTable>},
    {Id::tiLfa, "Tunnel::TunnelTable::TiLfaTunnelTable", makeTable<TiLfaTunnelTable>},
    {Id::greTunnelInterface, "Tunnel::TunnelTable::GreIntfTunnelTable", makeTable<GreIntfTunnelTable>},
    {Id::ipsecVtiTunnelInterface, "Tunnel::TunnelTable::IpsecVtiIntfTunnelTable", makeTable<IpsecVtiIntfTunnelTable>},
    {Id::ipsecGreTunnelInterface, "Tunnel::TunnelTable::IpsecGreIntfTunnelTable", makeTable<IpsecGreIntfTunnelTable>},
};

void registerEntityTypes() {
  for (const TableRow& row : tableRows) {
    Statehub::EntityTypes::typeIs(row.typeName, row.make);
  }
  Statehub::EntityTypes::typeIs(TunnelRib::entityTypeName, makeTable<TunnelRib>);
  Statehub::EntityTypes::typeIs(TunnelFib::entityTypeName, makeTable<TunnelFib>);
}

}  // namespace

// CMakeLists.txt makes every program that links this library keep the symbol, and with it the registration.
extern "C" {
extern const bool tunnelEntityTypesKnown;
const bool tunnelEntityTypesKnown = (registerEntityTypes(), true);
}

TunnelTableInfo tunnelTableInfo(Id table) {
  TunnelTableInfo info;
  for (const TableRow& row : tableRows) {
    if (row.id == table) {
      info.path += Zol::stringOf(table);
      info.typeName = row.typeName;
    }
  }
  return info;
}

TunnelTableMounter::TunnelTableMounter(Zol::Ptr<Statehub::EntityManager> entityManager)
    : entityManager_(std::move(entityManager)) {}

Zol::Ptr<TunnelTableBase> TunnelTableMounter::readMountTable(const TunnelTableInfo& info) const {
  entityManager_->doMount(info.path, info.typeName, sharedTable(Statehub::Access::read));
  return Zol::dynamicPtrCast<TunnelTableBase>(entityManager_->getEntity(info.path));
}

}  // namespace Tunnel::TunnelTable
