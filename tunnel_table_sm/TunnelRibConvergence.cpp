// Convergence: after BGP labelled unicast has declared that its table is complete, the RIB says at which of its own
// sequence numbers it has caught up.
//
//            BGP converged, not caught up                    caught up, or 120 s since the wait began
//   idle ─────────────────────────────────▶ waiting ─────────────────────────────────────────────────▶ idle, announced
//     ▲                                         │ BGP restarted, or its table is not mounted
//     └─────────────────────────────────────────┘
//
// Caught up: no tunnel waits for review, no entry for space, and BGP's table has reached the sequence number that BGP
// declared. A builder that takes the place of a waiting one waits until the same moment: configuring a RIB again and
// again does not put off its announcement.

#include "runtime/Fastlog/TraceHelper.h"
#include "tunnel_table_sm/TunnelRibBuilderSm.h"

FASTLOG_DEFAULT_HANDLE("TunnelRibBuilderSm")

namespace Tunnel::TunnelTable {
namespace {

constexpr double convergenceWaitMax = 120;  // seconds

#define BUILDER "Tunnel::TunnelTable::TunnelRibBuilderSm::"
constexpr auto convergedSignature = "void " BUILDER "handleBgpLuConverged()";
constexpr auto maybeSignature = "bool " BUILDER "maybeUpdateTunnelRibConvergenceSeqno()";
constexpr auto waitMaxSignature = "void " BUILDER "handleConvergenceUpdateWaitMax()";
constexpr auto updateSignature = "void " BUILDER "updateTunnelRibConvergenceSeqno()";
#undef BUILDER

}  // namespace

void TunnelRibBuilderSm::handleBgpLuConverged() {
  const bool bgpLuConverged = bgpLuConvergence_->bgpLuConverged();
  FASTLOG_TRACE(8, convergedSignature << ": bgpLuConverged: " << bgpLuConverged);
  if (!tunnelTableEntities()->bgpLuTable()) {
    FASTLOG_TRACE(8, convergedSignature << ": BGP isn't mounted");
    waitingToNotifyConverged_ = false;
    deadline_.timeMinIs(Quor::Clock::never);
    return;
  }
  if (!bgpLuConverged) {
    FASTLOG_TRACE(8, convergedSignature << ": gated restarted, so reset the waiting-for-convergence process.");
    waitingToNotifyConverged_ = false;
    deadline_.timeMinIs(clock_->now() - 1);
    return;
  }
  if (maybeUpdateTunnelRibConvergenceSeqno()) {
    return;
  }
  if (!waitingToNotifyConverged_) {  // a record that BGP writes again does not move the deadline
    convergenceUpdateWaitTimeIs(clock_->now() + convergenceWaitMax);
    waitingToNotifyConverged_ = true;
    FASTLOG_TRACE(8, convergedSignature << ": , start " << convergenceWaitMax << " seconds wait for bgpLuConvergence");
  }
}

void TunnelRibBuilderSm::convergenceUpdateWaitTimeIs(double time) {
  convergenceUpdateWaitTime_ = time;
  deadline_.timeMinIs(time);
}

bool TunnelRibBuilderSm::maybeUpdateTunnelRibConvergenceSeqno() {
  if (!isDrained() || heldUp() != 0) {
    FASTLOG_TRACE(8, maybeSignature << ": backlog not empty");
    return false;
  }
  const Zol::PtrConst<BgpLuTunnelTable> bgpLuTable = tunnelTableEntities()->bgpLuTable();
  if (!bgpLuTable || bgpLuTable->collectionControl().sequence() < bgpLuConvergence_->bgpLuSeqno()) {
    FASTLOG_TRACE(8, maybeSignature << ": bgpLu memtab sequence no. not caught up.");
    return false;
  }
  FASTLOG_TRACE(8, maybeSignature << ": review backlog is empty and bgpLu memtab sequence number has caught up.");
  updateTunnelRibConvergenceSeqno();
  return true;
}

void TunnelRibBuilderSm::handleConvergenceUpdateWaitMax() {
  if (!reacts()) {
    return;
  }
  const Zol::Ptr<TunnelRibBuilderSm> self(this);  // whoever hears the announcement may replace this builder
  FASTLOG_TRACE(8, waitMaxSignature);
  if (!waitingToNotifyConverged_) {
    FASTLOG_TRACE(8, waitMaxSignature << ": already declared convergence before timer expired.");
  } else if (clock_->now() < convergenceUpdateWaitTime_) {
    deadline_.timeMinIs(convergenceUpdateWaitTime_);  // this call was for an earlier wait
  } else {
    FASTLOG_TRACE(8, waitMaxSignature << ": convergence timer expired.");
    updateTunnelRibConvergenceSeqno();
  }
}

void TunnelRibBuilderSm::updateTunnelRibConvergenceSeqno() {
  const std::uint64_t seqno = tunnelRib()->collectionControl().sequence();
  waitingToNotifyConverged_ = false;
  FASTLOG_TRACE(
      8, updateSignature << "Updated Tunnel RIB convergence sequence number for ribId " << ribId() << " to " << seqno);
  FASTLOG_TRACE(5, "ribId " << ribId() << " converged, sequence number " << seqno);
  tunnelConvergence_->tunnelRibConvergenceSeqnoIs(ribId(), seqno);  // last: it is heard at once
}

}  // namespace Tunnel::TunnelTable
