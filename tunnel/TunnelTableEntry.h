// The records of the twelve protocol tunnel tables. All share one head; what a protocol says beyond it stands behind.
//
//     TunnelTableEntry                    the head
//       BgpLuPushTunnelTableEntry         vias and one label operation for all of them
//         BgpLuTunnelTableEntry           whether BGP lets it contribute, metrics
//       IgpTunnelTableEntryBase           MPLS vias, metrics
//         LdpTunnelTableEntry, SrTunnelTableEntry
//       StaticTunnelTableEntry            MPLS vias, backup vias
//       TiLfaTunnelTableEntry             MPLS vias, backup vias
//       RsvpTunnelTableEntry, SrTeSegmentListTunnelTableEntry    MPLS vias
//       NexthopGroupTunnelTableEntry      a nexthop group
//       L3IntfTunnelTableEntry            vias of an interface tunnel
//         GreIntfTunnelTableEntry, IpsecVtiIntfTunnelTableEntry, IpsecGreIntfTunnelTableEntry    what wraps the packet
//
// An empty record (the one that a table yields for an absent key) has the zero id and the default preference of its
// type.
#pragma once

#include <compare>
#include <cstdint>

#include "runtime/Ipkit/IpGenPrefix.h"
#include "runtime/Zol/Value.h"
#include "tunnel/TunnelId.h"
#include "tunnel/TunnelInfo.h"
#include "tunnel/Via.h"

namespace Tunnel::TunnelTable {

class TunnelTableEntry {
  ZOL_VALUE(TunnelTableEntry, "Tunnel::TunnelTable::TunnelTableEntry", (TunnelId, tunnelId), (Ipkit::IpGenPrefix, tep),
            (std::uint64_t, tieBreaker), (TunnelEntryPref, pref, defaultPrefOfNone))
 public:
  TunnelTableEntry() = default;
  explicit TunnelTableEntry(const TunnelId& tunnelId, TunnelEntryPref pref = defaultPrefOfNone)
      : tunnelId_(tunnelId), pref_(pref) {}

