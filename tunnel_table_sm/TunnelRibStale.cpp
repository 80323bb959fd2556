// What an earlier run, or an earlier configuration, left in the RIBs. Entries that still hold stay as they are and are
// taken into the candidate store, so that the first reviews know what to take out; the rest goes before they begin.

#include "runtime/Fastlog/TraceHelper.h"
#include "tunnel_table_sm/TunnelRibBuilderSm.h"

FASTLOG_DEFAULT_HANDLE("TunnelRibBuilderSm")

namespace Tunnel::TunnelTable {
namespace {

constexpr auto verifySignature = "void Tunnel::TunnelTable::TunnelRibBuilderSm::verifyProtoTunnelRibColl()";

}  // namespace

bool TunnelRibBuilderSm::isLiveAt(const EncapsulatedTableEntry& entry, const Ipkit::IpGenPrefix& tep) const {
  return entry.hasEntry() && !!tep && entry.entry().tep() == tep && contributes(entry) &&
         !isUnprogrammable(entry.tunnelId());
}

// A tunnel is stale in an entry when its table lacks it or has it at another endpoint, when it does not contribute or
// cannot be programmed, or when the entry's first live tunnel is of another type or preference. A per-protocol RIB
// shows all tunnels of its type, whatever their preferences.
TunnelRibEntry TunnelRibBuilderSm::keptOf(const TunnelRibEntry& standing, std::optional<TunnelType> type) {
  TunnelRibEntry kept(standing.tep());
  kept.metricsIs(standing.metrics());
  kept.prefIs(standing.pref());
  for (const TunnelId& id : standing.tunnelId()) {
    const EncapsulatedTableEntry entry = freshEntry(id);
    if (!entry.hasEntry() && contributeToTunnelRib(id.tunnelType()) &&
        EncapsulatedTableEntry::isHidden(id, *tunnelTableEntities())) {
      keepHidden(id, kept);
      continue;
    }
    const bool isLive = contributeToTunnelRib(id.tunnelType()) && isLiveAt(entry, standing.tep());
    const TunnelEntryPref pref = isLive ? getPreference(entry.entry()) : defaultPrefOfNone;
    const bool isFirst = kept.tunnelIds() == 0;
    const bool isEqual =
        type ? id.tunnelType() == *type
             : isFirst || (kept.tunnelId(std::size_t(0)).tunnelType() == id.tunnelType() && kept.pref() == pref);
    if (!isLive || !isEqual) {
      FASTLOG_TRACE(8, id << " is stale.");
      continue;
    }
    FASTLOG_TRACE(8, id << " is not stale.");
    if (isFirst && !type) {
      kept.prefIs(pref);
    }
    kept.addTunnelId(id);
    fileCandidate(entry.entry(), pref);
    if (!type && id == kept.smallestTunnelId()) {
      kept.metricsIs(TunnelMetrics());
      copyMetrics(id, kept, entry);
    }
  }
  return kept;
}

// Its table does not tell whether it is still there: it stays, as it was filed, until that can be told.
void TunnelRibBuilderSm::keepHidden(const TunnelId& id, TunnelRibEntry& kept) {
  FASTLOG_TRACE(8, id << " is hidden.");
  kept.addTunnelId(id);
  TunnelTableEntry head(id, kept.pref());
  head.tepIs(kept.tep());
  fileCandidate(head, kept.pref());
  unreadable_.insert(id);
}

// An entry that cannot be read is refilled like one that holds nothing live.
void TunnelRibBuilderSm::removeStaleEntries(StagedTunnelRib& ribs, std::optional<TunnelType> type) {
  Zol::HashCollection<Ipkit::IpGenPrefix, bool> emptied;
  walkSafely(*ribs.rib(), [&](const TunnelRib::Hint& hint) {
    TunnelRibEntry& ribEntry = ribs.entry(hint.key(), [] {});
    const TunnelRibEntry kept = keptOf(ribEntry, type);
    if (kept.tunnelIds() != 0 || type) {
      ribEntry = kept;
    } else {
      emptied.insert(hint.key());
      ribs.touched().clear();  // it stands until others take over
    }
    ribs.write();
  });
  if (!emptied.empty()) {
    refillEmptied(emptied);
  }
}

// Endpoints whose standing tunnels are all stale may have others: the best of them take over at once, so that readers
// never see an endpoint go only because the RIB is built anew. One walk over the tables finds the candidates of all.
void TunnelRibBuilderSm::refillEmptied(const Zol::HashCollection<Ipkit::IpGenPrefix, bool>& emptied) {
  const auto fileAll = [this, &emptied](const auto& table) {
    if (!table) {
      return;
    }
    walkSafely(*table, [this, &emptied](const auto& hint) {
      const EncapsulatedTableEntry entry = freshEntry(hint.key());
      const Ipkit::IpGenPrefix& tep = entry.entry().tep();
      if (emptied.has(tep) && isLiveAt(entry, tep)) {
        fileCandidate(entry.entry(), getPreference(entry.entry()));
      }
    });
  };
  fileAll(tunnelTableEntities()->bgpLuTable());
  fileAll(tunnelTableEntities()->ldpTable());
  fileAll(tunnelTableEntities()->srTable());
  fileAll(tunnelTableEntities()->staticTable());
  fileAll(tunnelTableEntities()->nexthopGroupTable());
  for (auto it = emptied.begin(); it; ++it) {
    ribEntryOf(it.key()) = TunnelRibEntry();
    doSelectBestAndUpdateTunnelRib(it.key());
    tunnelRib_.write();
  }
}

void TunnelRibBuilderSm::verifyProtoTunnelRibColl() {
  FASTLOG_TRACE(8, verifySignature);
  if (!protoTunnelRibColl_) {
    return;
  }
  for (auto it = protoTunnelRibColl_->protocolTunnelRib().begin(); it; ++it) {
    removeStaleEntries(assertProtoTunnelRib(it.key()), it.key());
  }
}

void TunnelRibBuilderSm::fileCandidate(const TunnelTableEntry& head, TunnelEntryPref pref) {
  if (!tunnelIdToTep_.insert(head.tunnelId(), TunnelIdToTepEntry(head.tunnelId(), head.tep())).second) {
    return;  // another RIB's pass has filed it already
  }
  TunnelTableEntry key = head;
  key.prefIs(pref);
  internalTunnelRib_->entryIs(head.tep())->entryIs(key, true);
}

}  // namespace Tunnel::TunnelTable
