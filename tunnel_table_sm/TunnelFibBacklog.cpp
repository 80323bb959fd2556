// The backlog and its drain. Ids wait in a set that keeps the order of their hashes, the order of the tables too, so a
// drain walks the tables rather than jumping about in them.
//
//     [ . . a . b . c . . d . ]     a slice reviews from the bookmark on, wraps around at the end, and stops when
//             ▲ bookmark            the scheduler says so; the next one goes on where it stopped
//
// An id leaves the set before its review: what is filed while it is reviewed, itself included, is reviewed again.
//
// A tunnel whose entry finds no space in the FIB, or whose table cannot be read, leaves the backlog until its retry
// (TunnelFibRetry).
#include <algorithm>
#include <utility>

#include "runtime/Fastlog/TraceHelper.h"
#include "runtime/Memtab/Region.h"
#include "tunnel_table_sm/TunnelFibSm.h"

namespace Tunnel::TunnelTable {
namespace {

FASTLOG_DEFAULT_HANDLE("TunnelFibSm");

}  // namespace

void TunnelFibSm::tunnelForReviewIs(const TunnelId& tunnelId, bool value) {
  if (!value) {
    tunnelForReviewDel(tunnelId);
    return;
  }
  *tunnelForReview_.insert(tunnelId).first = true;
  ++filings_;
  scheduleTunnelReview();
}

// Because of another tunnel: its own table entry may be as its last review read it.
void TunnelFibSm::fileForOthers(const TunnelId& tunnelId) {
  filings_ += tunnelForReview_.insert(tunnelId, false).second ? 1U : 0U;
  scheduleTunnelReview();
}

// While a drain runs it decides at its end when to go on.
void TunnelFibSm::scheduleTunnelReview() {
  if (draining_ || task_->taskScheduled()) {
    return;
  }
  if (task_->taskWorkPending() != 0) {
    task_->scheduleTaskLowestDelay(tunnelReviewDelay_);
  } else {
    task_->scheduleTask();
  }
}

// Of a cycle opened or closed, all members are due at once. In the order that they come in, next levels first, each is
// reviewed once; in the order of the hashes, most are reviewed again when their next levels have changed. The others
// need not wait long: only the review of one of them can add to these.
void TunnelFibSm::tunnelsForReviewFirst(const TunnelFibDependencies::TunnelIds& tunnelIds) {
  for (const TunnelId& tunnelId : tunnelIds) {
    fileForOthers(tunnelId);
  }
  first_.insert(first_.end(), tunnelIds.rbegin(), tunnelIds.rend());
}

bool TunnelFibSm::reviewFirst() {
  while (!first_.empty()) {
    const TunnelId tunnelId = first_.back();
    first_.pop_back();
    if (tunnelForReview_.has(tunnelId)) {
      review(tunnelId);
      return true;
    }
  }
  return false;
}

// A dependant on a cycle with the tunnel does not use its entry.
void TunnelFibSm::addDependentTunnelsForReview(const TunnelId& tunnelId) {
  if (const DependentTunnels* const dependants = dependencies_.dependants(tunnelId)) {
    const auto component = dependencies_.component(tunnelId);
    const std::uint64_t filings = filings_;
    dependants->forEach([&](const TunnelId& dependant) {
      if (component != TunnelFibDependencies::noComponent && dependencies_.component(dependant) == component) {
        return;
      }
      FASTLOG_TRACE(8, "addDependentTunnelsForReview"
                           << " tunnelId: " << tunnelId << ", adding " << dependant << " for review");
      fileDependant(dependant);
    });
    if (component != TunnelFibDependencies::noComponent && component == quietCycle_) {
      filings_ = filings;  // the cycle does not lead to tunnels over it
    }
  }
}

// A tunnel whose review is interrupted by those of its next levels reads them afterwards: it needs no other review.
void TunnelFibSm::fileDependant(const TunnelId& tunnelId) {
  const auto interruptedEnd = interrupted_.begin() + static_cast<std::ptrdiff_t>(depth_);
  if (std::none_of(interrupted_.begin(), interruptedEnd,
                   [&](const TunnelFibReview& outer) { return outer.consFibEntry.tunnelId() == tunnelId; })) {
    fileForOthers(tunnelId);
  }
}

void TunnelFibSm::review(const TunnelId tunnelId) {
  ++reviewed_;
  tunnelForReviewDel(tunnelId);
  if (!heldUp_.empty()) {
    heldUp_.erase(tunnelId);
  }
  try {
    updateTunnelFibEntry(tunnelId);
  } catch (const Memtab::NoSpace& full) {
    holdForSpace(tunnelId, full.what());
  }
}

// The next levels of the tunnel under review that wait for their own have it first, and theirs before them: otherwise
// the tunnel would be deferred, and computed twice. A few for each turn in the backlog, whatever leads to whatever, so
// that slices and the stack stay short; without it everything comes right too. A new tunnel has not been recorded as
// their dependant yet, so what they write does not file it.
void TunnelFibSm::reviewNextLevels() {
  struct Interruption {
    explicit Interruption(TunnelFibSm& owner) : sm(owner) { std::swap(sm.review_, sm.interrupted_[sm.depth_++]); }
    ~Interruption() { std::swap(sm.review_, sm.interrupted_[--sm.depth_]); }
    TunnelFibSm& sm;
  };
  for (std::size_t i = 0; i < review_.nextLevels.size(); ++i) {
    const TunnelId next = review_.nextLevels[i];
    if (!tunnelForReview_.has(next)) {
      continue;
    }
    review_.metQueued = true;
    if (innerReviewsLeft_ == 0) {
      return;
    }
    --innerReviewsLeft_;
    const Interruption interruption(*this);
    review(next);
  }
}

void TunnelFibSm::drainSlice() {
  struct Draining {
    explicit Draining(bool& flag) : flag_(flag) { flag_ = true; }
    ~Draining() { flag_ = false; }
    bool& flag_;
  } draining(draining_);
  auto it = !tunnelReviewBookmark_ ? tunnelForReview_.begin() : tunnelForReview_.from(tunnelReviewBookmark_);
  tunnelReviewBookmark_ = TunnelId();
  while (it || !tunnelForReview_.empty()) {
    if (!it) {  // ids were filed behind the place, or the bookmark was behind them all
      it = tunnelForReview_.begin();
    }
    innerReviewsLeft_ = innerReviewsMax;
    if (reviewFirst()) {
      it = tunnelForReview_.from(it.key());  // which may have been the one
    } else {
      review(it.key());
      ++it;
    }
    if (task_->taskShouldYield()) {
      FASTLOG_TRACE(6, "drainTunnelBacklog"
                           << ": Yielding");
      tunnelReviewBookmark_ = it ? it.key() : TunnelId();
      return;
    }
  }
}

void TunnelFibSm::drainTunnelBacklog() {
  if (!initialized_) {
    return;
  }
  FASTLOG_TRACE(6, "void Tunnel::TunnelTable::TunnelFibSm::drainTunnelBacklog()"
                       << ": " << tunnelForReview_.size() << " backlog entries");
  reviewed_ = 0;
  drainSlice();
  const std::size_t remaining = tunnelForReview_.size();
  FASTLOG_TRACE(6, "drainTunnelBacklog"
                       << ": Reviewed " << reviewed_ << " tunnels. " << remaining << " remain in the backlog.");
  task_->taskWorkCountInc(reviewed_);
  task_->taskWorkPendingIs(remaining);
  retryIfSpaceWasReleased();
  if (remaining != 0) {
    scheduleTunnelReview();
    return;
  }
  tunnelReviewBookmark_ = TunnelId();
  ZOL_ASSERT_TEXT(markedUnprocessed_.empty(), "!tunnelFibEntryMarkedUnprocesseds()");
  task_->unscheduleTask();
}

}  // namespace Tunnel::TunnelTable
