// TunnelFibComponents: the tunnels that are on cycles, as the strongly connected components of the graph: two tunnels
// are in one component when each leads to the other. Tunnels on no cycle, nearly all, have no record here.
//
//     a ──▶ b ──▶ c ──▶ a       component 1: a, b, c
//     c ──▶ d ──▶ e ──▶ d       component 2: d, e; the edge from c to d is on no cycle
//
// Kept up to date edge by edge. Each change costs one search at most:
//
//     edges added      all tunnels that they lead to, or all that lead to them: the cheaper set; none in a component
//     edges removed    the component that they were in; none outside of components
#pragma once

#include <cstdint>
#include <vector>

#include "tunnel_table_sm/TunnelFibGraph.h"

namespace Tunnel::TunnelTable {

class TunnelFibComponents {
 public:
  using Id = std::uint64_t;
  using TunnelIds = std::vector<TunnelId>;

  static constexpr Id none = 0;

  // The component of a tunnel; none when it is on no cycle with another tunnel. O(1).
  Id of(const TunnelId& tunnel) const {
    const Id* const id = components_.empty() ? nullptr : components_.find(tunnel);
    return id == nullptr ? none : *id;
  }
  // In no order. The component must exist.
  const TunnelIds& members(Id component) const { return *members_.find(component); }

  // The graph has got and lost these edges of the tunnel.
  void edgesChanged(const TunnelFibGraph& graph, const TunnelId& tunnel, const TunnelIds& added,
                    const TunnelIds& removed);
  // The other tunnels that have, since this change, an edge that has come into a component or left it. After a change
  // that dissolved a component, next levels come before the tunnels over them.
  const TunnelIds& turned() const { return turned_; }
  void turnedDelAll() { turned_.clear(); }

  // What all searches so far have cost.
  std::uint64_t edgesFollowed() const { return edgesFollowed_; }
  std::size_t bytesUsed() const;

 private:
  using Visited = Zol::HashCollection<TunnelId>;

  class Search;
  void join(const TunnelFibGraph& graph, const TunnelId& tunnel, const TunnelIds& added);
  void merge(const TunnelId& tunnel, const TunnelIds& joined);
  void split(const TunnelFibGraph& graph, const TunnelId& tunnel, const TunnelIds& removed);
  std::vector<TunnelIds> partsOf(const TunnelFibGraph& graph, const TunnelIds& tunnels, Id home);
  void collectTurned(const TunnelFibGraph& graph, const TunnelId& tunnel);
  void componentIs(const TunnelId& tunnel, Id component);
  Id before(const TunnelId& tunnel) const;

  Zol::HashCollection<TunnelId, Id> components_;
  Zol::HashCollection<Id, TunnelIds> members_;
  Id last_ = none;  // ids are never used again
  // The change under way: tunnels that have changed component, with their earlier one, and in which order they did.
  Zol::HashCollection<TunnelId, Id> before_;
  TunnelIds moved_;
  TunnelIds turned_;
  std::uint64_t edgesFollowed_ = 0;
};

}  // namespace Tunnel::TunnelTable
