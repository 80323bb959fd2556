// The per-protocol RIBs of a builder, and the end of a review: entries that were full let the next tunnel in, metrics
// follow the smallest id, and what has become another entry is written.

#include <algorithm>

#include "runtime/Fastlog/TraceHelper.h"
#include "runtime/Zol/Exception.h"
#include "tunnel_table_sm/TunnelRibBuilderSm.h"

FASTLOG_DEFAULT_HANDLE("TunnelRibBuilderSm")

namespace Tunnel::TunnelTable {

bool TunnelRibBuilderSm::doUpdateProtoTunnelRibColl(const Ipkit::IpGenPrefix& tep, const TunnelId& id, TunnelType type,
                                                    bool add) {
  if (!protoTunnelRibColl_) {
    return true;
  }
  TunnelRibEntry& ribEntry = protoRibEntryOf(type, tep);
  if (!add) {
    if (ribEntry.tunnelIds() == 0) {
      FASTLOG_TRACE(8, "No entry for tep " << tep);
      return false;
    }
    FASTLOG_TRACE(8, type << ": deleting protocol-specific TEP / tunnel ID "
                          << "mapping, tunnel ID " << id << ", TEP " << tep);
    ribEntry.delTunnelId(id);
    return true;
  }
  FASTLOG_TRACE(8, type << ": adding protocol-specific TEP / tunnel ID "
                        << "mapping, tunnel ID " << id << ", TEP " << tep);
  if (ribEntry.tunnelIds() == 0) {
    ribEntry = TunnelRibEntry(tep);
  }
  if (ribEntry.isFull() && !ribEntry.hasTunnelId(id)) {
    FASTLOG_TRACE(7, type << " RIB entry tep: " << tep << " is full, id: " << id << " waits");
  } else {
    ribEntry.addTunnelId(id);
  }
  return true;
}

// A damaged entry is refilled from the candidates.
TunnelRibEntry& TunnelRibBuilderSm::protoRibEntryOf(TunnelType type, const Ipkit::IpGenPrefix& tep) {
  StagedTunnelRib& staged = assertProtoTunnelRib(type);
  return staged.entry(tep, [&] { refillProtocolEntry(staged.entry(tep, [] {}), type, tep); });
}

// Adds the candidates of the type.
void TunnelRibBuilderSm::refillProtocolEntry(TunnelRibEntry& ribEntry, TunnelType type,
                                             const Ipkit::IpGenPrefix& tep) const {
  const Zol::Ptr<TunnelTableOrderedEntry> candidates = internalTunnelRib_->entry(tep);
  if (!candidates) {
    return;
  }
  for (auto it = candidates->entry().begin(); it; ++it) {
    if (it.key().tunnelId().tunnelType() == type && !ribEntry.isFull()) {
      ribEntry.tepIs(tep);
      ribEntry.addTunnelId(it.key().tunnelId());
    }
  }
}

StagedTunnelRib& TunnelRibBuilderSm::assertProtoTunnelRib(TunnelType type) {
  const Zol::Ptr<ProtocolTunnelRibWrapper> wrapper = protoTunnelRibColl_->protocolTunnelRib(type);
  if (!wrapper) {
    throw Zol::InternalException("protocolTunnelRib missing for tunnelType " + stringValue(type));
  }
  if (!wrapper->tunnelRib()) {
    throw Zol::InternalException("protocolTunnelRib::tunnelRib missing for tunnelType " + stringValue(type));
  }
  std::optional<StagedTunnelRib>& staged = protoTunnelRib_.at(static_cast<std::size_t>(type));
  if (!staged || !(staged->rib() == wrapper->tunnelRib())) {
    staged.emplace(wrapper->tunnelRib());
  }
  return *staged;
}

void TunnelRibBuilderSm::doWriteReview(const EncapsulatedTableEntry& reviewed) {
  if (protoTunnelRibColl_) {
    const TunnelType type = reviewed.tunnelId().tunnelType();
    StagedTunnelRib& proto = assertProtoTunnelRib(type);
    for (StagedTunnelRib::Staged& staged : proto.touched()) {
      doMoveUpWaiting(staged, true);
      doHoldVacated(staged, type);
    }
    proto.write();
    isSpaceReleased_ = isSpaceReleased_ || proto.isSpaceReleased();
  }
  for (StagedTunnelRib::Staged& staged : tunnelRib_.touched()) {
    doMoveUpWaiting(staged, false);
    doRefreshMetrics(staged, reviewed);
    doHoldVacated(staged, std::nullopt);
  }
  tunnelRib_.write();
  isSpaceReleased_ = isSpaceReleased_ || tunnelRib_.isSpaceReleased();
}

// A place has become free in an entry that was full: of the tunnels that wait for one, the smallest takes it. In a
// per-protocol RIB every tunnel of the type waits, in a RIB those of the entry's type and preference.
void TunnelRibBuilderSm::doMoveUpWaiting(StagedTunnelRib::Staged& staged, bool isProtocolRib) {
  TunnelRibEntry& ribEntry = staged.now;
  if (!staged.before().isFull() || ribEntry.isFull() || ribEntry.tunnelIds() == 0) {
    return;
  }
  const Zol::Ptr<TunnelTableOrderedEntry> candidates = internalTunnelRib_->entry(staged.tep);
  if (!candidates) {
    return;
  }
  const TunnelType type = ribEntry.tunnelId(std::size_t(0)).tunnelType();
  std::vector<TunnelId> waiting;
  for (auto it = candidates->entry().begin(); it; ++it) {
    const TunnelId& id = it.key().tunnelId();
    if (id.tunnelType() == type && (isProtocolRib || it.key().pref() == ribEntry.pref()) && !ribEntry.hasTunnelId(id)) {
      waiting.push_back(id);
    }
  }
  std::sort(waiting.begin(), waiting.end());
  for (const TunnelId& id : waiting) {
    if (ribEntry.isFull()) {
      break;
    }
    const EncapsulatedTableEntry entry = freshEntry(id);
    if (keepsPlace(entry) || (entry.hasEntry() && entry.entry().tep() == staged.tep)) {
      ribEntry.addTunnelId(id);
    }
  }
}

// An entry has the metrics of its smallest tunnel. Those of another than the reviewed tunnel are read only when that
// one has just become the smallest; when they change, its own review brings them.
void TunnelRibBuilderSm::doRefreshMetrics(StagedTunnelRib::Staged& staged, const EncapsulatedTableEntry& reviewed) {
  if (staged.now.tunnelIds() == 0) {
    return;
  }
  const TunnelId smallest = staged.now.smallestTunnelId();
  const auto refreshFrom = [&](const EncapsulatedTableEntry& entry) {
    if (entry.hasEntry() && entry.entry().tep() == staged.tep && contributes(entry)) {
      staged.now.metricsIs(TunnelMetrics());
      copyMetrics(smallest, staged.now, entry);
    }
  };
  if (smallest == reviewed.tunnelId()) {
    refreshFrom(reviewed);
  } else if (const TunnelRibEntry& before = staged.before();
             before.tunnelIds() == 0 || before.smallestTunnelId() != smallest) {
    refreshFrom(freshEntry(smallest));
  }
}

}  // namespace Tunnel::TunnelTable
