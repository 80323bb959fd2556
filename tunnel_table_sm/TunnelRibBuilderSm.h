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
// An entry that loses its last tunnel is deleted at once, unless a tunnel that waits for review is about to reach the
// endpoint. Then readers keep the old entry, and the waiting tunnel is reviewed next.
//
// An endpoint has at most 512 tunnels in a RIB entry. A tunnel that finds its entry full waits as a candidate; when one
// leaves, the waiting tunnel with the smallest id moves up.
//
// Two things are held up, apart from the backlog. A task of their own retries them every second:
//   - Entries that find no space in a RIB. They are also retried when a write releases space.
//   - Tunnels whose table is damaged, so that they may be in it or not. They keep their endpoint, type and preference.
//     They can still become the best of their endpoint. They are also retried when a table is mounted or replaced.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <vector>

#include "runtime/Quor/ClockNotifiee.h"
#include "runtime/Quor/OwnedTask.h"
#include "tunnel/TunnelConvergence.h"
#include "tunnel_table_sm/CandidateStore.h"
#include "tunnel_table_sm/EncapsulatedTableEntry.h"
#include "tunnel_table_sm/ProtocolTunnelSm.h"
#include "tunnel_table_sm/RibReviewBacklog.h"
#include "tunnel_table_sm/SourceComparison.h"
#include "tunnel_table_sm/StagedTunnelRib.h"

namespace Tunnel::TunnelTable {

// Whether a tunnel is a candidate of a RIB, and if not the first reason found.
enum class RibAdmission { admitted, otherType, noTableEntry, noTep, notContributing, unprogrammable };

class TunnelRibBuilderSm final : public TableEntrySm {
 public:
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
  const RibReviewBacklog::Ids& tunnelForReview() const { return backlog_.ids(); }
  // Entries of all RIBs that found no space, and tunnels whose tables cannot be read.
  std::size_t heldUp() const;
  // Whether nothing waits for review but what is held up.
  bool isDrained() const { return backlog_.empty() && vacated_.empty(); }
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
  // isDeletion: the tunnel is not about to reach an endpoint.
  void tunnelForReviewIs(const TunnelId& tunnelId, bool isDeletion = false);
  void tunnelForReviewDel(const TunnelId& tunnelId) { backlog_.erase(tunnelId); }
  void scheduleTunnelReview();
  void drainTunnelBacklog();
  // Retries the entries and tunnels that are held up.
  void retryHeldUp();

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

  // Repair of damage (TunnelRibKeeper.cpp). type: of a per-protocol RIB.
  // Whether the entry names the best candidates of its endpoint; of a per-protocol RIB, all of its type.
  bool isAsFiled(const TunnelRibEntry& entry, std::optional<TunnelType> type) const;
  // Writes the endpoint's entry as it follows from the candidates.
  void doRewriteEndpoint(const Ipkit::IpGenPrefix& tep, std::optional<TunnelType> type);
  void rewriteEndpoint(const Ipkit::IpGenPrefix& tep, std::optional<TunnelType> type);
  // Does so for the endpoints with these hashes whose entries are something else. Returns those that cannot be read.
  std::vector<Ipkit::IpGenPrefix> reviewEndpoints(std::uint32_t firstHash, std::uint32_t lastHash,
                                                  std::optional<TunnelType> type);

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
  // Whether nothing can be decided on the tunnel now.
  bool isUndecided(const EncapsulatedTableEntry& entry) const;
  // Whether a filed tunnel keeps its place because it is undecided; then it is retried.
  bool keepsPlace(const EncapsulatedTableEntry& entry);

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
  // Keeps the entry for readers if it lost its last tunnel and another one is, or may be, about to come.
  void doHoldVacated(StagedTunnelRib::Staged& staged, std::optional<TunnelType> type);
  // Reviews a waiting tunnel; false when it does not wait.
  bool reviewWaiting(const TunnelId& id);
  // Continues with the endpoint that was vacated last: reviews the tunnel that is about to come, or deletes the entry.
  // Returns whether it has reviewed a tunnel.
  bool settleVacated();
  // The endpoint that a waiting tunnel is about to reach; the zero prefix if there is none.
  Ipkit::IpGenPrefix arrivalEndpoint(const TunnelId& id) const;
  void indexArrivals();
  // A waiting tunnel, of the type if there is one, that is about to reach the endpoint; the zero id if there is none.
  TunnelId arrivalAt(const Ipkit::IpGenPrefix& tep, std::optional<TunnelType> type);
  // Files the tunnels for review that can be decided again. Returns true when the slice is used up.
  bool fileDecided();
  // isSpaceReleased: only where a write has released space. Returns true when the slice is used up, and some may still
  // find space.
  bool writeUnwritten(Quor::TimerTask& task, bool isSpaceReleased);
  // f(rib, type) for the RIB, whose type is none, and the per-protocol RIBs.
  template <class F>
  void forEachRib(F&& f) {
    f(tunnelRib_, std::optional<TunnelType>());
    for (std::size_t type = 0; type < protoTunnelRib_.size(); ++type) {
      if (protoTunnelRib_[type]) {
        f(*protoTunnelRib_[type], std::optional(static_cast<TunnelType>(type)));
      }
    }
  }

