// TunnelRibBuilderSm: builds one tunnel RIB from the protocol tunnel tables.
//
//   any change ──▶ tunnelForReview ──task──▶ updateTunnelRibEntry(id)
//                   (a set of ids)             │ what do the tables say of the tunnel now?
//                                              ▼
//        tunnelIdToTep, internalTunnelRib   the candidates of each endpoint, in order of preference
//                                              ▼
//        per-protocol RIBs, tunnelRib       what readers see: the best source's tunnels of each endpoint
//
// A notification files an id and returns. The task drains the ids one by one and gives the processor back whenever the
// scheduler asks, keeping its place in a bookmark. A review decides from the tables as they are at that moment, works
// on copies of the RIB entries it touches, and writes what has changed when it is done.
//
// The RIBs outlive the builder. A new one first removes what no longer holds, takes the rest into its candidate store,
// and then reviews every tunnel; entries that are still right are never touched.
//
// While tables come and go, an entry that has lost its last tunnel stays as it is until the tunnels that wait for
// review have had their turn: one of them may take it over, and readers shall not miss the endpoint in between.
//
// An endpoint has at most 512 tunnels in a RIB entry. A tunnel that finds its entry full waits as a candidate; when one
// leaves, the waiting tunnel with the smallest id moves up.
//
// Entries that find no space in a RIB are kept, and tried again every second and whenever a review touches them. So are
// tunnels whose table is so damaged that nobody can tell whether it has them: until it can, nothing changes.
#pragma once

#include <array>
#include <memory>
#include <optional>

#include "runtime/Quor/ClockNotifiee.h"
#include "runtime/Quor/OwnedTask.h"
#include "tunnel/TunnelConvergence.h"
#include "tunnel_table_sm/CandidateStore.h"
#include "tunnel_table_sm/EncapsulatedTableEntry.h"
#include "tunnel_table_sm/ProtocolTunnelSm.h"
#include "tunnel_table_sm/SourceComparison.h"
#include "tunnel_table_sm/StagedTunnelRib.h"

namespace Tunnel::TunnelTable {

// Whether a tunnel is a candidate of a RIB, and if not the first reason found.
enum class RibAdmission { admitted, otherType, noTableEntry, noTep, notContributing, unprogrammable };

class TunnelRibBuilderSm final : public TableEntrySm {
 public:
  using TunnelForReview = Zol::HashCollection<TunnelId, bool>;

  // tunnelTableEntryFilter is needed only with supportPreferenceRemap; protoTunnelRibColl may be null (no per-protocol
  // RIBs); every other input must be there.
  TunnelRibBuilderSm(Zol::PtrConst<TunnelTableEntities> tunnelTableEntities,
                     Zol::PtrConst<TunnelIdColl> unprogrammableTunnelIds, bool supportPreferenceRemap,
                     Zol::PtrConst<TunnelTableEntryFilter> tunnelTableEntryFilter, Zol::Ptr<TunnelRib> tunnelRib,
                     Zol::PtrConst<BgpLuConvergence> bgpLuConvergence, Zol::Ptr<TunnelConvergence> tunnelConvergence,
                     Zol::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl, Zol::Ptr<Quor::TaskScheduler> scheduler,
                     Zol::PtrConst<Quor::Clock> clock);

  bool supportPreferenceRemap() const { return supportPreferenceRemap_; }
  const Zol::PtrConst<TunnelTableEntryFilter>& tunnelTableEntryFilter() const { return filter_.notifier(); }
  const Zol::Ptr<TunnelRib>& tunnelRib() const { return tunnelRib_.rib(); }
  const Zol::Ptr<ProtocolTunnelRibCollection>& protoTunnelRibColl() const { return protoTunnelRibColl_; }
  const Zol::Ptr<InternalTunnelRib>& internalTunnelRib() const { return internalTunnelRib_; }
  // The all-zero entry when the tunnel is not filed.
  TunnelIdToTepEntry tunnelIdToTep(const TunnelId& id) const;
  const TunnelForReview& tunnelForReview() const { return tunnelForReview_; }
  // Entries of all RIBs that found no space, and tunnels whose tables cannot be read.
  std::size_t heldUp() const;
  // Whether nothing waits for review but what is held up.
  bool isDrained() const { return tunnelForReview_.empty() && held_.empty(); }
  const TunnelId& tunnelReviewBookmark() const { return tunnelReviewBookmark_; }
  double tunnelReviewDelay() const { return tunnelReviewDelay_; }  // seconds
  const Quor::TimerTask* task() const { return task_ ? &*task_ : nullptr; }
  bool initialized() const { return initialized_; }
  bool waitingToNotifyConverged() const { return waitingToNotifyConverged_; }

