// Where the table entry of a tunnel is found. Part of TunnelFibSm, for its source units only.
#pragma once

#include "tunnel_table_sm/TunnelFibSm.h"

namespace Tunnel::TunnelTable {

// Reads the tunnel's entry once and calls f with it, as the record of its table; false when there is none. A table that
// is absent or damaged there has none.
template <class F>
bool TunnelFibSm::visitTableEntry(const TunnelId& tunnelId, F&& f) const {
  const auto visitIn = [&]<class Table>(const Zol::PtrConst<Table>& table) {
    typename Table::Record entry;
    const bool isThere = readSafely(table.get(), tunnelId, entry);
    if (isThere) {
      f(std::as_const(entry));
    }
    return isThere;
  };
  switch (tunnelId.tunnelType()) {
    case TunnelType::bgpLuPushTunnel:
      return visitIn(bgpLuPushTable());
    case TunnelType::bgpLuTunnel:
      return visitIn(bgpLuTable());
    case TunnelType::ldpTunnel:
      return visitIn(ldpTable());
    case TunnelType::staticTunnel:
      return visitIn(staticTable());
    case TunnelType::srTunnel:
      return visitIn(srTable());
    case TunnelType::srTeSegmentListTunnel:
      return visitIn(srTeSegmentListTable());
    case TunnelType::l3IntfTunnel:  // the tables share the ids
      return visitIn(greIntfTable()) || visitIn(ipsecVtiIntfTable()) || visitIn(ipsecGreIntfTable());
    case TunnelType::rsvpTunnel:
      return visitIn(rsvpTable());
    case TunnelType::nexthopGroupTunnel:
      return visitIn(nexthopGroupTable());
    case TunnelType::tiLfaTunnel:
      return visitIn(tiLfaTable());
    default:
      return false;
  }
}

}  // namespace Tunnel::TunnelTable
