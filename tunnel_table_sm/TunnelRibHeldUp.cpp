// The part of a RIB builder that waits apart from its backlog: entries of endpoints that have lost their last tunnel
// while another one is about to come, entries without space, and tunnels in tables that cannot be read.

#include "runtime/Fastlog/TraceHelper.h"
#include "tunnel_table_sm/TunnelRibBuilderSm.h"

FASTLOG_DEFAULT_HANDLE("TunnelRibBuilderSm")

namespace Tunnel::TunnelTable {

// ---- vacated endpoints ----

void TunnelRibBuilderSm::doHoldVacated(StagedTunnelRib::Staged& staged, std::optional<TunnelType> type) {
  if (!staged.isDeletion() || staged.isDamaged || !backlog_.hasArrivals()) {
    return;
  }
  indexArrivals();
  if (!backlog_.isIndexed() || !!arrivalAt(staged.tep, type)) {
    staged.isHeld = true;
    vacated_.push_back(staged.tep);
  }
}

bool TunnelRibBuilderSm::settleVacated() {
  if (!backlog_.isIndexed()) {
    indexArrivals();
    return false;
  }
  const Ipkit::IpGenPrefix tep = vacated_.back();
  TunnelId next;
  forEachRib([&](StagedTunnelRib& ribs, std::optional<TunnelType> type) {
    if (!ribs.holds(tep) || !reacts()) {
      return;
    }
    if (const TunnelId arrival = arrivalAt(tep, type); !!arrival) {
      next = arrival;
    } else {
      ribs.release(tep);
      isSpaceReleased_ = isSpaceReleased_ || ribs.isSpaceReleased();
    }
  });
  if (!next) {
    std::erase(vacated_, tep);
    return false;
  }
  return reacts() && reviewWaiting(next);
}

Ipkit::IpGenPrefix TunnelRibBuilderSm::arrivalEndpoint(const TunnelId& id) const {
  if (!contributeToTunnelRib(id.tunnelType())) {
    return {};
  }
  const EncapsulatedTableEntry entry = freshEntry(id);
  return admission(entry) == RibAdmission::admitted ? entry.entry().tep() : Ipkit::IpGenPrefix();
}

void TunnelRibBuilderSm::indexArrivals() {
  backlog_.index([this](const TunnelId& id) { return arrivalEndpoint(id); });
}

TunnelId TunnelRibBuilderSm::arrivalAt(const Ipkit::IpGenPrefix& tep, std::optional<TunnelType> type) {
  const auto ofType = [this, &tep](TunnelType each) {
    return backlog_.arrivalAt(tep, each, [this](const TunnelId& id) { return arrivalEndpoint(id); });
  };
  if (type) {
    return ofType(*type);
  }
  TunnelId arrival;
  for (int each = 0; !arrival && each < tunnelTypes; ++each) {
    arrival = ofType(static_cast<TunnelType>(each));
  }
  return arrival;
}

// ---- held-up entries and tunnels ----

std::size_t TunnelRibBuilderSm::heldUp() const {
  std::size_t all = undecided_.size() + tunnelRib_.unwritten();
  for (const std::optional<StagedTunnelRib>& proto : protoTunnelRib_) {
    all += proto ? proto->unwritten() : 0;
  }
  return all;
}

bool TunnelRibBuilderSm::isHidden(const TunnelId& id) const {
  return EncapsulatedTableEntry::isHidden(id, *tunnelTableEntities());
}

// Where preferences are remapped, every tunnel of a readable table has one. The mapper is notified of a repaired table
// after the builder has found it readable, perhaps: until then the tunnel has none.
bool TunnelRibBuilderSm::isUndecided(const EncapsulatedTableEntry& entry) const {
  const TunnelId& id = entry.tunnelId();
  if (isUnprogrammable(id)) {
    return false;
  }
  return entry.hasEntry() ? supportPreferenceRemap_ && !filter_->preferenceHas(id) && tunnelIdToTep_.has(id)
                          : isHidden(id);
}

bool TunnelRibBuilderSm::keepsPlace(const EncapsulatedTableEntry& entry) {
  if (!isUndecided(entry)) {
    return false;
  }
  FASTLOG_TRACE(7, entry.tunnelId() << " cannot be read and keeps its place");
  undecided_.insert(entry.tunnelId());
  return true;
}

void TunnelRibBuilderSm::retryHeldUp() {
  const Zol::Ptr<TunnelRibBuilderSm> self(this);  // as in a drain
  const bool yields = fileDecided() || writeUnwritten(*retryTask_, false);
  if (!reacts()) {
    return;
  }
  if (heldUp() != 0) {
    retryTask_->scheduleTaskLowestDelay(yields ? tunnelReviewDelay_ : heldUpRetryDelay);
  } else if (waitingToNotifyConverged_) {
    maybeUpdateTunnelRibConvergenceSeqno();
  }
}

bool TunnelRibBuilderSm::fileDecided() {
  auto it = undecided_.from(undecidedBookmark_);
  for (bool yields = false; it && !yields; ++it) {
    const TunnelId id = it.key();
    if (!isHidden(id) && !isUndecided(freshEntry(id))) {
      undecided_.erase(id);
      tunnelForReviewIs(id);
    }
    yields = retryTask_->taskShouldYield();
  }
  undecidedBookmark_ = it ? it.key() : TunnelId();
  return !!it;
}

bool TunnelRibBuilderSm::writeUnwritten(Quor::TimerTask& task, bool isSpaceReleased) {
  bool yields = false;
  isSpaceReleased_ = false;
  forEachRib([&](StagedTunnelRib& ribs, std::optional<TunnelType>) {
    if (reacts() && !yields && (isSpaceReleased ? ribs.isSpaceReleased() : ribs.unwritten() != 0)) {
      yields = !ribs.writeUnwritten([&] { return !reacts() || task.taskShouldYield(); });
    }
  });
  return yields;
}

}  // namespace Tunnel::TunnelTable