  bool isLiveAt(const EncapsulatedTableEntry& entry, const Ipkit::IpGenPrefix& tep) const;
  bool isHidden(const TunnelId& id) const;
  // Returns false when it found a tunnel that stays hidden, which must be kept first: it decides the preference.
  bool keepLive(const TunnelRibEntry& stored, std::optional<TunnelType> type, TunnelRibEntry& kept);
  void keepHidden(const TunnelRibEntry& stored, std::optional<TunnelType> type, TunnelRibEntry& kept);
  bool staysHidden(const TunnelId& id) const;
  TunnelRibEntry keptOf(const TunnelRibEntry& stored, std::optional<TunnelType> type);
  using Endpoints = Zol::HashCollection<Ipkit::IpGenPrefix, bool>;
  void refillEmptied(StagedTunnelRib& ribs, std::optional<TunnelType> type, const Endpoints& emptied);
  void refillProtocolEntry(TunnelRibEntry& ribEntry, TunnelType type, const Ipkit::IpGenPrefix& tep) const;
  void fileCandidate(const TunnelTableEntry& head, TunnelEntryPref pref);

  static constexpr double heldUpRetryDelay = 1;  // seconds
  static constexpr int tunnelTypes = 16;

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
  std::array<std::optional<StagedTunnelRib>, tunnelTypes> protoTunnelRib_;  // by tunnel type

  RibReviewBacklog backlog_;
  TunnelId tunnelReviewBookmark_;  // where the next drain continues; zero: at the start
  double tunnelReviewDelay_ = 0.01;
  std::vector<Ipkit::IpGenPrefix> vacated_;        // endpoints with held entries, the next one last
  Zol::HashCollection<TunnelId, bool> undecided_;  // tunnels that may be in their unreadable tables
  TunnelId undecidedBookmark_;                     // where the next retry continues; zero: at the start
  bool isSpaceReleased_ = false;                   // by a write of a RIB with unwritten entries
  // A builder that is replaced takes its pending runs and its deadline with it.
  std::optional<Quor::OwnedTask<TunnelRibBuilderSm>> task_;
  std::optional<Quor::OwnedTask<TunnelRibBuilderSm>> retryTask_;
  bool initialized_ = false;

  bool waitingToNotifyConverged_ = false;
  double convergenceUpdateWaitTime_;  // when the wait ends
  Quor::OwnedClockNotifiee<TunnelRibBuilderSm> deadline_;
};

inline constexpr Zol::Factory<TunnelRibBuilderSm> tunnelRibBuilderSmFactory;

}  // namespace Tunnel::TunnelTable
