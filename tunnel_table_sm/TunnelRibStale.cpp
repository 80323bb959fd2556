// What an earlier run, or an earlier configuration, left in the RIBs. Entries that are still right stay as they are.
// Their tunnels are filed as candidates, so that the first reviews know what to remove. The rest is removed before they
// begin.

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
TunnelRibEntry TunnelRibBuilderSm::keptOf(const TunnelRibEntry& stored, std::optional<TunnelType> type) {
  TunnelRibEntry none = stored;
  none.tunnelIdRef().clear();
  TunnelRibEntry kept = none;
  if (!keepLive(stored, type, kept)) {
    kept = none;
    keepHidden(stored, type, kept);
    keepLive(stored, type, kept);
  }
  return kept;
}

bool TunnelRibBuilderSm::keepLive(const TunnelRibEntry& stored, std::optional<TunnelType> type, TunnelRibEntry& kept) {
  for (const TunnelId& id : stored.tunnelId()) {
    if (kept.hasTunnelId(id)) {
      continue;
    }
    const EncapsulatedTableEntry entry = freshEntry(id);
    if (!entry.hasEntry() && staysHidden(id)) {
      return false;
    }
    const bool isLive = contributeToTunnelRib(id.tunnelType()) && isLiveAt(entry, stored.tep());
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
  return true;
}

bool TunnelRibBuilderSm::staysHidden(const TunnelId& id) const {
  return contributeToTunnelRib(id.tunnelType()) && isHidden(id) && !isUnprogrammable(id);
}

// A tunnel in a table that cannot be read stays where it is filed until it can be read. Its preference is that of the
// RIB entry. A per-protocol entry has none: a tunnel that is only there is no candidate before its review.
void TunnelRibBuilderSm::keepHidden(const TunnelRibEntry& stored, std::optional<TunnelType> type,
                                    TunnelRibEntry& kept) {
  for (const TunnelId& id : stored.tunnelId()) {
    if (!staysHidden(id)) {
      continue;
    }
    FASTLOG_TRACE(8, id << " is hidden.");
    kept.addTunnelId(id);
    undecided_.insert(id);
    if (type) {
      tunnelIdToTep_.insert(id, TunnelIdToTepEntry(id, stored.tep()));
    } else {
      TunnelTableEntry head(id);
      head.tepIs(stored.tep());
      fileCandidate(head, stored.pref());
    }
  }
}

// An entry that cannot be read is refilled like one that has no live tunnel.
void TunnelRibBuilderSm::removeStaleEntries(StagedTunnelRib& ribs, std::optional<TunnelType> type) {
  Endpoints emptied;
  walkSafely(*ribs.rib(), [&](const TunnelRib::Hint& hint) {
    TunnelRibEntry& ribEntry = ribs.entry(hint.key(), [] {});
    const TunnelRibEntry kept = keptOf(ribEntry, type);
    if (kept.tunnelIds() != 0) {
      ribEntry = kept;
    } else {
      emptied.insert(hint.key());
      ribs.touched().clear();  // it stays until others take over
    }
    ribs.write();
  });
  if (!emptied.empty()) {
    refillEmptied(ribs, type, emptied);
  }
}

// Endpoints of which all tunnels are stale may have others. The best of them take over at once, so that readers never
// see an endpoint disappear only because the RIB is rebuilt. One walk over the tables finds the candidates of all.
void TunnelRibBuilderSm::refillEmptied(StagedTunnelRib& ribs, std::optional<TunnelType> type,
                                       const Endpoints& emptied) {
  const auto fileAll = [&](const auto& table) {
    if (!table || (type && table->tunnelType() != *type)) {
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
    TunnelRibEntry& ribEntry = ribs.entry(it.key(), [] {});
    ribEntry = TunnelRibEntry();
    if (type) {
      refillProtocolEntry(ribEntry, *type, it.key());
    } else {
      doSelectBestAndUpdateTunnelRib(it.key());
    }
    ribs.write();
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
