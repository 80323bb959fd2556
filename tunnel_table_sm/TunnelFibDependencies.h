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
// A via of T through N is cyclic exactly when N is T or N leads back to T: when both are on one cycle, that is, in one
// component (TunnelFibComponents). Components depend on the edges alone and not on the order in which they were
// recorded. After a change of next levels, the tunnels in turned() have vias whose verdict has changed, and no others
// have.
#pragma once

#include <span>
#include <vector>

#include "tunnel_table_sm/TunnelFibComponents.h"

namespace Tunnel::TunnelTable {

class TunnelFibDependencies {
 public:
  using TunnelIds = std::vector<TunnelId>;

  // The direct next levels of the tunnel from now on: ascending, without doubles. False when they are so already.
  // O(1) for a tunnel without dependants, and O(next levels) when the new ones have none themselves; else what
  // TunnelFibComponents says.
  bool nextLevelsIs(const TunnelId& tunnel, std::span<const TunnelId> nextLevels);
  bool hasNextLevels(const TunnelId& tunnel, std::span<const TunnelId> nextLevels) const;
  // The other tunnels that the last call of nextLevelsIs() concerns: the verdict about one of their vias has changed.
  // When vias have become usable, next levels come before the tunnels over them.
  const TunnelIds& turned() const { return components_.turned(); }
  // Which of the recorded next levels have vias that were joined into the tunnel's: ascending.
  void joinedIs(const TunnelId& tunnel, std::span<const TunnelId> joined);

  bool hasNextLevels(const TunnelId& tunnel) const { return graph_.nextLevels.has(tunnel); }
  TunnelIds tunnelsDirectlyDependingOn(const TunnelId& tunnel) const;
  TunnelIds directlyDependentTunnels(const TunnelId& tunnel) const;
  TunnelIds resolvedByTunnels(const TunnelId& tunnel) const;
  // Null when there are none. Good until the next change.
  const DependentTunnels* dependants(const TunnelId& tunnel) const { return graph_.dependants.find(tunnel); }

  // Names the other tunnels on a cycle with this one: those of the same component. O(1).
  using Component = TunnelFibComponents::Id;
  static constexpr Component noComponent = TunnelFibComponents::none;
  Component component(const TunnelId& tunnel) const { return components_.of(tunnel); }
  // The tunnels on a cycle with the tunnel, itself included, in ascending order; empty when it is on none.
  TunnelIds cycleOf(const TunnelId& tunnel) const;

  std::size_t dependentTunnels() const { return graph_.nextLevels.size(); }
  // By all searches for cycles so far.
  std::uint64_t edgesFollowed() const { return components_.edgesFollowed(); }
  std::size_t bytesUsed() const;

 private:
  TunnelFibGraph graph_;
  TunnelFibComponents components_;
};

}  // namespace Tunnel::TunnelTable
