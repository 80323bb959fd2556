// The twelve protocol watchers: one template, one line a protocol.
//
// A watcher looks at the presence of keys only and reports what it finds; damage in the table is reported to the table
// and reads as absent. The report uses a look-up of its own, apart from the one that decides about the seen id.
#pragma once

#include <algorithm>
#include <string_view>

#include "runtime/Fastlog/TraceHelper.h"
#include "tunnel_table_sm/ProtocolTunnelSm.h"

namespace Tunnel::TunnelTable {

// A string that can be a template argument.
template <std::size_t size>
struct Text {
  constexpr Text(const char (&text)[size]) { std::copy_n(text, size, chars); }  // NOLINT: literals are texts
  constexpr std::string_view view() const { return {chars, size - 1}; }
  char chars[size];
};

// TI-LFA tunnels come and go with every repair, and nobody asks for their deletion when the table goes: their ids are
// not kept.
enum class SeenIds { kept, notKept };

// The handle of this header's traces, the same as that of ProtocolTunnelSm.cpp.
Fastlog::TraceHandle& protocolTunnelSmTraceHandle();

template <class Table_, TunnelTableIdentifier id, Text stem, Text word, SeenIds seen = SeenIds::kept>
class WatcherSm final : public ProtocolTunnelSm {
 public:
  using Table = Table_;
  static constexpr TunnelTableIdentifier tableId = id;

  // The table and its handler have one name in all twelve watchers: generic code alone calls them. An empty table
  // leaves the watcher idle.
  WatcherSm(TableEntrySm* owner, Zol::PtrConst<TunnelTableEntities> tunnelTableEntities,
            Zol::PtrConst<TunnelIdColl> unprogrammableTunnelIds, Zol::PtrConst<Table> table)
      : ProtocolTunnelSm(owner, std::move(tunnelTableEntities), std::move(unprogrammableTunnelIds)),
        table_(*this, std::move(table), &Table::entryChannel,
               {.onKey = &WatcherSm::handleEntry,
                .onAll = &WatcherSm::handleTunnelEntry,
                .onNotifier = &WatcherSm::handleTunnelEntry}) {}

  const Zol::PtrConst<Table>& table() const { return table_.notifier(); }
  void tableIs(Zol::PtrConst<Table> table) { table_.notifierIs(std::move(table)); }
  void tableDel() { tableIs(nullptr); }

  // Examines one key: handleRsvpTunnelEntry and its eleven siblings.
  void handleEntry(const TunnelId& tunnelId) {
    FASTLOG_TRACE(8, "handle" << stem.view() << "TunnelEntry"
                              << " " << word.view() << " tunnel ID " << tunnelId);
    const Zol::PtrConst<Table> kept = table();
    if (!kept) {
      return;
    }
    if constexpr (seen == SeenIds::kept) {
      if (hasSafely(*kept, tunnelId)) {
        seenTunnelIdIs(tunnelId, id);
      } else {
        seenTunnelIdDel(tunnelId);
      }
    }
    const bool isPresent = hasSafely(*kept, tunnelId);
    owner().handleTunnelTableEntry(tunnelId, id, !isPresent);
  }

  void handleTunnelEntry() override {
    FASTLOG_TRACE(8, "virtual void Tunnel::TunnelTable::" << stem.view() << "TunnelSm::handleTunnelEntry()"
                                                          << " " << word.view());
    if (table()) {
      // A handler may withdraw the table, and with it this watcher, while it is walked.
      const Zol::Ptr<WatcherSm> self(this);
      const Zol::PtrConst<Table> kept = table();
      walkSafely(*kept, [this](const auto& hint) { handleEntry(hint.key()); });
    }
  }

 private:
  static Fastlog::TraceHandle& _defaultTraceHandle() { return protocolTunnelSmTraceHandle(); }

  Zol::Notifiee<WatcherSm, Table, TunnelId> table_;
};

using Id = TunnelTableIdentifier;

// Each row: the table, the identifier reported, the stem of the class and handler names, the word in traces.
using BgpLuTunnelSm = WatcherSm<BgpLuTunnelTable, Id::bgpLu, "BgpLu", "bgpLu">;
using BgpLuPushTunnelSm = WatcherSm<BgpLuPushTunnelTable, Id::bgpLuPush, "BgpLuPush", "bgpLuPush">;
using LdpTunnelSm = WatcherSm<LdpTunnelTable, Id::ldp, "Ldp", "ldp">;
using RsvpTunnelSm = WatcherSm<RsvpTunnelTable, Id::rsvp, "Rsvp", "rsvp">;
using SrTunnelSm = WatcherSm<SrTunnelTable, Id::sr, "Sr", "sr">;
using StaticTunnelSm = WatcherSm<StaticTunnelTable, Id::staticTable, "Static", "static">;
using NexthopGroupTunnelSm = WatcherSm<NexthopGroupTunnelTable, Id::nexthopGroup, "NexthopGroup", "nexthopGroup">;
using SrTeSegmentListTunnelSm =
    WatcherSm<SrTeSegmentListTunnelTable, Id::srTeSegmentList, "SrTeSegmentList", "srTeSegmentList">;
using GreInterfaceTunnelSm =
    WatcherSm<GreIntfTunnelTable, Id::greTunnelInterface, "GreInterface", "greStaticInterface">;
using IpsecVtiInterfaceTunnelSm =
    WatcherSm<IpsecVtiIntfTunnelTable, Id::ipsecVtiTunnelInterface, "IpsecVtiInterface", "ipsecVtiStaticInterface">;
using IpsecGreInterfaceTunnelSm =
    WatcherSm<IpsecGreIntfTunnelTable, Id::ipsecGreTunnelInterface, "IpsecGreInterface", "ipsecGreStaticInterface">;
using TiLfaTunnelSm = WatcherSm<TiLfaTunnelTable, Id::tiLfa, "TiLfa", "tilfa", SeenIds::notKept>;

inline constexpr Zol::Factory<BgpLuTunnelSm> bgpLuTunnelSmFactory;
inline constexpr Zol::Factory<BgpLuPushTunnelSm> bgpLuPushTunnelSmFactory;
inline constexpr Zol::Factory<LdpTunnelSm> ldpTunnelSmFactory;
inline constexpr Zol::Factory<RsvpTunnelSm> rsvpTunnelSmFactory;
inline constexpr Zol::Factory<SrTunnelSm> srTunnelSmFactory;
inline constexpr Zol::Factory<StaticTunnelSm> staticTunnelSmFactory;
inline constexpr Zol::Factory<NexthopGroupTunnelSm> nexthopGroupTunnelSmFactory;
inline constexpr Zol::Factory<SrTeSegmentListTunnelSm> srTeSegmentListTunnelSmFactory;
inline constexpr Zol::Factory<GreInterfaceTunnelSm> greInterfaceTunnelSmFactory;
inline constexpr Zol::Factory<IpsecVtiInterfaceTunnelSm> ipsecVtiInterfaceTunnelSmFactory;
inline constexpr Zol::Factory<IpsecGreInterfaceTunnelSm> ipsecGreInterfaceTunnelSmFactory;
inline constexpr Zol::Factory<TiLfaTunnelSm> tiLfaTunnelSmFactory;

}  // namespace Tunnel::TunnelTable
