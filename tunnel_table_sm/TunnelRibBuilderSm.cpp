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
constexpr double retryDelay = 1;  // seconds

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
  internalTunnelRib_ = Zol::make<InternalTunnelRib>();
  removeStaleEntries(tunnelRib_);
  verifyProtoTunnelRibColl();
  handleTunnelTableEntity();
  deadline_.timeMinIs(Quor::Clock::never);
  handleBgpLuConverged();
  initialized_ = true;
  if (!tunnelForReview_.empty() || heldUp() != 0) {
    scheduleTunnelReview();
  } else {
    tablesChanged_ = false;
  }
}

void TunnelRibBuilderSm::taskIs(const Zol::Ptr<Quor::TaskScheduler>& scheduler, Quor::TaskPriority priority,
                                const char* name) {
  task_.emplace(*this, &TunnelRibBuilderSm::drainTunnelBacklog, scheduler, priority, name);
}

void TunnelRibBuilderSm::handleTunnelTableEntity(const std::string& name) {
  tablesChanged_ = true;
  TableEntrySm::handleTunnelTableEntity(name);
  // BGP may have converged before its table was mounted.
  if (initialized_ && name == "bgpLu" && tunnelTableEntities()->bgpLuTable()) {
    handleBgpLuConverged();
  }
}

void TunnelRibBuilderSm::handleTunnelTableEntry(const TunnelId& tunnelId, TunnelTableIdentifier, bool isDeletion) {
  FASTLOG_TRACE(8, "handleTunnelTableEntry"
                       << " tunnel ID " << tunnelId << ", isDeletion " << isDeletion << " for rib id " << ribId());
  tunnelForReviewIs(tunnelId);
  if (waitingToNotifyConverged_) {
    maybeUpdateTunnelRibConvergenceSeqno();
  }
}

void TunnelRibBuilderSm::handleUnprogrammableEntry(const TunnelId& tunnelId) {
  FASTLOG_TRACE(8, unprogrammableSignature << " tunnel ID " << tunnelId);
  handleTunnelTableEntry(tunnelId, TunnelTableIdentifier::none, false);
}

// The flag only reaches the trace, where its sense has always been the wrong way round.
void TunnelRibBuilderSm::handlePreference(const TunnelId& tunnelId) {
  FASTLOG_TRACE(8, preferenceSignature);
  handleTunnelTableEntry(tunnelId, TunnelTableIdentifier::none, filter_->preferenceHas(tunnelId));
}

void TunnelRibBuilderSm::tunnelForReviewIs(const TunnelId& tunnelId) {
  if (tunnelForReview_.insert(tunnelId).second) {
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
  // Readers of the RIB are told of every write and may replace this very builder: it stays until the drain is over, and
  // from then on writes nothing more.
  const Zol::Ptr<TunnelRibBuilderSm> self(this);
  FASTLOG_TRACE(8, "drainTunnelBacklog"
                       << ": " << tunnelForReview_.size() << " backlog entries for rib " << ribId());
  std::size_t reviewed = 0;
  for (auto unreadable = unreadable_.begin(); unreadable; ++unreadable) {
    tunnelForReview_.insert(unreadable.key());
  }
  unreadable_.clear();
  bool yields = writeUnwritten();
  auto it = tunnelForReview_.from(tunnelReviewBookmark_);
  while (reacts() && !yields && !tunnelForReview_.empty()) {
    if (!it) {
      it = tunnelForReview_.begin();
    }
    const TunnelId id = it.key();
    tunnelForReviewDel(id);  // first: the review itself may file the tunnel again
    updateTunnelRibEntry(id);
    ++reviewed;
    ++it;
    yields = task_->taskShouldYield();
  }
  if (!yields) {
    sweepHeld();
  }
  if (!reacts()) {
    return;
  }
  if (yields) {
    FASTLOG_TRACE(6, "drainTunnelBacklog"
                         << ": Yielding");
    tunnelReviewBookmark_ = it ? it.key() : TunnelId();
  }
  const std::size_t remaining = tunnelForReview_.size();
  FASTLOG_TRACE(6, "drainTunnelBacklog"
                       << ": Reviewed " << reviewed << " tunnels. " << remaining << " remain in the backlog for rib "
                       << ribId());
  task_->taskWorkCountInc(reviewed);
  task_->taskWorkPendingIs(remaining + held_.size() + heldUp());
  if (remaining + held_.size() != 0 || (yields && heldUp() != 0)) {
    scheduleTunnelReview();
    return;
  }
  tablesChanged_ = false;
  tunnelReviewBookmark_ = TunnelId();
  if (heldUp() != 0) {
    task_->scheduleTaskLowestDelay(retryDelay);
    return;
  }
  task_->unscheduleTask();
  if (waitingToNotifyConverged_) {
    maybeUpdateTunnelRibConvergenceSeqno();
  }
}

std::size_t TunnelRibBuilderSm::heldUp() const {
  std::size_t all = unreadable_.size() + tunnelRib_.unwritten();
  for (const std::optional<StagedTunnelRib>& proto : protoTunnelRib_) {
    all += proto ? proto->unwritten() : 0;
  }
  return all;
}

bool TunnelRibBuilderSm::writeUnwritten() {
  bool yields = writeUnwritten(tunnelRib_);
  for (std::optional<StagedTunnelRib>& proto : protoTunnelRib_) {
    yields = yields || (proto && writeUnwritten(*proto));
  }
  return yields;
}

// One refusal is enough to know: the next try begins behind it.
bool TunnelRibBuilderSm::writeUnwritten(StagedTunnelRib& ribs) {
  while (reacts() && ribs.unwritten() != 0 && ribs.writeNext()) {
    if (task_->taskShouldYield()) {
      return true;
    }
  }
  return false;
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
