// Retries of the tunnels whose review could not be completed. They are not in the backlog, so none of them delays the
// review of another tunnel. A task of its own retries them every second, and at once when a change has released space
// in the FIB. A table that can be read again, or is replaced, notifies its tunnels: that files them for review.
#include "runtime/Fastlog/RingMessage.h"
#include "runtime/Fastlog/TraceHelper.h"
#include "tunnel_table_sm/TunnelFibSm.h"

namespace Tunnel::TunnelTable {
namespace {

FASTLOG_DEFAULT_HANDLE("TunnelFibSm");

constexpr double retryDelay = 1;  // seconds

}  // namespace

void TunnelFibSm::hold(const TunnelId& tunnelId) {
  FASTLOG_TRACE(3, "updateTunnelFibEntry: The table of tunnelId: " << tunnelId << " cannot be read, its entry stays");
  heldUpIs(tunnelId, HeldUpBy::table);
}

void TunnelFibSm::holdForSpace(const TunnelId& tunnelId, const char* full) {
  FASTLOG_TRACE(3, "drainTunnelBacklog"
                       << ": No space for tunnelId: " << tunnelId << ": " << full);
  if (!heldUp_.waitsForSpace()) {
    static Fastlog::RingMessage message("TunnelFibSm", __LINE__, "No space for tunnelId: %i: %s");
    message.write(tunnelId.value(), full);
  }
  bytesFreeAtRefusal_ = tunnelFib_->entry().bytesFree();
  heldUpIs(tunnelId, hasSafely(tunnelFib_->entry(), tunnelId) ? HeldUpBy::replacement : HeldUpBy::insertion);
}

void TunnelFibSm::heldUpIs(const TunnelId& tunnelId, HeldUpBy reason) {
  deferred_.erase(tunnelId);  // tunnels over this one do not wait for it
  heldUp_.add(tunnelId, reason);
  retryTask_->scheduleTaskLowestDelay(retryDelay);
  keepsEntry(tunnelId);
}

void TunnelFibSm::retryIfSpaceWasReleased() {
  if (heldUp_.waitsForSpace() && tunnelFib_->entry().bytesFree() > bytesFreeAtRefusal_) {
    retryTask_->scheduleTask();
  }
}

void TunnelFibSm::retryHeldUpTunnels() {
  if (heldUp_.isRoundOver()) {
    heldUp_.beginRound();
  }
  reviewed_ = 0;
  bool isYielding = false;
  while (!isYielding && !heldUp_.isRoundOver()) {
    const TunnelId tunnelId = heldUp_.next();
    innerReviewsLeft_ = innerReviewsMax;
    review(tunnelId);
    if (!heldUp_.has(tunnelId)) {
      heldUp_.accepted();
    }
    isYielding = retryTask_->taskShouldYield();
  }
  retryTask_->taskWorkCountInc(reviewed_);
  retryTask_->taskWorkPendingIs(heldUp_.size());
  if (!heldUp_.empty()) {
    retryTask_->scheduleTaskLowestDelay(isYielding && !heldUp_.isRoundOver() ? tunnelReviewDelay_ : retryDelay);
  }
}

}  // namespace Tunnel::TunnelTable
