// The backlog of a RIB builder: filing, draining, and the start.

#include "tunnel_table_sm/TunnelRibBuilderSm.h"

#include "runtime/Fastlog/TraceHelper.h"
#include "tunnel_table_sm/TunnelSmTypes.h"

FASTLOG_DEFAULT_HANDLE("TunnelRibBuilderSm")

namespace Tunnel::TunnelTable {
namespace {

constexpr auto unprogrammableSignature =
    "virtual void Tunnel::TunnelTable::TunnelRibBuilderSm::handleUnprogrammableEntry(const "
    "Tunnel::TunnelTable::TunnelId&)";
constexpr auto preferenceSignature =
    "void Tunnel::TunnelTable::TunnelRibBuilderSm::handlePreference(const Tunnel::TunnelTable::TunnelId&)";
constexpr auto initializedSignature = "virtual void Tunnel::TunnelTable::TunnelRibBuilderSm::handleInitialized()";
constexpr Quor::TaskPriority reviewPriority = 2;

}  // namespace

TunnelRibBuilderSm::TunnelRibBuilderSm(Zol::PtrConst<TunnelTableEntities> tunnelTableEntities,
                                       Zol::PtrConst<TunnelIdColl> unprogrammableTunnelIds, bool supportPreferenceRemap,
                                       Zol::PtrConst<TunnelTableEntryFilter> tunnelTableEntryFilter,
                                       Zol::Ptr<TunnelRib> tunnelRib, Zol::PtrConst<BgpLuConvergence> bgpLuConvergence,
                                       Zol::Ptr<TunnelConvergence> tunnelConvergence,
                                       Zol::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl,
                                       Zol::Ptr<Quor::TaskScheduler> scheduler, Zol::PtrConst<Quor::Clock> clock)
    : TableEntrySm(std::move(tunnelTableEntities), std::move(unprogrammableTunnelIds)),
      supportPreferenceRemap_(supportPreferenceRemap),
      filter_(*this, std::move(tunnelTableEntryFilter), &TunnelTableEntryFilter::preferenceChannel,
              {.onKey = &TunnelRibBuilderSm::handlePreference}),
      tunnelRib_(std::move(tunnelRib)),
      bgpLuConvergence_(*this, std::move(bgpLuConvergence), &BgpLuConvergence::bgpLuConvergedChannel,
                        {.onKey = &TunnelRibBuilderSm::handleBgpLuConverged}),
      tunnelConvergence_(std::move(tunnelConvergence)),
      protoTunnelRibColl_(std::move(protoTunnelRibColl)),
      scheduler_(std::move(scheduler)),
      clock_(std::move(clock)),
      convergenceUpdateWaitTime_(Quor::Clock::never),
      deadline_(*this, &TunnelRibBuilderSm::handleConvergenceUpdateWaitMax, clock_) {
  handleInitialized();
}

TunnelIdToTepEntry TunnelRibBuilderSm::tunnelIdToTep(const TunnelId& id) const {
  const TunnelIdToTepEntry* const entry = tunnelIdToTep_.find(id);
  return entry == nullptr ? TunnelIdToTepEntry() : *entry;
}

// The entries of the RIBs are put right before the tables are walked: what the walk files is then reviewed against a
// store that knows what the RIBs hold.
void TunnelRibBuilderSm::handleInitialized() {
  FASTLOG_TRACE(8, initializedSignature);
  ZOL_ASSERT(areSmTypesRegistered());
  taskIs(scheduler_, reviewPriority, "TunnelRibsm");
  retryTask_.emplace(*this, &TunnelRibBuilderSm::retryHeldUp, scheduler_, reviewPriority, "TunnelRibsm retry");
  internalTunnelRib_ = Zol::make<InternalTunnelRib>();
  removeStaleEntries(tunnelRib_);
  verifyProtoTunnelRibColl();
  handleTunnelTableEntity();
  deadline_.timeMinIs(Quor::Clock::never);
  handleBgpLuConverged();
  initialized_ = true;
  if (heldUp() != 0) {
    retryTask_->scheduleTaskLowestDelay(heldUpRetryDelay);
  }
}

void TunnelRibBuilderSm::taskIs(const Zol::Ptr<Quor::TaskScheduler>& scheduler, Quor::TaskPriority priority,
                                const char* name) {
  task_.emplace(*this, &TunnelRibBuilderSm::drainTunnelBacklog, scheduler, priority, name);
}

void TunnelRibBuilderSm::handleTunnelTableEntity(const std::string& name) {
  TableEntrySm::handleTunnelTableEntity(name);
  if (!undecided_.empty()) {
    retryTask_->scheduleTask();  // the new table may be readable
  }
  // BGP may have converged before its table was mounted; without the table nothing is announced.
  if (initialized_ && name == "bgpLu") {
    handleBgpLuConverged();
  }
}

void TunnelRibBuilderSm::handleTunnelTableEntry(const TunnelId& tunnelId, TunnelTableIdentifier, bool isDeletion) {
  FASTLOG_TRACE(8, "handleTunnelTableEntry"
                       << " tunnel ID " << tunnelId << ", isDeletion " << isDeletion << " for rib id " << ribId());
  tunnelForReviewIs(tunnelId, isDeletion);
  if (waitingToNotifyConverged_) {
    maybeUpdateTunnelRibConvergenceSeqno();
  }
}

void TunnelRibBuilderSm::handleUnprogrammableEntry(const TunnelId& tunnelId) {
  FASTLOG_TRACE(8, unprogrammableSignature << " tunnel ID " << tunnelId);
  handleTunnelTableEntry(tunnelId, TunnelTableIdentifier::none, false);
}

// The flag only reaches the trace, where its sense has always been the wrong way round. The tunnel may be about to
// reach an endpoint in any case.
void TunnelRibBuilderSm::handlePreference(const TunnelId& tunnelId) {
  FASTLOG_TRACE(8, preferenceSignature);
  tunnelForReviewIs(tunnelId);
  handleTunnelTableEntry(tunnelId, TunnelTableIdentifier::none, filter_->preferenceHas(tunnelId));
}

void TunnelRibBuilderSm::tunnelForReviewIs(const TunnelId& tunnelId, bool isDeletion) {
  if (backlog_.add(tunnelId, !isDeletion)) {
    scheduleTunnelReview();
  }
}

void TunnelRibBuilderSm::scheduleTunnelReview() {
  if (!task_ || task_->taskScheduled()) {
    return;
  }
  if (task_->taskWorkPending() != 0) {
    task_->scheduleTaskLowestDelay(tunnelReviewDelay_);  // the last run yielded: others come first
  } else {
    task_->scheduleTask();
  }
}

void TunnelRibBuilderSm::drainTunnelBacklog() {
  // A watcher of the RIB is notified of every write and may replace this builder. It stays until the drain is over, and
  // writes nothing more.
  const Zol::Ptr<TunnelRibBuilderSm> self(this);
  FASTLOG_TRACE(8, "drainTunnelBacklog"
                       << ": " << backlog_.ids().size() << " backlog entries for rib " << ribId());
  std::size_t reviewed = 0;
  bool yields = false;
  auto it = backlog_.ids().from(tunnelReviewBookmark_);
  while (reacts() && !yields && !isDrained()) {
    if (!vacated_.empty()) {
      reviewed += settleVacated() ? 1U : 0U;
    } else {
      if (!it) {
        it = backlog_.ids().begin();
      }
      reviewed += reviewWaiting(TunnelId(it.key())) ? 1U : 0U;
      ++it;
    }
    yields = (isSpaceReleased_ && writeUnwritten(*task_, true)) || task_->taskShouldYield();
  }
  if (!reacts()) {
    return;
  }
  if (yields) {
    FASTLOG_TRACE(6, "drainTunnelBacklog"
                         << ": Yielding");
    tunnelReviewBookmark_ = it ? it.key() : TunnelId();
  }
  const std::size_t remaining = backlog_.ids().size();
  FASTLOG_TRACE(6, "drainTunnelBacklog"
                       << ": Reviewed " << reviewed << " tunnels. " << remaining << " remain in the backlog for rib "
                       << ribId());
  task_->taskWorkCountInc(reviewed);
  task_->taskWorkPendingIs(remaining + vacated_.size());
  if (heldUp() != 0) {
    retryTask_->scheduleTaskLowestDelay(heldUpRetryDelay);
  }
  if (!isDrained()) {
    scheduleTunnelReview();
    return;
  }
  tunnelReviewBookmark_ = TunnelId();
  task_->unscheduleTask();
  if (waitingToNotifyConverged_) {
    maybeUpdateTunnelRibConvergenceSeqno();
  }
}

bool TunnelRibBuilderSm::reviewWaiting(const TunnelId& id) {
  if (!backlog_.erase(id)) {  // first: the review itself may file the tunnel again
    return false;
  }
  updateTunnelRibEntry(id);
  return true;
}

EncapsulatedTableEntry TunnelRibBuilderSm::freshEntry(const TunnelId& id) const {
  return EncapsulatedTableEntry::getEntry(id, *tunnelTableEntities());
}

bool TunnelRibBuilderSm::contributes(const EncapsulatedTableEntry& entry) const {
  return doesEntryContribute(supportPreferenceRemap_, tunnelTableEntryFilter().get(), entry);
}

bool TunnelRibBuilderSm::isUnprogrammable(const TunnelId& id) const {
  return unprogrammableTunnelId() && unprogrammableTunnelId()->has(id);
}

}  // namespace Tunnel::TunnelTable
