// Convergence records: what BGP labelled unicast declares, and what each RIB answers.
#pragma once

#include <cstdint>

#include "runtime/Zol/Channel.h"
#include "runtime/Zol/Entity.h"
#include "runtime/Zol/HashCollection.h"
#include "runtime/Zol/Watchable.h"
#include "tunnel/TunnelRib.h"

namespace Tunnel::TunnelTable {

// Written by BGP as one record: whether it has converged, and the sequence number of its table at that time.
class BgpLuConvergence : public Zol::Entity {
 public:
  using Entity::Entity;

  bool bgpLuConverged() const { return bgpLuConverged_; }
  std::uint64_t bgpLuSeqno() const { return bgpLuSeqno_; }
  // Notifies also when nothing changed: BGP may declare again.
  void bgpLuConvergedIs(bool converged, std::uint64_t seqno) {
    bgpLuConverged_ = converged;
    bgpLuSeqno_ = seqno;
    channel_.notify({});
  }

  Zol::Channel<Zol::NoKey>& bgpLuConvergedChannel() const { return channel_; }

 private:
  bool bgpLuConverged_ = false;
  std::uint64_t bgpLuSeqno_ = 0;
  mutable Zol::Channel<Zol::NoKey> channel_;
};

// For each RIB the sequence number of its table at which it had caught up with BGP.
class TunnelConvergence : public Zol::Entity {
 public:
  using Seqnos = Zol::Watchable<Zol::HashCollection<TunnelRibId, std::uint64_t>>;

  using Entity::Entity;

  const Seqnos& tunnelRibConvergenceSeqno() const { return seqno_; }
  // Notifies also when the number is the same: the RIB may converge twice without a change between.
  void tunnelRibConvergenceSeqnoIs(TunnelRibId rib, std::uint64_t seqno) {
    if (!seqno_.is(rib, seqno)) {
      seqno_.channel().notify(rib);
    }
  }
  void tunnelRibConvergenceSeqnoDel(TunnelRibId rib) { seqno_.del(rib); }

 private:
  Seqnos seqno_;
};

}  // namespace Tunnel::TunnelTable
