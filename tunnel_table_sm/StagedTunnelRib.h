// StagedTunnelRib: the entries of one RIB table that a review touches. Each is read once, changed in memory as often as
// the review's steps say, and written back at the end, once at most and only if it has become another: same ids in
// another order, preference and metrics is the same entry. So a tunnel that is taken out and filed again leaves no
// trace in the table, and readers never see the steps between.
//
// An entry that cannot be read is damaged, which is not the same as absent: whoever stages it fills it anew from what
// it knows, and it is written or deleted in any case.
//
// An entry that finds no space in the table is kept as it shall be. A review that touches its endpoint goes on from
// there, and writes it; else the builder tries it again.
#pragma once

#include <utility>
#include <vector>

#include "runtime/Zol/HashCollection.h"
#include "tunnel/TunnelRib.h"

namespace Tunnel::TunnelTable {

class StagedTunnelRib {
 public:
  struct Staged {
    Ipkit::IpGenPrefix tep;
    TunnelRibEntry standing;  // as the table has it; empty when it is absent or damaged
    TunnelRibEntry now;       // as it shall be; without ids: deleted
    bool isDamaged = false;
  };

  explicit StagedTunnelRib(Zol::Ptr<TunnelRib> rib) : rib_(std::move(rib)) {}

  const Zol::Ptr<TunnelRib>& rib() const { return rib_; }
  // The entry of the endpoint, to read and to change. Good until the next call for another endpoint. refill is called
  // when the entry turns out to be damaged, after it has been staged as empty.
  template <class Refill>
  TunnelRibEntry& entry(const Ipkit::IpGenPrefix& tep, Refill&& refill) {
    if (find(tep) == nullptr && !stage(tep)) {
      refill();
    }
    return find(tep)->now;
  }
  // What was touched since the last write; a review touches one endpoint or two.
  std::vector<Staged>& touched() { return touched_; }
  void write();

  // How many entries found no space.
  std::size_t unwritten() const { return unwritten_.size(); }
  // Tries the next of them again, all in turn; false: there is still no space for it. Requires: unwritten() > 0.
  bool writeNext();

 private:
  Staged* find(const Ipkit::IpGenPrefix& tep);
  // False when the entry cannot be read.
  bool stage(const Ipkit::IpGenPrefix& tep);
  void write(const Staged& staged);

  Zol::Ptr<TunnelRib> rib_;
  std::vector<Staged> touched_;
  Zol::HashCollection<Ipkit::IpGenPrefix, Staged> unwritten_;
  Ipkit::IpGenPrefix next_;  // where writeNext() goes on
};

}  // namespace Tunnel::TunnelTable
