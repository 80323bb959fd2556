#include "tunnel_table_sm/ProtocolTunnelSm.h"

#include "tunnel_table_sm/WatcherSm.h"

FASTLOG_DEFAULT_HANDLE("ProtocolTunnelSm")

namespace Tunnel::TunnelTable {

Fastlog::TraceHandle& protocolTunnelSmTraceHandle() { return _defaultTraceHandle(); }

ProtocolTunnelSm::ProtocolTunnelSm(TableEntrySm* owner, Zol::PtrConst<TunnelTableEntities> tunnelTableEntities,
                                   Zol::PtrConst<TunnelIdColl> unprogrammableTunnelIds)
    : owner_(owner),
      tunnelTableEntities_(std::move(tunnelTableEntities)),
      unprogrammableTunnelIds_(std::move(unprogrammableTunnelIds)) {}

void ProtocolTunnelSm::kickSeenIds() {
  for (auto it = seenTunnelId_.begin(); it; ++it) {
    owner_->handleTunnelTableEntry(it.key(), it.value(), true);
  }
}

void ProtocolTunnelSm::handleTunnelEntry() { ZOL_ASSERT_TEXT(false, "0 && \"Must override in derived class\""); }

TableEntrySm::TableEntrySm(Zol::PtrConst<TunnelTableEntities> tunnelTableEntities,
                           Zol::PtrConst<TunnelIdColl> unprogrammableTunnelIds)
    : tunnelTableEntities_(*this, std::move(tunnelTableEntities), &TunnelTableEntities::tunnelTableChannel,
                           {.onKey = &TableEntrySm::handleTunnelTableEntity}),
      unprogrammableTunnelId_(*this, std::move(unprogrammableTunnelIds), &TunnelIdColl::entryChannel,
                              {.onKey = &TableEntrySm::handleUnprogrammableEntry}),
      tunnelSm_(*this) {}

void TableEntrySm::handleTunnelTableEntity() {
  FASTLOG_TRACE(8, "handleTunnelTableEntity");
  if (!tunnelTableEntities_) {
    return;
  }
  for (auto it = tunnelTableEntities_->tunnelTable().begin(); it; ++it) {
    handleTunnelTableEntity(it.key());
  }
}

void TableEntrySm::handleTunnelTableEntity(const std::string& name) {
  if (const Zol::PtrConst<TunnelTableBase> table = tunnelTableEntities_->tunnelTable(name)) {
    FASTLOG_TRACE(8, "handleTunnelTableEntity"
                         << " adding tunnel table entity");
    const Zol::Ptr<ProtocolTunnelSm> sm = tableToSm(name, table, unprogrammableTunnelId(), tunnelTableEntities(), this);
    ZOL_ASSERT_TEXT(sm, "0 && \"Failed to create the per-table Sm\"");
    sm->handleTunnelEntry();
    if (tunnelTableEntities_->tunnelTable(name) == table) {  // not withdrawn by what the walk has set off
      tunnelSmIs(name, sm);  // one that was there goes without a kick: the new walk has reported what is
    }
    return;
  }
  FASTLOG_TRACE(8, "handleTunnelTableEntity"
                       << " removing tunnel table entity");
  if (const Zol::Ptr<ProtocolTunnelSm> sm = tunnelSm(name)) {
    sm->kickSeenIds();
    tunnelSmDel(name);
  }
}

void TableEntrySm::handleTunnelTableEntry(const TunnelId&, TunnelTableIdentifier, bool) {
  ZOL_ASSERT_TEXT(false, "0 && \"Must override in derived class\"");
}

namespace {

using TablePtr = Zol::PtrConst<TunnelTableBase>;
using IdsPtr = Zol::PtrConst<TunnelIdColl>;
using EntitiesPtr = Zol::PtrConst<TunnelTableEntities>;

// A table of another class than its type says gives an idle watcher.
template <class Sm>
Zol::Ptr<ProtocolTunnelSm> make(TableEntrySm* owner, const EntitiesPtr& entities, const IdsPtr& ids,
                                const TablePtr& table) {
  return Zol::Factory<Sm>()(owner, entities, ids, Zol::dynamicPtrCast<const typename Sm::Table>(table));
}

struct WatcherRow {
  TunnelType type;
  std::string_view name;  // empty: any
  Zol::Ptr<ProtocolTunnelSm> (*make)(TableEntrySm*, const EntitiesPtr&, const IdsPtr&, const TablePtr&);
};

// The first match counts.
constexpr WatcherRow watcherRows[] = {
    {TunnelType::bgpLuPushTunnel, "", make<BgpLuPushTunnelSm>},
    {TunnelType::bgpLuTunnel, "", make<BgpLuTunnelSm>},
    {TunnelType::ldpTunnel, "", make<LdpTunnelSm>},
    {TunnelType::staticTunnel, "", make<StaticTunnelSm>},
    {TunnelType::srTunnel, "", make<SrTunnelSm>},
    {TunnelType::srTeSegmentListTunnel, "", make<SrTeSegmentListTunnelSm>},
    {TunnelType::l3IntfTunnel, "greTunnelInterface", make<GreInterfaceTunnelSm>},
    {TunnelType::l3IntfTunnel, "ipsecVtiTunnelInterface", make<IpsecVtiInterfaceTunnelSm>},
    {TunnelType::l3IntfTunnel, "ipsecGreTunnelInterface", make<IpsecGreInterfaceTunnelSm>},
    {TunnelType::l3IntfTunnel, "", make<RsvpTunnelSm>},  // deliberate: any other interface table reads as RSVP
    {TunnelType::rsvpTunnel, "", make<RsvpTunnelSm>},
    {TunnelType::nexthopGroupTunnel, "", make<NexthopGroupTunnelSm>},
    {TunnelType::tiLfaTunnel, "", make<TiLfaTunnelSm>},
};

}  // namespace

Zol::Ptr<ProtocolTunnelSm> tableToSm(const std::string& name, const TablePtr& table,
                                     const IdsPtr& unprogrammableTunnelIds, const EntitiesPtr& tunnelTableEntities,
                                     TableEntrySm* owner) {
  const WatcherRow* const row =
      std::find_if(std::begin(watcherRows), std::end(watcherRows), [&](const WatcherRow& each) {
        return each.type == table->tunnelType() && (each.name.empty() || each.name == name);
      });
  ZOL_ASSERT_TEXT(row != std::end(watcherRows), "0 && \"Unhandled table type\"");
  return row->make(owner, tunnelTableEntities, unprogrammableTunnelIds, table);
}

}  // namespace Tunnel::TunnelTable
