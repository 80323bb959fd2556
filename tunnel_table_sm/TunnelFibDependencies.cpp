// Finding the cycles of a tunnel T: whatever T leads to and whatever leads to T, both at once, are on a cycle with T.
// Either set can be large (a transport tunnel under half a million services, a service on top of everything), rarely
// both. So the two searches take turns with a budget of edges that doubles; the first that completes bounds the other:
//
//     up                 ....................   everything that leads to T
//                       :      T <── N      :
//     down               ....................   everything that T leads to
#include "tunnel_table_sm/TunnelFibDependencies.h"

#include <algorithm>
#include <limits>

namespace Tunnel::TunnelTable {

bool TunnelFibDependencies::hasNextLevels(const TunnelId& tunnel, std::span<const TunnelId> nextLevels) const {
  const NextLevels* const present = nextLevels_.find(tunnel);
  return present == nullptr ? nextLevels.empty() : present->holds(nextLevels);
}

bool TunnelFibDependencies::nextLevelsIs(const TunnelId& tunnel, std::span<const TunnelId> nextLevels) {
  NextLevels* const present = nextLevels_.find(tunnel);
  if (present == nullptr ? nextLevels.empty() : present->holds(nextLevels)) {
    return false;
  }
  for (std::size_t i = 0; present != nullptr && i < present->size(); ++i) {
    DependentTunnels* const dependants = dependants_.find(present->id(i));
    dependants->erase(tunnel);
    if (dependants->empty()) {
      dependants_.erase(present->id(i));
    }
  }
  for (const TunnelId& next : nextLevels) {
    dependants_[next].insert(tunnel);
  }
  if (nextLevels.empty()) {
    nextLevels_.erase(tunnel);
  } else if (present != nullptr) {
    *present = NextLevels(nextLevels);
  } else {
    nextLevels_.insert(tunnel, NextLevels(nextLevels));
  }
  for (const TunnelId& member : findCycle(tunnel)) {
    suspects_.insert(member);
  }
  return true;
}

void TunnelFibDependencies::joinedIs(const TunnelId& tunnel, std::span<const TunnelId> joined) {
  NextLevels* const present = nextLevels_.find(tunnel);
  for (std::size_t i = 0; present != nullptr && i < present->size(); ++i) {
    present->markIs(i, std::binary_search(joined.begin(), joined.end(), present->id(i)));
  }
}

TunnelFibDependencies::TunnelIds TunnelFibDependencies::tunnelsDirectlyDependingOn(const TunnelId& tunnel) const {
  TunnelIds ids;
  forEachNeighbour(Direction::down, tunnel, [&ids](const TunnelId& next) { ids.push_back(next); });
  return ids;
}

TunnelFibDependencies::TunnelIds TunnelFibDependencies::directlyDependentTunnels(const TunnelId& tunnel) const {
  TunnelIds ids;
  forEachNeighbour(Direction::up, tunnel, [&ids](const TunnelId& dependant) { ids.push_back(dependant); });
  std::sort(ids.begin(), ids.end());
  return ids;
}

TunnelFibDependencies::TunnelIds TunnelFibDependencies::resolvedByTunnels(const TunnelId& tunnel) const {
  TunnelIds ids;
  Visited visited;
  TunnelIds waiting{tunnel};
  while (!waiting.empty()) {
    const NextLevels* const next = nextLevels_.find(waiting.back());
    waiting.pop_back();
    for (std::size_t i = 0; next != nullptr && i < next->size(); ++i) {
      if (next->isMarked(i) && visited.insert(next->id(i)).second) {
        ids.push_back(next->id(i));
        waiting.push_back(next->id(i));
      }
    }
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

TunnelFibDependencies::TunnelIds TunnelFibDependencies::cycleOf(const TunnelId& tunnel) const {
  if (suspects_.empty() || !suspects_.has(tunnel)) {
    return {};
  }
  TunnelIds cycle = findCycle(tunnel);
  if (cycle.empty()) {
    suspects_.erase(tunnel);
  }
  return cycle;
}

TunnelFibDependencies::TunnelIds TunnelFibDependencies::findCycle(const TunnelId& tunnel) const {
  if (!mayBeOnCycle(tunnel)) {
    return {};
  }
  Direction complete = Direction::down;
  Visited side;
  for (std::size_t edges = 64;; edges *= 2) {
    if (reach(complete, tunnel, edges, nullptr, side)) {
      break;
    }
    complete = complete == Direction::down ? Direction::up : Direction::down;
    side.clear();
  }
  if (!side.has(tunnel)) {
    return {};
  }
  Visited both;
  reach(complete == Direction::down ? Direction::up : Direction::down, tunnel, std::numeric_limits<std::size_t>::max(),
        &side, both);
  TunnelIds ids;
  for (auto it = both.begin(); it; ++it) {
    ids.push_back(it.key());
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

// Answers for nearly all tunnels: somebody must lead to it, and some next level must lead on.
bool TunnelFibDependencies::mayBeOnCycle(const TunnelId& tunnel) const {
  const NextLevels* const next = dependants_.has(tunnel) ? nextLevels_.find(tunnel) : nullptr;
  if (next == nullptr) {
    return false;
  }
  for (std::size_t i = 0; i < next->size(); ++i) {
    if (nextLevels_.has(next->id(i))) {
      return true;
    }
  }
  return false;
}

// Collects what start reaches within a set of tunnels (null: all), itself only if it is reached. False when more than
// edgesMax edges would have to be followed.
bool TunnelFibDependencies::reach(Direction direction, const TunnelId& start, std::size_t edgesMax,
                                  const Visited* within, Visited& visited) const {
  std::size_t edges = 0;
  TunnelIds waiting{start};
  while (!waiting.empty() && edges <= edgesMax) {
    const TunnelId tunnel = waiting.back();
    waiting.pop_back();
    forEachNeighbour(direction, tunnel, [&](const TunnelId& neighbour) {
      if ((within == nullptr || within->has(neighbour)) && visited.insert(neighbour).second && neighbour != start) {
        waiting.push_back(neighbour);
      }
      return ++edges <= edgesMax;
    });
  }
  return edges <= edgesMax;
}

template <class F>
void TunnelFibDependencies::forEachNeighbour(Direction direction, const TunnelId& tunnel, F&& f) const {
  if (direction == Direction::up) {
    if (const DependentTunnels* const dependants = dependants_.find(tunnel)) {
      dependants->forEach(f);
    }
    return;
  }
  const NextLevels* const next = nextLevels_.find(tunnel);
  for (std::size_t i = 0; next != nullptr && i < next->size(); ++i) {
    if constexpr (std::is_same_v<decltype(f(tunnel)), bool>) {
      if (!f(next->id(i))) {
        return;
      }
    } else {
      f(next->id(i));
    }
  }
}

std::size_t TunnelFibDependencies::bytesUsed() const {
  std::size_t bytes = nextLevels_.bytesUsed() + dependants_.bytesUsed() + suspects_.bytesUsed();
  for (const auto& [tunnel, dependants] : dependants_) {
    bytes += dependants.bytesUsed();
  }
  for (const auto& [tunnel, next] : nextLevels_) {
    bytes += next.size() > 1 ? (next.size() + 1) * sizeof(std::uint64_t) : 0;
  }
  return bytes;
}

}  // namespace Tunnel::TunnelTable
