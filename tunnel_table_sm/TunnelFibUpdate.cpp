// The review of one tunnel T:
//
//   1. T's table entry is read, once; with it come T's direct next levels. They are recorded. If they changed, the
//      tunnels with a via that has become cyclic, or is so no longer, go to review.
//   2. Those next levels that are queued are reviewed now, up to a limit.
//   3. The vias are computed (TunnelFibViaCalc).
//   4. T is deferred while something that it resolves through is not settled (TunnelFibDeferral): its entry stays.
//   5. Else the entry is written or withdrawn, and the tunnels that wait for T go to review. A change of the entry
//      reaches T's dependants through the FIB's notification, a change of programmability by this review. A lost mark
//      needs no step of its own: the tunnels over a marked one are deferred, so they wait for it.
#include <algorithm>

#include "runtime/Fastlog/RingMessage.h"
#include "runtime/Fastlog/TraceHelper.h"
#include "tunnel_table_sm/TunnelFibSm.h"
#include "tunnel_table_sm/TunnelFibTableEntry.h"
#include "tunnel_table_sm/TunnelFibTableVisit.h"

namespace Tunnel::TunnelTable {
namespace {

FASTLOG_DEFAULT_HANDLE("TunnelFibSm");

}  // namespace

void TunnelFibSm::updateTunnelFibEntry(const TunnelId& tunnelId) {
  FASTLOG_TRACE(8, "updateTunnelFibEntry"
                       << " tunnelId: " << tunnelId << " (" << tunnelId.tunnelType() << ")");
  review_.reset(tunnelId);
  TunnelFibCalcResult result;
  const bool exists = visitTableEntry(tunnelId, [&](const auto& entry) {
    result.tunnelContributingIs(contributesToTunnelFib(entry));
    if (result.tunnelContributing()) {
      doCollectNextLevels(entry);
      doUpdateDependencies(tunnelId);
      reviewNextLevels();
      if (!review_.nextLevels.empty()) {
        review_.component = dependencies_.component(tunnelId);
      }
      calculateTunnelFibEntry(entry, review_, result, [](const MplsVia&, const TunnelFibViaCalcResult&) {});
    }
  });
  if (!exists && isHidden(tunnelId)) {
    hold(tunnelId);
    return;
  }
  result.tunnelTableEntryDeletedIs(!exists);
  if (!result.tunnelContributing()) {
    doUpdateDependencies(tunnelId);
  } else if (!review_.nextLevels.empty()) {
    std::sort(review_.joined.begin(), review_.joined.end());
    dependencies_.joinedIs(tunnelId, review_.joined);
  }
  if (doesDefer(result)) {
    FASTLOG_TRACE(8,
                  "void Tunnel::TunnelTable::TunnelFibSm::updateTunnelFibEntry(const "
                  "Tunnel::TunnelTable::TunnelId&)"
                      << " tunnelId: " << tunnelId << " update is being deferred.");
    if (!deferred_.find(tunnelId)->isForReview) {
      keepsEntry(tunnelId);
    }
    return;
  }
  if (!deferred_.empty()) {  // nearly always empty, and hashing an id is a good part of a review
    deferred_.erase(tunnelId);
  }
  dropMark(tunnelId);
  const bool wasUnprogrammable = this->wasUnprogrammable(tunnelId);
  const bool isWritten = doUpdateTunnelFibEntry(review_.consFibEntry, result.tunnelContributing());
  if (wasUnprogrammable == isWritten) {
    addDependentTunnelsForReview(tunnelId);
  }
  fileDeferredDependants(tunnelId, true);
}

void TunnelFibSm::dropMark(const TunnelId& tunnelId) {
  if (!markedUnprocessed_.empty()) {
    markedUnprocessed_.erase(tunnelId);
  }
}

// Reviewed, but held up: from now on the present FIB entry of the tunnel counts, for an unknown time.
void TunnelFibSm::keepsEntry(const TunnelId& tunnelId) {
  dropMark(tunnelId);
  fileDeferredDependants(tunnelId, false);
}

// onVia(via, result) is called behind each via that may leave through another tunnel.
template <class Entry, class OnVia>
void TunnelFibSm::calculateTunnelFibEntry(const Entry& entry, TunnelFibReview& review, TunnelFibCalcResult& result,
                                          OnVia&& onVia) const {
  if constexpr (IsMplsTunnel<Entry>) {
    if (doesPushOnly(entry)) {
      calculateTunnelFibEntryMplsVias(entry, review, result, onVia);
    } else {
      FASTLOG_TRACE(7, "Non push label operation for tableEntry: " << entry << " !!");
    }
  } else if constexpr (IsInterfaceTunnel<Entry>) {
    using Kind = EncapKind<std::remove_cvref_t<decltype(entry.tunnelInfo())>>;
    for (const Via& via : entry.via()) {
      ViaAndTunnelInfo info(via, Kind::type);
      (info.*Kind::infoRef)() = entry.tunnelInfo();
      review.consFibEntry.viaInfoIs(info);
    }
  } else {
    static_assert(std::same_as<Entry, NexthopGroupTunnelTableEntry>);
    review.consFibEntry.insertInvalidVia(
        Via(Ipkit::IpGenAddr(), Ipkit::NexthopGroupIntfId::nexthopGroupIdToIntfId(entry.nexthopGroupId())));
  }
}

template <class Entry, class OnVia>
void TunnelFibSm::calculateTunnelFibEntryMplsVias(const Entry& entry, TunnelFibReview& review,
                                                  TunnelFibCalcResult& result, OnVia&& onVia) const {
  forEachMplsVia(entry, [&](const MplsVia& via) {
    const TunnelFibViaCalcResult viaResult = calculateTunnelFibEntryMplsVia(*this, review, via);
    result.viaResultRef() |= viaResult;
    onVia(via, viaResult);
  });
  if constexpr (HoldsBackupVias<Entry>) {
    review.consFibEntry.backupViaInfoDelAll();
    for (const MplsVia& via : entry.backupVia()) {
      calculateTunnelFibEntryBackupMplsVia(review, via);
    }
  }
}

TunnelFibFinding TunnelFibSm::finding(const TunnelId& tunnelId) const {
  TunnelFibFinding finding;
  TunnelFibReview review;
  review.reset(tunnelId);
  review.component = dependencies_.component(tunnelId);
  const auto onVia = [&](const MplsVia& via, const TunnelFibViaCalcResult& result) {
    TunnelFibFinding::FoundVia found;
    found.via = via;
    found.result = result;
    if (DynamicTunnelIntfId::isDynamicTunnelIntfId(via.intf()) && isLegalNextLevel(via.intf())) {
      found.nextLevel = DynamicTunnelIntfId::tunnelId(via.intf());
      found.isSkipped = !review.isNextLevelAsked && result == TunnelFibViaCalcResult();
    }
    if (review.isNextLevelAsked) {
      found.nextLevelVias = review.nextLevelVias.size();
      for (const TunnelFibReview::JoinableVia& nextVia : review.nextLevelVias) {
        if (const JoinObstacle obstacle = joinObstacle(via.labelOp(), nextVia); obstacle != JoinObstacle::none) {
          found.refused.push_back({nextVia, obstacle});
        }
      }
    }
    finding.vias.push_back(std::move(found));
  };
  const bool exists = visitTableEntry(tunnelId, [&](const auto& entry) {
    finding.head = entry;
    finding.pushesOnly = doesPushOnly(entry);
    finding.result.tunnelContributingIs(contributesToTunnelFib(entry));
    if (finding.result.tunnelContributing()) {
      calculateTunnelFibEntry(entry, review, finding.result, onVia);
    }
  });
  finding.result.tunnelTableEntryDeletedIs(!exists);
  finding.cycle = dependencies_.cycleOf(tunnelId);
  finding.entry = std::move(review.consFibEntry);
  finding.obstacles = fibEntryObstacles(finding.entry);
  finding.isWaiting = isWaiting(tunnelId) || !review.unreviewed.empty();
  return finding;
}

bool TunnelFibSm::isHidden(const TunnelId& tunnelId) const {
  return isInTable(tunnelId, [&](const auto& table) { return table && table->hides(tunnelId); });
}

template <class Entry>
void TunnelFibSm::doCollectNextLevels(const Entry& entry) {
  if constexpr (IsMplsTunnel<Entry>) {
    if (!doesPushOnly(entry)) {
      return;
    }
    std::vector<TunnelId>& next = review_.nextLevels;
    for (const auto& via : entry.via()) {
      if (DynamicTunnelIntfId::isDynamicTunnelIntfId(via.intf()) && isLegalNextLevel(via.intf())) {
        next.push_back(DynamicTunnelIntfId::tunnelId(via.intf()));
      }
    }
    if (next.size() > 1) {
      std::sort(next.begin(), next.end());
      next.erase(std::unique(next.begin(), next.end()), next.end());
    }
  }
}

void TunnelFibSm::doUpdateDependencies(const TunnelId& tunnelId) {
  if (dependencies_.nextLevelsIs(tunnelId, review_.nextLevels)) {
    review_.hasMoved = true;
    ++filings_;
    tunnelsForReviewFirst(dependencies_.turned());
  }
}

bool TunnelFibSm::wasUnprogrammable(const TunnelId& tunnelId) const {
  return unprogrammableTunnelIds_->entry().size() != 0 && unprogrammableTunnelIds_->has(tunnelId);
}

FibEntryObstacles fibEntryObstacles(const ConsolidatedTunnelFibEntry& consFibEntry) {
  constexpr std::size_t countMax = TunnelViaIndex::maxSize();
  return {consFibEntry.viaInfo().empty(), consFibEntry.viaInfos() > countMax, consFibEntry.backupViaInfos() > countMax};
}

bool TunnelFibSm::doUpdateTunnelFibEntry(const ConsolidatedTunnelFibEntry& consFibEntry, bool tunnelTableEntryUsable) {
  const TunnelId& tunnelId = consFibEntry.tunnelId();
  FASTLOG_TRACE(8, "    "
                       << "doUpdateTunnelFibEntry"
                       << " tunnelId: " << tunnelId << " (" << tunnelId.tunnelType()
                       << ") tunnelTableEntryUsable: " << tunnelTableEntryUsable);
  if (!tunnelTableEntryUsable) {
    tunnelFibWriter_->deleteFibEntry(tunnelId);
    unprogrammableTunnelIds_->entryDel(tunnelId);
    return false;
  }
  constexpr std::size_t countMax = TunnelViaIndex::maxSize();
  const FibEntryObstacles obstacles = fibEntryObstacles(consFibEntry);
  if (obstacles.tooManyVias) {
    FASTLOG_TRACE(8, "TunnelFibEntry has too many tunnelVias: " << consFibEntry.viaInfos() << ", (max " << countMax);
    static Fastlog::RingMessage message("TunnelFibSm", __LINE__,
                                        "TunnelFibEntry has too many tunnelVias: %i, (max %i)");
    message.write(consFibEntry.viaInfos(), countMax);
  }
  if (obstacles.tooManyBackupVias) {
    FASTLOG_TRACE(
        8, "TunnelFibEntry has too many backupTunnelVias: " << consFibEntry.backupViaInfos() << ", (max " << countMax);
    static Fastlog::RingMessage message("TunnelFibSm", __LINE__,
                                        "TunnelFibEntry has too many backupTunnelVias: %i, (max %i)");
    message.write(consFibEntry.backupViaInfos(), countMax);
  }
  if (obstacles.any()) {
    tunnelFibWriter_->deleteFibEntry(tunnelId);
    FASTLOG_TRACE(8, " TunnelId " << tunnelId << " is unprogrammable because "
                                  << (obstacles.noVias ? "no tunnelVias" : "too many tunnelVias"));
    if (!wasUnprogrammable(tunnelId)) {
      FASTLOG_TRACE(5, "tunnelId " << tunnelId << " becomes unprogrammable: "
                                   << (obstacles.noVias ? "no tunnelVias" : "too many tunnelVias"));
    }
    unprogrammableTunnelIds_->entryIs(tunnelId, true);
    return false;
  }
  tunnelFibWriter_->addFibEntry(consFibEntry);
  if (wasUnprogrammable(tunnelId)) {
    FASTLOG_TRACE(8, " TunnelId " << tunnelId << " is now programmable");
    unprogrammableTunnelIds_->entryDel(tunnelId);
  }
  return true;
}

}  // namespace Tunnel::TunnelTable