  // The backlog (TunnelRibBuilderSm.cpp).
  void handleInitialized();
  void handleTunnelTableEntity(const std::string& name) override;
  using TableEntrySm::handleTunnelTableEntity;
  void handleTunnelTableEntry(const TunnelId& tunnelId, TunnelTableIdentifier tableId, bool isDeletion) override;
  void handleUnprogrammableEntry(const TunnelId& tunnelId) override;
  void handlePreference(const TunnelId& tunnelId);
  void tunnelForReviewIs(const TunnelId& tunnelId);
  void tunnelForReviewDel(const TunnelId& tunnelId) { tunnelForReview_.erase(tunnelId); }
  void scheduleTunnelReview();
  void drainTunnelBacklog();

  // One tunnel's review, and the choice of the best (TunnelRibSelection.cpp).
  void updateTunnelRibEntry(const TunnelId& tunnelId);
  RibAdmission admission(const EncapsulatedTableEntry& entry) const;
  TunnelEntryPref getPreference(const TunnelTableEntry& entry) const;

  // Steps of a review. add false: tep is where the tunnel is filed.
  void doUpdateLocalCollectionsAndTunnelRib(const EncapsulatedTableEntry& entry, const Ipkit::IpGenPrefix& tep,
                                            bool add);
  void doUpdateTunnelRibEntry(const EncapsulatedTableEntry& entry, const Ipkit::IpGenPrefix& tep, bool add);
  bool shouldReplaceTunnelRibEntries(TunnelEntryPref existingPref, TunnelEntryPref newPref, const TunnelId& existingId,
                                     const TunnelId& newId) const;
  void doAddTunnelId(const EncapsulatedTableEntry& entry, const Ipkit::IpGenPrefix& tep, TunnelEntryPref pref);
  // False when the entry did not hold the tunnel.
  bool doDeleteTunnelId(const TunnelId& id, const Ipkit::IpGenPrefix& tep);
  void doSelectBestAndUpdateTunnelRib(const Ipkit::IpGenPrefix& tep);
  // The per-protocol RIBs (TunnelRibReview.cpp). False: the endpoint had no entry there.
  bool doUpdateProtoTunnelRibColl(const Ipkit::IpGenPrefix& tep, const TunnelId& id, TunnelType type, bool add);
  // Raises InternalException when the type's RIB is missing.
  StagedTunnelRib& assertProtoTunnelRib(TunnelType type);

  // What an earlier run left (TunnelRibStale.cpp). type: of a per-protocol RIB.
  void removeStaleEntries(StagedTunnelRib& ribs, std::optional<TunnelType> type = std::nullopt);
  void verifyProtoTunnelRibColl();

  // Convergence (TunnelRibConvergence.cpp).
  double convergenceUpdateWaitTime() const { return convergenceUpdateWaitTime_; }
  // Moves the deadline of the wait; in the scheduler's time.
  void convergenceUpdateWaitTimeIs(double time);
  void handleBgpLuConverged();
  bool maybeUpdateTunnelRibConvergenceSeqno();
  void handleConvergenceUpdateWaitMax();
  void updateTunnelRibConvergenceSeqno();

 private:
  void taskIs(const Zol::Ptr<Quor::TaskScheduler>& scheduler, Quor::TaskPriority priority, const char* name);
  TunnelRibId ribId() const { return tunnelRib()->id(); }
  EncapsulatedTableEntry freshEntry(const TunnelId& id) const;
  bool contributes(const EncapsulatedTableEntry& entry) const;
  bool isUnprogrammable(const TunnelId& id) const;

