// TunnelFibSm: keeps the tunnel FIB in step with the twelve protocol tunnel tables.
//
//   table changes ──▶ handle...Entry(id) ──┐                        ┌──▶ TunnelFibWriter ──▶ TunnelFib
//   FIB changes ────▶ dependants of id ────┴▶ tunnelForReview ─task─┤                            │
//                              ▲                                    └──▶ unprogrammableTunnelIds │
//                              └──────────────────── handleTunnelFibEntry ◀──────────────────────┘
//
// A notification files an id and returns. The task reviews one tunnel at a time: reads its table entry, builds its vias
// (TunnelFibViaCalc), writes or withdraws its FIB entry. Every tunnel type takes the same road; what differs between
// tables is in the two lists of rows below.
//
// What one review may leave for later (deferred): the old entry stays until the next levels it waits for have been
// reviewed. When the backlog is empty and no tunnel is held up, nothing is deferred: the FIB follows from the tables
// alone.
//
// Source units: TunnelFibSm.cpp intake and start, TunnelFibUpdate.cpp the review of one tunnel, TunnelFibDeferral.cpp
// its deferral, TunnelFibBacklog.cpp the backlog and its drain, TunnelFibRetry.cpp the tunnels that are held up.
// Scheduler thread only.
#pragma once

#include <array>
#include <memory>
#include <string>

#include "runtime/Quor/OwnedTask.h"
#include "runtime/Zol/Reactor.h"
#include "tunnel/TunnelFibCalcResult.h"
#include "tunnel/TunnelIdColl.h"
#include "tunnel/TunnelTable.h"
#include "tunnel_table_sm/HeldUpTunnels.h"
#include "tunnel_table_sm/TunnelFibDependencies.h"
#include "tunnel_table_sm/TunnelFibFinding.h"
#include "tunnel_table_sm/TunnelFibWriter.h"

namespace Tunnel::TunnelTable {

// The tables, in the order of the factory's arguments: attribute, type, handler of its entries.
#define TUNNEL_FIB_TABLES(ROW)                                                            \
  ROW(bgpLuTable, BgpLuTunnelTable, handleBgpLuTunnelEntry)                               \
  ROW(ldpTable, LdpTunnelTable, handleLdpSrTunnelEntry)                                   \
  ROW(srTable, SrTunnelTable, handleLdpSrTunnelEntry)                                     \
  ROW(bgpLuPushTable, BgpLuPushTunnelTable, handleBgpLuPushTunnelEntry)                   \
  ROW(staticTable, StaticTunnelTable, handleStaticTunnelEntry)                            \
  ROW(srTeSegmentListTable, SrTeSegmentListTunnelTable, handleSrTeSegmentListTunnelEntry) \
  ROW(rsvpTable, RsvpTunnelTable, handleRsvpTunnelEntry)                                  \
  ROW(greIntfTable, GreIntfTunnelTable, handleGreIntfTunnelEntry)                         \
  ROW(ipsecVtiIntfTable, IpsecVtiIntfTunnelTable, handleIpsecVtiIntfTunnelEntry)          \
  ROW(ipsecGreIntfTable, IpsecGreIntfTunnelTable, handleIpsecGreIntfTunnelEntry)          \
  ROW(nexthopGroupTable, NexthopGroupTunnelTable, handleNexthopGroupTunnelEntry)          \
  ROW(tiLfaTable, TiLfaTunnelTable, handleTiLfaTunnelEntry)

// The handlers, in the order of the first pass: name, whether it traces each entry, the tables of its full pass.
#define TUNNEL_FIB_HANDLERS(ROW)                                      \
  ROW(handleBgpLuPushTunnelEntry, true, bgpLuPushTable())             \
  ROW(handleBgpLuTunnelEntry, true, bgpLuTable())                     \
  ROW(handleLdpSrTunnelEntry, true, ldpTable(), srTable())            \
  ROW(handleRsvpTunnelEntry, true, rsvpTable())                       \
  ROW(handleSrTeSegmentListTunnelEntry, true, srTeSegmentListTable()) \
  ROW(handleStaticTunnelEntry, true, staticTable())                   \
  ROW(handleGreIntfTunnelEntry, true, greIntfTable())                 \
  ROW(handleIpsecGreIntfTunnelEntry, false, ipsecGreIntfTable())      \
  ROW(handleIpsecVtiIntfTunnelEntry, false, ipsecVtiIntfTable())      \
  ROW(handleNexthopGroupTunnelEntry, false, nexthopGroupTable())      \
  ROW(handleTiLfaTunnelEntry, true, tiLfaTable())

class TunnelFibSm final : public Zol::Reactor {
 public:
#define TUNNEL_FIB_PARAMETER(attribute, Table, handler) Zol::PtrConst<Table> attribute,
  // Any table may be null. Raises InternalException when one of the others is.
  TunnelFibSm(Zol::Ptr<TunnelFib> tunnelFib, Zol::Ptr<TunnelIdColl> unprogrammableTunnelIds,
              TUNNEL_FIB_TABLES(TUNNEL_FIB_PARAMETER) Zol::Ptr<Quor::TaskScheduler> scheduler);
#undef TUNNEL_FIB_PARAMETER

