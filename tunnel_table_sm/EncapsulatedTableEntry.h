// EncapsulatedTableEntry: the table entry of any tunnel that can be in a RIB, as one value, so that the RIB side
// handles all protocols alike. One slot is filled, by the type of the id; the head of the record found stands in entry
// as well.
//
// Large (five records with their vias): pass it by reference.
#pragma once

#include <string>

#include "tunnel/TunnelRib.h"
#include "tunnel_table_sm/TunnelTableEntities.h"

namespace Tunnel::TunnelTable {

class EncapsulatedTableEntry {
  ZOL_VALUE(EncapsulatedTableEntry, "Tunnel::TunnelTable::EncapsulatedTableEntry", (TunnelId, tunnelId),
            (TunnelTableEntry, entry), (BgpLuTunnelTableEntry, bgpLuEntry), (SrTunnelTableEntry, srEntry),
            (LdpTunnelTableEntry, ldpEntry), (StaticTunnelTableEntry, staticEntry),
            (NexthopGroupTunnelTableEntry, nexthopGroupEntry))
 public:
  EncapsulatedTableEntry() = default;
  explicit EncapsulatedTableEntry(const TunnelId& tunnelId) : tunnelId_(tunnelId) {}
  // From the value's own text; raises ParseException.
  EncapsulatedTableEntry(std::string::const_iterator first, std::string::const_iterator last);

  // What the mounted tables hold for the id. A table that is absent or damaged reads as one that lacks the id: the slot
  // stays empty. Never fails.
  static EncapsulatedTableEntry getEntry(const TunnelId& id, const TunnelTableEntities& entities);

  // Whether damage to the tunnel's table keeps anybody from telling whether it has the tunnel.
  static bool isHidden(const TunnelId& id, const TunnelTableEntities& entities);

  // Whether a record was found.
  bool hasEntry() const { return !!entry_; }
};

// Whether the tunnel may be in the RIB: in a RIB that remaps preferences the filter must hold one for it, and a BGP
// labelled-unicast tunnel must be marked as contributing. filter is looked at only when the RIB remaps.
bool doesEntryContribute(bool supportsPrefRemapping, const TunnelTableEntryFilter* filter,
                         const EncapsulatedTableEntry& entry);

// Copies the tunnel's metrics into the RIB entry; static and nexthop-group tunnels have none and leave it as it is.
// A BGP labelled-unicast entry must be there and contribute (asserted).
void copyMetrics(const TunnelId& id, TunnelRibEntry& ribEntry, const EncapsulatedTableEntry& entry);
void copyMetrics(const TunnelId& id, TunnelRibEntry& ribEntry, const BgpLuTunnelTableEntry& ent);
void copyMetrics(const TunnelId& id, TunnelRibEntry& ribEntry, const IgpTunnelTableEntryBase& ent);

}  // namespace Tunnel::TunnelTable
