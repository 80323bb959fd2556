// What the FIB takes from the entries of the twelve tables, which come in four shapes: MPLS vias with a label operation
// each, vias that share one, interface tunnels, nexthop groups.
#pragma once

#include <algorithm>

#include "tunnel/EncapKind.h"
#include "tunnel/TunnelTableEntry.h"

namespace Tunnel::TunnelTable {

template <class Entry>
concept HoldsMplsVias = requires(const Entry& entry) {
  { entry.via() } -> std::same_as<const MplsViaArray&>;
};
template <class Entry>
concept SharesLabelOp = std::derived_from<Entry, BgpLuPushTunnelTableEntry>;
template <class Entry>
concept IsMplsTunnel = HoldsMplsVias<Entry> || SharesLabelOp<Entry>;
template <class Entry>
concept HoldsBackupVias = requires(const Entry& entry) {
  entry.backupVia();
};
template <class Entry>
concept IsInterfaceTunnel = std::derived_from<Entry, L3IntfTunnelTableEntry>;

// Calls f with each primary via of an MPLS tunnel, in order.
template <class Entry, class F>
void forEachMplsVia(const Entry& entry, F&& f) {
  if constexpr (SharesLabelOp<Entry>) {
    for (const Via& via : entry.via()) {
      f(MplsVia(via, entry.labelOp()));
    }
  } else {
    for (const MplsVia& via : entry.via()) {
      f(via);
    }
  }
}

// BGP's and static tunnels can be published with another operation than a push, which has no meaning on a tunnel.
template <class Entry>
bool doesPushOnly(const Entry& entry) {
  constexpr auto push = Ipkit::MplsLabelOperation::Op::push;
  if constexpr (SharesLabelOp<Entry>) {
    return entry.labelOp().op() == push;
  } else if constexpr (std::same_as<Entry, StaticTunnelTableEntry>) {
    const auto pushes = [](const MplsVia& via) { return via.labelOp().op() == push; };
    return std::all_of(entry.via().begin(), entry.via().end(), pushes) &&
           std::all_of(entry.backupVia().begin(), entry.backupVia().end(), pushes);
  } else {
    return true;
  }
}

template <class Entry>
bool contributesToTunnelFib(const Entry& entry) {
  if constexpr (std::same_as<Entry, BgpLuTunnelTableEntry>) {
    return entry.contribution() == Contribution::contributing;
  } else {
    return true;
  }
}

}  // namespace Tunnel::TunnelTable