  const Zol::Ptr<TunnelFib>& tunnelFib() const { return tunnelFib_; }
  const Zol::Ptr<TunnelIdColl>& unprogrammableTunnelIds() const { return unprogrammableTunnelIds_; }
  const Zol::Ptr<TunnelFibWriter>& tunnelFibWriter() const { return tunnelFibWriter_.ptr(); }
  bool initialized() const { return initialized_; }

#define TUNNEL_FIB_ATTRIBUTE(attribute, Table, handler)                             \
  const Zol::PtrConst<Table>& attribute() const { return attribute##_.notifier(); } \
  void attribute##Is(Zol::PtrConst<Table> table) {                                  \
    attribute##_.notifierIs(std::move(table));                                      \
    fileStanding(Table::tableTunnelType);                                           \
  }                                                                                 \
  void attribute##Del() { attribute##Is(nullptr); }
  TUNNEL_FIB_TABLES(TUNNEL_FIB_ATTRIBUTE)
#undef TUNNEL_FIB_ATTRIBUTE

  // File a changed entry for review; without a key, every entry of their tables.
#define TUNNEL_FIB_HANDLER(handler, isTraced, ...) \
  void handler(const TunnelId& tunnelId);          \
  void handler();
  TUNNEL_FIB_HANDLERS(TUNNEL_FIB_HANDLER)
#undef TUNNEL_FIB_HANDLER
  // Files the tunnels that resolve through a tunnel whose FIB entry changed.
  void handleTunnelFibEntry(const TunnelId& tunnelId);

  // Whether the tunnel's type, and for BGP-LU its entry, lets it into the FIB.
  bool tunnelContributesToTunnelFib(const TunnelId& tunnelId) const;
  // The head of the tunnel's table entry; empty when there is none. RSVP and TI-LFA tunnels have none here, so that
  // a tunnel through one of them is told that it is missing.
  TunnelTableEntry tunnelTableEntry(const TunnelId& tunnelId) const;
  bool tunnelTableEntryWasDeleted(const TunnelId& tunnelId) const;
  bool tunnelTableEntryUsable(const TunnelId& tunnelId) const;
  // Whether a tunnel without a FIB entry could have one, for all that its last review knew of it: its table has an
  // entry that contributes, and the tunnel is not known to be unprogrammable.
  bool isUnreviewed(const TunnelId& tunnelId) const;

  // ---- backlog ----
  bool tunnelForReview(const TunnelId& tunnelId) const { return tunnelForReview_.has(tunnelId); }
  std::size_t tunnelForReviews() const { return tunnelForReview_.size(); }
  // Tunnels that wait for space or for a table that can be read again. They are not in the backlog.
  std::size_t heldUp() const { return heldUp_.size(); }
  bool isHeldUp(const TunnelId& tunnelId) const { return !heldUp_.empty() && heldUp_.has(tunnelId); }
  void retryHeldUpTunnels();
  const Quor::TimerTask& retryTask() const { return *retryTask_; }
  void tunnelForReviewIs(const TunnelId& tunnelId, bool value);
  void tunnelForReviewDel(const TunnelId& tunnelId) { tunnelForReview_.erase(tunnelId); }
  void tunnelForReviewDelAll() { tunnelForReview_.clear(); }
  const TunnelId& tunnelReviewBookmark() const { return tunnelReviewBookmark_; }
  // Seconds between a slice that had to yield and the next.
  double tunnelReviewDelay() const { return tunnelReviewDelay_; }
  void tunnelReviewDelayIs(double seconds) { tunnelReviewDelay_ = seconds; }
  const Quor::TimerTask& task() const { return *task_; }
  void scheduleTunnelReview();
  void drainTunnelBacklog();
  void addDependentTunnelsForReview(const TunnelId& tunnelId);
  // Whether the tunnel's review is still to come, or comes again because it was deferred or is held up. A held-up
  // tunnel may wait for hours: ask isHeldUp() before another tunnel waits for it.
  bool isWaiting(const TunnelId& tunnelId) const {
    return tunnelForReview_.has(tunnelId) || deferred_.has(tunnelId) || isHeldUp(tunnelId);
  }
  std::size_t deferredTunnels() const { return deferred_.size(); }

