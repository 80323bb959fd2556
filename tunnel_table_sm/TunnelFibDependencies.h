// TunnelFibDependencies: which tunnels resolve through which. T depends directly on N when a via of T leaves through
// N, whether or not that via could be built.
//
//     tunnelsDirectlyDependingOn(T)    the next levels of T
//     directlyDependentTunnels(N)      the same edges from the other end: whom a change of N concerns
//     resolvedByTunnels(T)             all tunnels, at any depth, that T's vias were built from
//
// Of the first two each mirrors the other. The third is not stored: it follows from those next levels whose vias were
// joined, marked as such, and from theirs.
//
// A via of T through N is cyclic exactly when N is T or N leads back to T: when both lie on one cycle. Which tunnels do
// depends on the edges alone and not on the order in which they were recorded. Whoever changes the edges of T brings
// cycleOf(T) before and after the change to review: the verdict about any other via stays as it was.
#pragma once

#include <span>
#include <vector>

#include "runtime/Zol/HashCollection.h"
#include "tunnel_table_sm/TunnelIdSets.h"

namespace Tunnel::TunnelTable {

class TunnelFibDependencies {
 public:
  using TunnelIds = std::vector<TunnelId>;

  // The direct next levels of the tunnel from now on: ascending, without doubles. False when they are so already.
  bool nextLevelsIs(const TunnelId& tunnel, std::span<const TunnelId> nextLevels);
  bool hasNextLevels(const TunnelId& tunnel, std::span<const TunnelId> nextLevels) const;
  // Which of the recorded next levels have vias that were joined into the tunnel's: ascending.
  void joinedIs(const TunnelId& tunnel, std::span<const TunnelId> joined);

  TunnelIds tunnelsDirectlyDependingOn(const TunnelId& tunnel) const;
  TunnelIds directlyDependentTunnels(const TunnelId& tunnel) const;
  TunnelIds resolvedByTunnels(const TunnelId& tunnel) const;
  // Null when there are none. Good until the next change.
  const DependentTunnels* dependants(const TunnelId& tunnel) const { return dependants_.find(tunnel); }

  // The tunnels on a cycle with the tunnel, itself included, in ascending order; empty when it is on none. O(1) unless
  // the tunnel was on one since its next levels changed last; then the smaller of what it leads to and what leads to
  // it, several times at most. The same is the cost of changing next levels, but O(1) for a tunnel without dependants
  // and O(next levels) when these have none themselves.
  TunnelIds cycleOf(const TunnelId& tunnel) const;

  std::size_t dependentTunnels() const { return nextLevels_.size(); }
  std::size_t bytesUsed() const;

 private:
  enum class Direction { down, up };
  using Visited = Zol::HashCollection<TunnelId>;

  template <class F>
  void forEachNeighbour(Direction direction, const TunnelId& tunnel, F&& f) const;
  TunnelIds findCycle(const TunnelId& tunnel) const;
  bool mayBeOnCycle(const TunnelId& tunnel) const;
  bool reach(Direction direction, const TunnelId& start, std::size_t edgesMax, const Visited* within,
             Visited& visited) const;

  Zol::HashCollection<TunnelId, NextLevels> nextLevels_;
  Zol::HashCollection<TunnelId, DependentTunnels> dependants_;
  // All tunnels on cycles, and some that were: a cycle only comes with a change of next levels, which files its members
  // here; who turns out to be on none any more is dropped when it is asked for.
  mutable Zol::HashCollection<TunnelId> suspects_;
};

}  // namespace Tunnel::TunnelTable
