// StagedTunnelRib: the entries of one RIB table that a review touches. Each is read once, changed in memory as often as
// the review's steps say, and written back at the end, once at most and only if it has become another: same ids in
// another order, preference and metrics is the same entry. So a tunnel that is taken out and filed again leaves no
// trace in the table, and readers never see the steps between.
//
// An entry that cannot be read is damaged, which is not the same as absent: whoever stages it fills it anew from what
// it knows, and it is written or deleted in any case.
#pragma once

#include <utility>
#include <vector>

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
  // once, when the entry turns out to be damaged, after it has been staged as empty.
  template <class Refill>
  TunnelRibEntry& entry(const Ipkit::IpGenPrefix& tep, Refill&& refill) {
    const bool isNew = find(tep) == nullptr;
    if (isNew && stage(tep).isDamaged) {
      refill();
    }
    return find(tep)->now;
  }
  // What was touched since the last write; a review touches one endpoint or two.
  std::vector<Staged>& touched() { return touched_; }
  void write();

 private:
  Staged* find(const Ipkit::IpGenPrefix& tep);
  Staged& stage(const Ipkit::IpGenPrefix& tep);

  Zol::Ptr<TunnelRib> rib_;
  std::vector<Staged> touched_;
};

}  // namespace Tunnel::TunnelTable