  // ---- start-up ----
  void removeStaleEntries();
  // Whether the tunnel's FIB entry is as an earlier run left it.
  bool tunnelFibEntryMarkedUnprocessed(const TunnelId& tunnelId) const {
    const bool* const hasEntry = markedUnprocessed_.empty() ? nullptr : markedUnprocessed_.find(tunnelId);
    return hasEntry != nullptr && *hasEntry;
  }
  std::size_t tunnelFibEntryMarkedUnprocesseds() const { return markedUnprocessed_.size(); }
  void tunnelFibEntryMarkedUnprocessedIs(const TunnelId& tunnelId, bool value);
  void tunnelFibEntryMarkedUnprocessedDel(const TunnelId& tunnelId) { markedUnprocessed_.erase(tunnelId); }

  // ---- review of one tunnel ----
  void updateTunnelFibEntry(const TunnelId& tunnelId);
  // Writes or withdraws; whether an entry was written.
  bool doUpdateTunnelFibEntry(const ConsolidatedTunnelFibEntry& consFibEntry, bool tunnelTableEntryUsable);
  // What a review would find now, without doing anything: no change, no note for later. Next levels are those that the
  // last review recorded, so the finding on a tunnel that waits for review is preliminary. Costs what a review costs.
  TunnelFibFinding finding(const TunnelId& tunnelId) const;

  const TunnelFibDependencies& dependencies() const { return dependencies_; }
  TunnelFibDependencies::TunnelIds resolvedByTunnels(const TunnelId& id) const {
    return dependencies_.resolvedByTunnels(id);
  }
  TunnelFibDependencies::TunnelIds directlyDependentTunnels(const TunnelId& id) const {
    return dependencies_.directlyDependentTunnels(id);
  }
  TunnelFibDependencies::TunnelIds tunnelsDirectlyDependingOn(const TunnelId& id) const {
    return dependencies_.tunnelsDirectlyDependingOn(id);
  }

 private:
  void handleInitialized();
  void fileStanding(TunnelType type);
  template <class F>
  bool isInTable(const TunnelId& tunnelId, F&& isIt) const;
  template <class F>
  bool visitTableEntry(const TunnelId& tunnelId, F&& f) const;
  // Whether the tunnel's table is damaged such that it cannot tell whether it has the tunnel.
  bool isHidden(const TunnelId& tunnelId) const;
  void hold(const TunnelId& tunnelId);
  void holdForSpace(const TunnelId& tunnelId, const char* full);
  void heldUpIs(const TunnelId& tunnelId, HeldUpBy reason);
  void retryIfSpaceWasReleased();
  template <class F, class... Tables>
  void forEachTunnel(F&& file, const Zol::PtrConst<Tables>&... tables) const;

