// StagedTunnelRib: the entries of one RIB table that a review touches. Each is read once and changed in memory as often
// as the review's steps require. It is written back at the end, at most once, and only if it has become another entry.
// The same ids in another order with the same preference and metrics are the same entry. So a tunnel that is removed
// and filed again leaves no trace in the table, and readers never see the steps between.
//
// A damaged entry is not the same as an absent one: the reviewer refills it from its candidates, and it is written or
// deleted in any case.
//
// Some entries are kept in memory instead of being written. A review that touches such an endpoint continues from
// there.
//   unwritten   The table has no space for the entry. The builder tries again. Entries that the table has already go
//               before new ones.
//   held        The entry lost its last tunnel, but another tunnel is about to come. Readers still see the old entry.
#pragma once

#include <array>
#include <optional>
#include <utility>
#include <vector>

#include "runtime/Zol/HashCollection.h"
#include "tunnel/TunnelRib.h"

namespace Tunnel::TunnelTable {

class StagedTunnelRib {
 public:
  struct Staged {
    Ipkit::IpGenPrefix tep;
    TunnelRibEntry stored;               // as the table has it; empty when it is absent or damaged
    std::optional<TunnelRibEntry> kept;  // as the last review left it, if that was not written
    TunnelRibEntry now;                  // as it must become; without ids: deleted
    bool isDamaged = false;
    bool isHeld = false;

    // As this review found it.
    const TunnelRibEntry& before() const { return kept ? *kept : stored; }
    bool isInTable() const { return isDamaged || stored.tunnelIds() != 0; }
    bool isDeletion() const { return now.tunnelIds() == 0 && isInTable(); }
  };

  explicit StagedTunnelRib(Zol::Ptr<TunnelRib> rib) : rib_(std::move(rib)) {}

  const Zol::Ptr<TunnelRib>& rib() const { return rib_; }
  // The entry of the endpoint, to read and to change. Valid until the next call for another endpoint. refill is called
  // when the entry is damaged, after it has been staged as empty.
  template <class Refill>
  TunnelRibEntry& entry(const Ipkit::IpGenPrefix& tep, Refill&& refill) {
    if (find(tep) == nullptr && !stage(tep)) {
      refill();
    }
    return find(tep)->now;
  }
  // The entries that were touched since the last write; a review touches one endpoint or two.
  std::vector<Staged>& touched() { return touched_; }
  void write();

  bool holds(const Ipkit::IpGenPrefix& tep) const { return held_.has(tep); }
  // Deletes a held entry.
  void release(const Ipkit::IpGenPrefix& tep) {
    stage(tep);
    write();
  }

  // How many entries found no space.
  std::size_t unwritten() const { return unwritten_[0].size() + unwritten_[1].size(); }
  // Tries them again in turn, replacements and deletions before new entries, each kind until one finds no space.
  // Returns false if isInterrupted() has ended it earlier.
  template <class F>
  bool writeUnwritten(F&& isInterrupted) {
    isSpaceReleased_ = false;
    for (Unwritten& kind : unwritten_) {
      while (!kind.empty() && writeNext(kind)) {
        if (isInterrupted()) {
          return false;
        }
      }
    }
    return true;
  }
  // Whether a write has released space while entries wait for some.
  bool isSpaceReleased() const { return isSpaceReleased_ && unwritten() != 0; }

 private:
  struct Unwritten : Zol::HashCollection<Ipkit::IpGenPrefix, Staged> {
    Ipkit::IpGenPrefix next;  // where writeNext() continues
  };

  Staged* find(const Ipkit::IpGenPrefix& tep);
  // Returns false when the entry cannot be read.
  bool stage(const Ipkit::IpGenPrefix& tep);
  bool stageKept(const Ipkit::IpGenPrefix& tep, Zol::HashCollection<Ipkit::IpGenPrefix, Staged>& all);
  Unwritten& unwrittenLike(const Staged& staged) { return unwritten_[staged.isInTable() ? 0 : 1]; }
  // Returns false, and keeps the entry, when there is no space.
  bool write(Staged& staged);
  bool writeNext(Unwritten& kind);

  Zol::Ptr<TunnelRib> rib_;
  std::vector<Staged> touched_;
  std::array<Unwritten, 2> unwritten_;  // replacements and deletions; new entries
  Zol::HashCollection<Ipkit::IpGenPrefix, Staged> held_;
  bool isSpaceReleased_ = false;
};

}  // namespace Tunnel::TunnelTable
