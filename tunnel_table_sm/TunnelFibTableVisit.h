// Where the table entry of a tunnel is found. Part of TunnelFibSm, for its source units only.
#pragma once

#include "tunnel_table_sm/TunnelFibSm.h"

namespace Tunnel::TunnelTable {

// Whether isIt(table) holds for the table of such tunnels; the interface tables are asked one after the other.
template <class F>
bool TunnelFibSm::isInTable(const TunnelId& tunnelId, F&& isIt) const {
  switch (tunnelId.tunnelType()) {
    case TunnelType::bgpLuPushTunnel:
      return isIt(bgpLuPushTable());
    case TunnelType::bgpLuTunnel:
      return isIt(bgpLuTable());
    case TunnelType::ldpTunnel:
      return isIt(ldpTable());
    case TunnelType::staticTunnel:
      return isIt(staticTable());
    case TunnelType::srTunnel:
      return isIt(srTable());
    case TunnelType::srTeSegmentListTunnel:
      return isIt(srTeSegmentListTable());
    case TunnelType::l3IntfTunnel:  // the tables share the ids
      return isIt(greIntfTable()) || isIt(ipsecVtiIntfTable()) || isIt(ipsecGreIntfTable());
    case TunnelType::rsvpTunnel:
      return isIt(rsvpTable());
    case TunnelType::nexthopGroupTunnel:
      return isIt(nexthopGroupTable());
    case TunnelType::tiLfaTunnel:
      return isIt(tiLfaTable());
    default:
      return false;
  }
}

// Reads the tunnel's entry once and calls f with it, as the record of its table; false when there is none. A table that
// is absent or damaged there has none.
template <class F>
bool TunnelFibSm::visitTableEntry(const TunnelId& tunnelId, F&& f) const {
  return isInTable(tunnelId, [&]<class Table>(const Zol::PtrConst<Table>& table) {
    typename Table::Record entry;
    const bool isThere = readSafely(table.get(), tunnelId, entry);
    if (isThere) {
      f(std::as_const(entry));
    }
    return isThere;
  });
}

}  // namespace Tunnel::TunnelTable