  template <class Entry, class OnVia>
  void calculateTunnelFibEntry(const Entry& entry, TunnelFibReview& review, TunnelFibCalcResult& result,
                               OnVia&& onVia) const;
  template <class Entry, class OnVia>
  void calculateTunnelFibEntryMplsVias(const Entry& entry, TunnelFibReview& review, TunnelFibCalcResult& result,
                                       OnVia&& onVia) const;
  template <class Entry>
  void doCollectNextLevels(const Entry& entry);
  void doUpdateDependencies(const TunnelId& tunnelId);
  void tunnelsForReviewFirst(const TunnelFibDependencies::TunnelIds& tunnelIds);
  bool reviewFirst();
  bool wasUnprogrammable(const TunnelId& tunnelId) const;
  void dropMark(const TunnelId& tunnelId);
  void keepsEntry(const TunnelId& tunnelId);
  bool doesDefer(const TunnelFibCalcResult& result);
  bool asksNextLevels(bool hasMoved);
  bool isAnyNextLevelWaiting(bool isOften) const;
  bool defersOverDeeperLevels();
  struct Descent {
    TunnelId tunnelId;
    TunnelFibDependencies::TunnelIds nextLevels;
    std::size_t next = 0;
  };
  bool leadsToWaiting(const TunnelId& start, std::vector<Descent>& path, Zol::HashCollection<TunnelId>& searched,
                      bool& isComplete) const;
  void clearCycle();
  bool losesVias() const;
  bool lacksLabels() const;
  std::size_t presentVias(const TunnelId& tunnelId) const;
  void fileDeferredDependants(const TunnelId& tunnelId, bool isSettled);
  void fileForOthers(const TunnelId& tunnelId);
  void fileDependant(const TunnelId& tunnelId);
  void drainSlice();
  void review(TunnelId tunnelId);
  void reviewNextLevels();

  const Zol::Ptr<TunnelFib> tunnelFib_;
  const Zol::Ptr<TunnelIdColl> unprogrammableTunnelIds_;
  const Zol::Ptr<Quor::TaskScheduler> scheduler_;
  Zol::Notifiee<TunnelFibSm, TunnelFib, TunnelId> watchedFib_;
#define TUNNEL_FIB_MEMBER(attribute, Table, handler) Zol::Notifiee<TunnelFibSm, Table, TunnelId> attribute##_;
  TUNNEL_FIB_TABLES(TUNNEL_FIB_MEMBER)
#undef TUNNEL_FIB_MEMBER
  Zol::Child<TunnelFibWriter> tunnelFibWriter_;

  double tunnelReviewDelay_ = 0.01;
  TunnelId tunnelReviewBookmark_;                        // where the slice that yielded stopped; zero: none
  Zol::HashCollection<TunnelId, bool> tunnelForReview_;  // true: its table entry may have changed since its last review
  std::vector<TunnelId> first_;  // of these, such as a drain reviews before the others, from the end on
  Zol::HashCollection<TunnelId, bool> markedUnprocessed_;  // true: has an entry; false: was unprogrammable
  // A tunnel that a review has left as it was.
  struct Deferral {
    bool isForReview = false;      // it waits for the review of a next level; false: next levels are held up
    bool hasMoved = false;         // its entry was made from other next levels than it has now
    bool hasAsked = false;         // it has filed next levels that no other tunnel had filed
    bool isCycleSearched = false;  // the review of another member of its cycle has met no queued tunnel
    std::uint32_t times = 0;
  };
  Zol::HashCollection<TunnelId, Deferral> deferred_;
  std::uint64_t filings_ = 0;  // counts what may make a tunnel wait, or lead to one that does
  // A cycle from which no waiting tunnel could be reached, and the count at that time.
  TunnelFibDependencies::Component quietCycle_ = TunnelFibDependencies::noComponent;
  std::uint64_t quietAt_ = 0;
  TunnelFibDependencies dependencies_;
  TunnelFibReview review_;  // kept between reviews for its memory
  // Reviews within reviews: those interrupted, innermost last, and how many the outermost may still hold.
  static constexpr std::size_t innerReviewsMax = 8;
  std::array<TunnelFibReview, innerReviewsMax> interrupted_;
  std::size_t depth_ = 0;
  std::size_t innerReviewsLeft_ = 0;
  std::size_t reviewed_ = 0;  // in the slice under way
  std::unique_ptr<Quor::OwnedTask<TunnelFibSm>> task_;
  HeldUpTunnels heldUp_;
  std::size_t bytesFreeAtRefusal_ = 0;  // in the FIB, when it had no space last
  std::unique_ptr<Quor::OwnedTask<TunnelFibSm>> retryTask_;
  bool initialized_ = false;
  bool draining_ = false;
};

// Creates the state machine of the tunnel FIB and switches it on.
inline constexpr Zol::Factory<TunnelFibSm> tunnelFibSmFactory;

}  // namespace Tunnel::TunnelTable
