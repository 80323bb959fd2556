// What an earlier run, or an earlier configuration, left in the RIBs. Entries that still hold stay as they are and are
// taken into the candidate store, so that the first reviews know what to take out; the rest goes before they begin.

#include "runtime/Fastlog/TraceHelper.h"
#include "tunnel_table_sm/TunnelRibBuilderSm.h"

FASTLOG_DEFAULT_HANDLE("TunnelRibBuilderSm")

namespace Tunnel::TunnelTable {
namespace {

constexpr auto verifySignature = "void Tunnel::TunnelTable::TunnelRibBuilderSm::verifyProtoTunnelRibColl()";

}  // namespace

// A tunnel is stale in an entry when its table lacks it or has it at another endpoint, when it does not contribute or
// cannot be programmed, or when the entry's first live tunnel is of another type or preference. The preferences of one
// type's tunnels may differ in a per-protocol RIB, which shows them all.
void TunnelRibBuilderSm::removeStaleEntries(const Zol::Ptr<TunnelRib>& rib, bool isProtocolRib) {
  walkSafely(*rib, true, [&](const TunnelRib::Hint& hint) {
    TunnelRibEntry standing;
    if (!readSafely(rib.get(), hint.key(), standing)) {
      return;
    }
    TunnelRibEntry kept(standing.tep());
    kept.metricsIs(standing.metrics());
    kept.prefIs(standing.pref());
    for (const TunnelId& id : standing.tunnelId()) {
      const EncapsulatedTableEntry entry = freshEntry(id);
      bool isLive = entry.hasEntry() && entry.entry().tep() == standing.tep() &&
                    contributeToTunnelRib(id.tunnelType()) && contributes(entry) && !isUnprogrammable(id);
      const TunnelEntryPref pref = isLive ? getPreference(entry.entry()) : defaultPrefOfNone;
      if (isLive && kept.tunnelIds() == 0) {
        kept.prefIs(isProtocolRib ? standing.pref() : pref);
      } else if (isLive) {
        isLive =
            kept.tunnelId(std::size_t(0)).tunnelType() == id.tunnelType() && (isProtocolRib || kept.pref() == pref);
      }
      if (!isLive) {
        FASTLOG_TRACE(8, id << " is stale.");
        continue;
      }
      FASTLOG_TRACE(8, id << " is not stale.");
      kept.addTunnelId(id);
      fileCandidate(entry.entry(), pref);
      if (!isProtocolRib && id == kept.smallestTunnelId()) {
        kept.metricsIs(TunnelMetrics());
        copyMetrics(id, kept, entry);
      }
    }
    if (kept.tunnelIds() == 0) {
      rib->entryDel(standing.tep());
    } else {
      rib->entryIs(kept);
    }
  });
}

void TunnelRibBuilderSm::verifyProtoTunnelRibColl() {
  FASTLOG_TRACE(8, verifySignature);
  if (!protoTunnelRibColl_) {
    return;
  }
  for (auto it = protoTunnelRibColl_->protocolTunnelRib().begin(); it; ++it) {
    removeStaleEntries(assertProtoTunnelRib(it.key()).rib(), true);
  }
}

void TunnelRibBuilderSm::fileCandidate(const TunnelTableEntry& head, TunnelEntryPref pref) {
  if (!tunnelIdToTep_.insert(head.tunnelId(), TunnelIdToTepEntry(head.tunnelId(), head.tep())).second) {
    return;  // the RIB has filed it already
  }
  TunnelTableEntry key = head;
  key.prefIs(pref);
  internalTunnelRib_->entryIs(head.tep())->entryIs(key, true);
}

}  // namespace Tunnel::TunnelTable
