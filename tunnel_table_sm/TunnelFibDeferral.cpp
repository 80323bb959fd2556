// Deferral: a review of T leaves T's entry as it is, because something that T resolves through is not settled yet. An
// entry that forwards is never withdrawn or narrowed for that reason. T is deferred while
//
//   (1) a next level outside T's own cycle waits: it is queued for review, or deferred by (1) to (3) itself;
//   (2) a next level could have vias, but none can be read and it is not known to be unprogrammable: its table's
//       notification is on its way, or its records are damaged. T files it for review, once. So it does when it would
//       lose a via because it has changed to a tunnel that was unprogrammable when that was reviewed;
//   (3) T would lose a via, and a tunnel that T leads to at any depth waits: it may bring the via back. Members of T's
//       own cycle count here while they are queued for a change of their own: it may open the cycle. At a start, until
//       all marks are gone, the same holds for any change: a queued tunnel may close a cycle;
//   (4) T would have no vias or fewer than now, because it has changed to a next level that is held up and has no
//   entry,
//       or because labels of a next level that is held up cannot be read.
//
// Whatever flag the absence of a next level would give, its type does not matter: (1) comes first.
//
// A next level that is held up, for want of space or because its table cannot be read, is not waited for: that may last
// for hours. T uses the entry that such a next level has. Without an entry it offers nothing, like an unprogrammable
// one: a new tunnel is written with the vias of its other next levels, and a tunnel that had vias from those loses them
// as they go. Only (4) protects the entry that T had from other next levels, until T has as many vias as before.
//
// Deferral ends, because each deferred tunnel is filed again as soon as one of its next levels has been reviewed and is
// not deferred by (1) to (3). For this, (3) also defers the tunnels between T and the waiting one. Assume that the
// backlog is empty and some tunnels are deferred by (1) to (3). Each has a next level that is deferred too. Outside
// cycles, next levels lead downwards, so some of them are on one cycle. Take the member that was reviewed last. It was
// deferred by (3), over a member that was queued then. That member has been reviewed since, so it is not deferred any
// more, and its review has brought the tunnels back that lead to it: a contradiction. A change of next levels
// files the tunnels with a via whose verdict about cycles it turns.
//
// Next levels that change faster than the backlog is drained must not freeze T. T is filed again when a next level is
// settled. After more deferrals than T has next levels, some have been settled twice: then T uses their entries.
#include <algorithm>

#include "tunnel_table_sm/TunnelFibSm.h"

