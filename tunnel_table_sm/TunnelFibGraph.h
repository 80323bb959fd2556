// TunnelFibGraph: the edges between tunnels, stored at both ends. T has an edge to N when a via of T leaves through N.
#pragma once

#include "runtime/Zol/HashCollection.h"
#include "tunnel_table_sm/TunnelIdSets.h"

namespace Tunnel::TunnelTable {

struct TunnelFibGraph {
  enum class Direction { down, up };  // to the next levels, to the dependants

  Zol::HashCollection<TunnelId, NextLevels> nextLevels;
  Zol::HashCollection<TunnelId, DependentTunnels> dependants;

  std::size_t neighbours(Direction direction, const TunnelId& tunnel) const {
    if (direction == Direction::down) {
      const NextLevels* const next = nextLevels.find(tunnel);
      return next == nullptr ? 0 : next->size();
    }
    const DependentTunnels* const present = dependants.find(tunnel);
    return present == nullptr ? 0 : present->size();
  }

  template <class F>
  void forEachNeighbour(Direction direction, const TunnelId& tunnel, F&& f) const {
    if (direction == Direction::up) {
      if (const DependentTunnels* const present = dependants.find(tunnel)) {
        present->forEach(f);
      }
    } else if (const NextLevels* const next = nextLevels.find(tunnel)) {
      for (std::size_t i = 0; i < next->size(); ++i) {
        f(next->id(i));
      }
    }
  }
};

}  // namespace Tunnel::TunnelTable
