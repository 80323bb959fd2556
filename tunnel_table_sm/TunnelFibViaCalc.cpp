// Resolution through other tunnels. A via of T may leave through a tunnel N; N's vias are then copied into T's entry,
// with T's labels below N's (stacks are shown top first):
//
//     srTunnel/9   [17]      via tunnel:ldpTunnel/5          FIB entry of srTunnel/9:
//     ldpTunnel/5  [300123]  via if12, 192.0.2.1      ==>      if12, 192.0.2.1, [300123, 17]
//
// N's entry is read as it stands in the FIB: N has resolved its own next levels there. Because T copied from N, a
// change of N must bring T back to review (TunnelFibDependencies).
//
// A via that cannot be built is dropped with a flag that says why; the others are computed all the same. Dropped are
// vias into a cycle, through a tunnel without vias, with more than seven labels, and through a GRE or IPsec tunnel:
// the FIB has no record for labels inside such a packet, and without it the traffic would leave in the clear.
#include "tunnel_table_sm/TunnelFibViaCalc.h"

#include "runtime/Fastlog/TraceHelper.h"
#include "tunnel_table_sm/TunnelFibSm.h"

namespace Tunnel::TunnelTable {
namespace {

FASTLOG_DEFAULT_HANDLE("TunnelFibSm");

using Result = TunnelFibViaCalcResult;

// Several vias through one next level read it once.
const std::vector<TunnelFibReview::JoinableVia>& viasOf(const TunnelFibSm& sm, TunnelFibReview& review,
                                                        const TunnelId& next) {
  review.isNextLevelAsked = true;
  if (review.isNextLevelRead && review.nextLevel == next) {
    return review.nextLevelVias;
  }
  review.nextLevel = next;
  review.isNextLevelRead = true;
  review.nextLevelVias.clear();
  TunnelFibEntry entry;
  if (readSafely(&sm.tunnelFib()->entry(), next, entry)) {
    for (std::size_t i = 0; i < entry.tunnelVias(); ++i) {
      const TunnelVia& via = entry.tunnelVia(i);
      LabelStackEncap encap;
      const EncapType type = via.encapId().encapType();
      if (type == EncapType::labelStack && !readSafely(&sm.tunnelFib()->labelStackEncap(), via.encapId(), encap)) {
        review.unreviewed.push_back(next);
        continue;  // without its labels the traffic would take another way
      }
      review.nextLevelVias.push_back({via, encap.info(), type});
    }
  }
  return review.nextLevelVias;
}

// Why a next level has no vias. The reason is final only when its review is not still to come. One that could have vias
// was reviewed if it is unprogrammable; else its table's notification is still on its way, or its entry is damaged.
Result whyEmpty(const TunnelFibSm& sm, TunnelFibReview& review, const TunnelId& next) {
  Result result;
  if (sm.unprogrammableTunnelIds()->has(next)) {
    review.unprogrammable.push_back(next);
  }
  if (const bool isWaiting = sm.isWaiting(next); isWaiting || sm.isUnreviewed(next)) {
    FASTLOG_TRACE(7, "    Next-level tunnel " << next << " is not ready");
    result.recTunNotReadyIs(true);
    if (!isWaiting) {
      review.unreviewed.push_back(next);
    }
  } else if (sm.tunnelTableEntryWasDeleted(next)) {
    FASTLOG_TRACE(7, "    Next-level tunnel " << next << " is missing its tunnel table entry");
    result.recTunMissingIs(true);
  } else if (!sm.tunnelContributesToTunnelFib(next)) {
    FASTLOG_TRACE(7, "    Next-level tunnel " << next << " is not contributing to tunnel FIB");
    result.recTunNonContribIs(true);
  } else {
    FASTLOG_TRACE(7, "    Next-level tunnel " << next << " is unprogrammable");
    result.recTunUnprogrammableIs(true);
  }
  return result;
}

Result flatten(const std::vector<TunnelFibReview::JoinableVia>& nextVias, const TunnelId& next, const MplsVia& via,
               TunnelFibReview& review) {
  Result result;
  bool isAnyJoined = false;
  for (const TunnelFibReview::JoinableVia& nextVia : nextVias) {
    const JoinObstacle obstacle = joinObstacle(via.labelOp(), nextVia);
    if (obstacle != JoinObstacle::none) {
      FASTLOG_TRACE(7, "      Ignored flattened TunnelVia for tunnel "
                           << review.consFibEntry.tunnelId() << " via " << nextVia.via
                           << (obstacle == JoinObstacle::labelStackTooLarge ? " (label stack too large)"
                                                                            : " (encapsulation is no label stack)"));
      result.recTunFlattenErrorIs(true);
      continue;
    }
    review.consFibEntry.insertLabelStackVia(nextVia.via, via.labelOp().joined(nextVia.labelOp));
    isAnyJoined = true;
  }
  if (isAnyJoined && (review.joined.empty() || review.joined.back() != next)) {
    review.joined.push_back(next);
  }
  return result;
}

}  // namespace

void TunnelFibReview::reset(const TunnelId& tunnelId) {
  consFibEntry.reset(tunnelId);
  nextLevels.clear();
  joined.clear();
  component = TunnelFibDependencies::noComponent;
  hasMoved = false;
  metQueued = false;
  unreviewed.clear();
  unprogrammable.clear();
  isNextLevelRead = false;
}

bool isLegalNextLevel(Ipkit::IntfId intf) {
  return isLegalTunnelIdValue(Ipkit::DynamicTunnelIntfId::tunnelIdValue(intf));
}

JoinObstacle joinObstacle(const Ipkit::MplsLabelOperation& own, const TunnelFibReview::JoinableVia& nextVia) {
  if (nextVia.labelOp.stackSize() + own.stackSize() > Ipkit::MplsLabelOperation::stackSizeMax) {
    return JoinObstacle::labelStackTooLarge;
  }
  const bool takesLabels = nextVia.encapType == EncapType::labelStack || nextVia.encapType == EncapType::invalid;
  return takesLabels ? JoinObstacle::none : JoinObstacle::noLabelStack;
}

TunnelFibViaCalcResult calculateTunnelFibEntryMplsVia(const TunnelFibSm& sm, TunnelFibReview& review,
                                                      const MplsVia& via) {
  ConsolidatedTunnelFibEntry& consFibEntry = review.consFibEntry;
  Result result;
  review.isNextLevelAsked = false;
  if (!DynamicTunnelIntfId::isDynamicTunnelIntfId(via.intf())) {
    consFibEntry.insertLabelStackVia(via, via.labelOp());
    return result;
  }
  if (!isLegalNextLevel(via.intf())) {
    FASTLOG_TRACE(7, "    Next-level tunnel " << via.intf() << " is missing its tunnel table entry");
    result.recTunMissingIs(true);
    return result;
  }
  const TunnelId next = DynamicTunnelIntfId::tunnelId(via.intf());
  if (sm.tunnelFibEntryMarkedUnprocessed(next)) {
    FASTLOG_TRACE(7, "      Skipping vias for tunnel " << next << " (marked unprocessed)");
    return result;
  }
  if (review.isCyclic(sm.dependencies(), next)) {
    FASTLOG_TRACE(7, "    Cycle detected while trying to create MplsVia for tunnelId " << consFibEntry.tunnelId()
                                                                                       << " via tunnelId " << next);
    result.recTunCycleIs(true);
    return result;
  }
  if (consFibEntry.viaInfo().holdsMoreThan(TunnelViaIndex::maxSize())) {
    return result;  // too many already, whatever else is joined
  }
  const auto& nextVias = viasOf(sm, review, next);
  return nextVias.empty() ? whyEmpty(sm, review, next) : flatten(nextVias, next, via, review);
}

void calculateTunnelFibEntryBackupMplsVia(TunnelFibReview& review, const MplsVia& via) {
  review.consFibEntry.insertBackupLabelStackVia(via, via.labelOp());
}

}  // namespace Tunnel::TunnelTable