namespace Tunnel::TunnelTable {
namespace {

constexpr std::size_t searchedBelowMax = 64;  // tunnels outside the cycle: bounds the time of a review
// Beyond one for each next level, since reviews of T for other reasons count too.
constexpr std::uint32_t deferralsSpare = 16;

}  // namespace

bool TunnelFibSm::doesDefer(const TunnelFibCalcResult& result) {
  if (review_.nextLevels.empty()) {
    return false;
  }
  const TunnelId tunnelId = review_.consFibEntry.tunnelId();
  const Deferral* const before = deferred_.empty() ? nullptr : deferred_.find(tunnelId);
  Deferral deferral = before == nullptr ? Deferral() : *before;
  deferral.hasMoved |= review_.hasMoved;
  deferral.isForReview = true;
  const bool isOften = ++deferral.times > review_.nextLevels.size() + deferralsSpare;
  if (!deferral.hasAsked && asksNextLevels(deferral.hasMoved)) {
    deferral.hasAsked = true;
  } else if (!isAnyNextLevelWaiting(isOften) && (isOften || deferral.isCycleSearched || !defersOverDeeperLevels())) {
    const std::size_t vias = review_.consFibEntry.viaInfos();
    const bool lacksVias = result.viaResult().recTunNotReady() && deferral.hasMoved;
    if ((!lacksVias && !lacksLabels()) || (vias > 0 && vias >= presentVias(tunnelId))) {
      return false;
    }
    deferral.isForReview = false;
  }
  deferred_.insertOrAssign(tunnelId, deferral);
  ++filings_;
  return true;
}

// Files next levels whose review nothing else has asked for. True if the tunnel waits for them. A next level that is
// held up, or deferred by (4), is not waited for.
bool TunnelFibSm::asksNextLevels(bool hasMoved) {
  const auto ask = [this](const std::vector<TunnelId>& nextLevels) {
    bool isAsked = false;
    for (const TunnelId& next : nextLevels) {
      const Deferral* const deferral = deferred_.empty() ? nullptr : deferred_.find(next);
      const bool isForReview = tunnelForReview_.has(next) || deferral == nullptr || deferral->isForReview;
      if (isHeldUp(next) || !isForReview) {
        continue;
      }
      isAsked = true;
      if (!isWaiting(next)) {
        tunnelForReviewIs(next, true);
      }
    }
    return isAsked;
  };
  return ask(review_.unreviewed) ||
         (hasMoved && !review_.unprogrammable.empty() && losesVias() && ask(review_.unprogrammable));
}

// isOften: next levels that are queued, but were settled since the tunnel was deferred first, do not count.
bool TunnelFibSm::isAnyNextLevelWaiting(bool isOften) const {
  if (!review_.metQueued && deferred_.empty()) {
    return false;
  }
  return std::any_of(review_.nextLevels.begin(), review_.nextLevels.end(), [&](const TunnelId& next) {
    if (review_.isCyclic(dependencies_, next)) {
      return false;
    }
    const Deferral* const deferral = deferred_.empty() ? nullptr : deferred_.find(next);
    if (deferral != nullptr && deferral->isForReview) {
      return true;
    }
    return review_.metQueued && tunnelForReview_.has(next) &&
           !(isOften && deferral == nullptr && !markedUnprocessed_.has(next));
  });
}

bool TunnelFibSm::defersOverDeeperLevels() {
  if (tunnelForReview_.empty()) {
    return false;  // a deferred tunnel leads to a queued one
  }
  const TunnelFibDependencies::Component cycle = review_.component;
  if (cycle != TunnelFibDependencies::noComponent && cycle == quietCycle_ && filings_ == quietAt_) {
    return false;  // all members lead to the same tunnels
  }
  bool isComplete = true;
  std::vector<Descent> path;
  Zol::HashCollection<TunnelId> searched;
  const bool isFound = std::any_of(review_.nextLevels.begin(), review_.nextLevels.end(), [&](const TunnelId& next) {
    return dependencies_.hasNextLevels(next) && leadsToWaiting(next, path, searched, isComplete);
  });
  if (!isFound) {
    clearCycle();
    if (isComplete) {
      quietCycle_ = cycle;
      quietAt_ = filings_;
    }
    return false;
  }
  if (markedUnprocessed_.empty() && !losesVias()) {
    return false;
  }
  for (const Descent& between : path) {
    deferred_[between.tunnelId].isForReview = true;
  }
  return true;
}

// Spares the other members of the reviewed tunnel's cycle the search that has met no waiting tunnel.
void TunnelFibSm::clearCycle() {
  if (deferred_.empty() || review_.component == TunnelFibDependencies::noComponent) {
    return;
  }
  for (const TunnelId& member : dependencies_.cycleOf(review_.consFibEntry.tunnelId())) {
    if (Deferral* const deferral = deferred_.find(member)) {
      deferral->isCycleSearched = true;
    }
  }
}

// Searches all of the reviewed tunnel's cycle, and a few tunnels below it. path: those from start to the waiting one,
// without that one.
bool TunnelFibSm::leadsToWaiting(const TunnelId& start, std::vector<Descent>& path,
                                 Zol::HashCollection<TunnelId>& searched, bool& isComplete) const {
  const auto isFirstVisit = [&](const TunnelId& tunnelId) {
    return tunnelId != review_.consFibEntry.tunnelId() && searched.insert(tunnelId).second;
  };
  std::size_t belowLeft = searchedBelowMax;
  const auto visit = [&](const TunnelId& tunnelId) {
    const bool isCyclic = review_.isCyclic(dependencies_, tunnelId);
    const Deferral* const deferral = isCyclic || deferred_.empty() ? nullptr : deferred_.find(tunnelId);
    const bool* const hasChanged = tunnelForReview_.find(tunnelId);
    if ((deferral != nullptr && deferral->isForReview) || (hasChanged != nullptr && (*hasChanged || !isCyclic))) {
      return true;
    }
    if (isCyclic || belowLeft > 0) {
      belowLeft -= isCyclic ? 0 : 1;
      path.push_back({tunnelId, dependencies_.tunnelsDirectlyDependingOn(tunnelId)});
    } else {
      isComplete = false;
    }
    return false;
  };
  if (isFirstVisit(start) && visit(start)) {
    return true;
  }
  while (!path.empty()) {
    Descent& lowest = path.back();
    if (lowest.next == lowest.nextLevels.size()) {
      path.pop_back();
    } else if (const TunnelId next = lowest.nextLevels[lowest.next++]; isFirstVisit(next) && visit(next)) {
      return true;
    }
  }
  return false;
}

// Whether the computed entry lacks a via of the present one.
bool TunnelFibSm::losesVias() const {
  const ConsolidatedTunnelFibEntry& computed = review_.consFibEntry;
  TunnelFibEntry present;
  if (!readSafely(&tunnelFib_->entry(), computed.tunnelId(), present)) {
    return false;
  }
  const auto consolidated = ConsolidatedTunnelFibEntry::fromTunnelFibEntry(present, *tunnelFib_);
  return fibEntryObstacles(computed).any() ||
         !std::includes(computed.viaInfo().begin(), computed.viaInfo().end(), consolidated.viaInfo().begin(),
                        consolidated.viaInfo().end());
}

// Whether labels of a held-up next level cannot be read: its review, which would write them again, is still to come.
bool TunnelFibSm::lacksLabels() const {
  return std::any_of(review_.unreviewed.begin(), review_.unreviewed.end(),
                     [this](const TunnelId& next) { return isHeldUp(next); });
}

std::size_t TunnelFibSm::presentVias(const TunnelId& tunnelId) const {
  TunnelFibEntry present;
  return readSafely(&tunnelFib_->entry(), tunnelId, present) ? present.tunnelVias() : 0;
}

// Files the deferred tunnels that have a via through this one. Whichever is the smaller set is walked.
// isSettled: false if the tunnel is held up; those that do not wait for its review stay deferred then.
void TunnelFibSm::fileDeferredDependants(const TunnelId& tunnelId, bool isSettled) {
  const DependentTunnels* const dependants = deferred_.empty() ? nullptr : dependencies_.dependants(tunnelId);
  if (dependants == nullptr) {
    return;
  }
  if (dependants->size() > deferred_.size()) {
    for (const auto& [waiting, deferral] : deferred_) {
      if ((isSettled || deferral.isForReview) && dependants->has(waiting)) {
        fileDependant(waiting);
      }
    }
    return;
  }
  dependants->forEach([&](const TunnelId& dependant) {
    const Deferral* const deferral = deferred_.find(dependant);
    if (deferral != nullptr && (isSettled || deferral->isForReview)) {
      fileDependant(dependant);
    }
  });
}

}  // namespace Tunnel::TunnelTable