  // The order of a tep's candidates, the most preferred first: own preference, default preference of the type, id,
  // tep, tie-breaker. Asserts that the type of each id exists when own preferences are equal.
  friend std::strong_ordering operator<=>(const TunnelTableEntry& a, const TunnelTableEntry& b);
};

// Opaque to the system: copied from a tunnel to the RIB entries that it leads.
class TunnelMetrics {
  ZOL_VALUE(TunnelMetrics, "Tunnel::TunnelTable::TunnelMetrics", (std::uint32_t, m), (std::uint32_t, m2),
            (std::uint32_t, p), (std::uint32_t, p2))
};

class BgpLuPushTunnelTableEntry : public TunnelTableEntry {
  ZOL_DERIVED_VALUE(BgpLuPushTunnelTableEntry, TunnelTableEntry, "Tunnel::TunnelTable::BgpLuPushTunnelTableEntry",
                    (ViaArray, via), (Ipkit::MplsLabelOperation, labelOp))
 public:
  using TunnelTableEntry::TunnelTableEntry;
};

enum class Contribution : std::uint8_t { unspecified = 0, contributing = 1, notContributing = 2 };
inline bool isLegal(Contribution contribution) { return contribution <= Contribution::notContributing; }
std::ostream& operator<<(std::ostream& out, Contribution contribution);
void parseValue(Zol::TextCursor& in, Contribution& contribution);

class BgpLuTunnelTableEntry : public BgpLuPushTunnelTableEntry {
  ZOL_DERIVED_VALUE(BgpLuTunnelTableEntry, BgpLuPushTunnelTableEntry, "Tunnel::TunnelTable::BgpLuTunnelTableEntry",
                    (Contribution, contribution, Contribution::notContributing), (TunnelMetrics, metrics))
 public:
  explicit BgpLuTunnelTableEntry(const TunnelId& tunnelId = TunnelId(),
                                 TunnelEntryPref pref = getDefaultPrefForType(TunnelType::bgpLuTunnel))
      : BgpLuPushTunnelTableEntry(tunnelId, pref) {}
};

class IgpTunnelTableEntryBase : public TunnelTableEntry {
  ZOL_DERIVED_VALUE(IgpTunnelTableEntryBase, TunnelTableEntry, "Tunnel::TunnelTable::IgpTunnelTableEntryBase",
                    (MplsViaArray, via), (TunnelMetrics, metrics))
 public:
  using TunnelTableEntry::TunnelTableEntry;
};

class LdpTunnelTableEntry : public IgpTunnelTableEntryBase {
  ZOL_DERIVED_VALUE(LdpTunnelTableEntry, IgpTunnelTableEntryBase, "Tunnel::TunnelTable::LdpTunnelTableEntry")
 public:
  explicit LdpTunnelTableEntry(const TunnelId& tunnelId = TunnelId(),
                               TunnelEntryPref pref = getDefaultPrefForType(TunnelType::ldpTunnel))
      : IgpTunnelTableEntryBase(tunnelId, pref) {}
};

class SrTunnelTableEntry : public IgpTunnelTableEntryBase {
  ZOL_DERIVED_VALUE(SrTunnelTableEntry, IgpTunnelTableEntryBase, "Tunnel::TunnelTable::SrTunnelTableEntry")
 public:
  explicit SrTunnelTableEntry(const TunnelId& tunnelId = TunnelId(),
                              TunnelEntryPref pref = getDefaultPrefForType(TunnelType::srTunnel))
      : IgpTunnelTableEntryBase(tunnelId, pref) {}
};

class StaticTunnelTableEntry : public TunnelTableEntry {
  ZOL_DERIVED_VALUE(StaticTunnelTableEntry, TunnelTableEntry, "Tunnel::TunnelTable::StaticTunnelTableEntry",
                    (MplsViaArray, via), (MplsViaArray, backupVia))
 public:
  explicit StaticTunnelTableEntry(const TunnelId& tunnelId = TunnelId(),
                                  TunnelEntryPref pref = getDefaultPrefForType(TunnelType::staticTunnel))
      : TunnelTableEntry(tunnelId, pref) {}
};

class TiLfaTunnelTableEntry : public TunnelTableEntry {
  ZOL_DERIVED_VALUE(TiLfaTunnelTableEntry, TunnelTableEntry, "Tunnel::TunnelTable::TiLfaTunnelTableEntry",
                    (MplsViaArray, via), (MplsViaArray, backupVia))
 public:
  using TunnelTableEntry::TunnelTableEntry;
};

class RsvpTunnelTableEntry : public TunnelTableEntry {
  ZOL_DERIVED_VALUE(RsvpTunnelTableEntry, TunnelTableEntry, "Tunnel::TunnelTable::RsvpTunnelTableEntry",
                    (MplsViaArray, via))
 public:
  using TunnelTableEntry::TunnelTableEntry;
};

class SrTeSegmentListTunnelTableEntry : public TunnelTableEntry {
  ZOL_DERIVED_VALUE(SrTeSegmentListTunnelTableEntry, TunnelTableEntry,
                    "Tunnel::TunnelTable::SrTeSegmentListTunnelTableEntry", (MplsViaArray, via))
 public:
  using TunnelTableEntry::TunnelTableEntry;
};

class NexthopGroupTunnelTableEntry : public TunnelTableEntry {
  ZOL_DERIVED_VALUE(NexthopGroupTunnelTableEntry, TunnelTableEntry, "Tunnel::TunnelTable::NexthopGroupTunnelTableEntry",
                    (std::uint32_t, nexthopGroupId))
 public:
  explicit NexthopGroupTunnelTableEntry(const TunnelId& tunnelId = TunnelId(),
                                        TunnelEntryPref pref = getDefaultPrefForType(TunnelType::nexthopGroupTunnel))
      : TunnelTableEntry(tunnelId, pref) {}
};

class L3IntfTunnelTableEntry : public TunnelTableEntry {
  ZOL_DERIVED_VALUE(L3IntfTunnelTableEntry, TunnelTableEntry, "Tunnel::TunnelTable::L3IntfTunnelTableEntry",
                    (ViaArray, via))
 public:
  using TunnelTableEntry::TunnelTableEntry;
};

class GreIntfTunnelTableEntry : public L3IntfTunnelTableEntry {
  ZOL_DERIVED_VALUE(GreIntfTunnelTableEntry, L3IntfTunnelTableEntry, "Tunnel::TunnelTable::GreIntfTunnelTableEntry",
                    (GreTunnelInfo, tunnelInfo))
 public:
  using L3IntfTunnelTableEntry::L3IntfTunnelTableEntry;
};

class IpsecVtiIntfTunnelTableEntry : public L3IntfTunnelTableEntry {
  ZOL_DERIVED_VALUE(IpsecVtiIntfTunnelTableEntry, L3IntfTunnelTableEntry,
                    "Tunnel::TunnelTable::IpsecVtiIntfTunnelTableEntry", (IpsecVtiTunnelInfo, tunnelInfo))
 public:
  using L3IntfTunnelTableEntry::L3IntfTunnelTableEntry;
};

class IpsecGreIntfTunnelTableEntry : public L3IntfTunnelTableEntry {
  ZOL_DERIVED_VALUE(IpsecGreIntfTunnelTableEntry, L3IntfTunnelTableEntry,
                    "Tunnel::TunnelTable::IpsecGreIntfTunnelTableEntry", (IpsecGreTunnelInfo, tunnelInfo))
 public:
  using L3IntfTunnelTableEntry::L3IntfTunnelTableEntry;
};

}  // namespace Tunnel::TunnelTable