  bool reacts() const { return hasNotificationActive() && !isZombie(); }

  TunnelRibEntry& ribEntryOf(const Ipkit::IpGenPrefix& tep);
  TunnelRibEntry& protoRibEntryOf(TunnelType type, const Ipkit::IpGenPrefix& tep);
  void doAddCandidate(const EncapsulatedTableEntry& entry, const Ipkit::IpGenPrefix& tep);
  void doRemoveCandidate(const EncapsulatedTableEntry& entry, const Ipkit::IpGenPrefix& tep);
  void doAddToTunnelRibEntry(const EncapsulatedTableEntry& entry, const Ipkit::IpGenPrefix& tep);
  void doRemoveFromTunnelRibEntry(const TunnelId& id, const Ipkit::IpGenPrefix& tep);
  void doAddPeers(const TunnelTableEntry& winner, const TunnelTableOrderedEntry& candidates);

  // The end of a review: what changed is completed and written.
  void doWriteReview(const EncapsulatedTableEntry& reviewed);
  void doMoveUpWaiting(StagedTunnelRib::Staged& staged, bool isProtocolRib);
  void doRefreshMetrics(StagedTunnelRib::Staged& staged, const EncapsulatedTableEntry& reviewed);
  void doHoldEmptied(StagedTunnelRib::Staged& staged);
  // Deletes the entries that nobody has taken over, as many as fit in the slice.
  void sweepHeld();
  // True: the slice is used up, and some may find space.
  bool writeUnwritten();
  bool writeUnwritten(StagedTunnelRib& ribs);

  bool isLiveAt(const EncapsulatedTableEntry& entry, const Ipkit::IpGenPrefix& tep) const;
  void keepHidden(const TunnelId& id, TunnelRibEntry& kept);
  TunnelRibEntry keptOf(const TunnelRibEntry& standing, std::optional<TunnelType> type);
  void refillEmptied(const Zol::HashCollection<Ipkit::IpGenPrefix, bool>& emptied);
  void fileCandidate(const TunnelTableEntry& head, TunnelEntryPref pref);

  const bool supportPreferenceRemap_;
  Zol::Notifiee<TunnelRibBuilderSm, TunnelTableEntryFilter, TunnelId> filter_;
  StagedTunnelRib tunnelRib_;
  Zol::Notifiee<TunnelRibBuilderSm, BgpLuConvergence> bgpLuConvergence_;
  const Zol::Ptr<TunnelConvergence> tunnelConvergence_;
  const Zol::Ptr<ProtocolTunnelRibCollection> protoTunnelRibColl_;
  const Zol::Ptr<Quor::TaskScheduler> scheduler_;
  const Zol::PtrConst<Quor::Clock> clock_;

  Zol::Ptr<InternalTunnelRib> internalTunnelRib_;
  Zol::HashCollection<TunnelId, TunnelIdToTepEntry> tunnelIdToTep_;
  std::array<std::optional<StagedTunnelRib>, 16> protoTunnelRib_;  // by tunnel type

  TunnelForReview tunnelForReview_;
  TunnelForReview unreadable_;     // whose tables cannot tell whether they have them
  TunnelId tunnelReviewBookmark_;  // where the next drain goes on; zero: at the start
  double tunnelReviewDelay_ = 0.01;
  bool tablesChanged_ = false;  // a table came or went, and not everything has been reviewed since
  Zol::HashCollection<Ipkit::IpGenPrefix, bool> held_;  // endpoints whose entries stand though they are empty by now
  // A builder that is replaced takes its pending run and its deadline with it.
  std::optional<Quor::OwnedTask<TunnelRibBuilderSm>> task_;
  bool initialized_ = false;

  bool waitingToNotifyConverged_ = false;
  double convergenceUpdateWaitTime_;  // when the wait ends
  Quor::OwnedClockNotifiee<TunnelRibBuilderSm> deadline_;
};

inline constexpr Zol::Factory<TunnelRibBuilderSm> tunnelRibBuilderSmFactory;

}  // namespace Tunnel::TunnelTable
