#include "tunnel_table_sm/TunnelFibDependencies.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace Tunnel::TunnelTable {
namespace {

using TunnelIds = TunnelFibDependencies::TunnelIds;

TunnelIds idsOf(const NextLevels* next) {
  TunnelIds ids;
  for (std::size_t i = 0; next != nullptr && i < next->size(); ++i) {
    ids.push_back(next->id(i));
  }
  return ids;
}

// Both ascending.
TunnelIds difference(std::span<const TunnelId> these, std::span<const TunnelId> those) {
  TunnelIds ids;
  std::set_difference(these.begin(), these.end(), those.begin(), those.end(), std::back_inserter(ids));
  return ids;
}

}  // namespace

bool TunnelFibDependencies::hasNextLevels(const TunnelId& tunnel, std::span<const TunnelId> nextLevels) const {
  const NextLevels* const present = graph_.nextLevels.find(tunnel);
  return present == nullptr ? nextLevels.empty() : present->holds(nextLevels);
}

bool TunnelFibDependencies::nextLevelsIs(const TunnelId& tunnel, std::span<const TunnelId> nextLevels) {
  components_.turnedDelAll();
  if (hasNextLevels(tunnel, nextLevels)) {
    return false;
  }
  NextLevels* const present = graph_.nextLevels.find(tunnel);
  for (std::size_t i = 0; present != nullptr && i < present->size(); ++i) {
    DependentTunnels* const dependants = graph_.dependants.find(present->id(i));
    dependants->erase(tunnel);
    if (dependants->empty()) {
      graph_.dependants.erase(present->id(i));
    }
  }
  for (const TunnelId& next : nextLevels) {
    graph_.dependants[next].insert(tunnel);
  }
  NextLevels earlier;
  if (present != nullptr) {
    earlier = std::exchange(*present, NextLevels(nextLevels));
  } else {
    graph_.nextLevels.insert(tunnel, NextLevels(nextLevels));
  }
  if (nextLevels.empty()) {
    graph_.nextLevels.erase(tunnel);
  }
  if (graph_.dependants.has(tunnel)) {  // without dependants it is on no cycle
    const TunnelIds old = idsOf(&earlier);
    components_.edgesChanged(graph_, tunnel, difference(nextLevels, old), difference(old, nextLevels));
  }
  return true;
}

void TunnelFibDependencies::joinedIs(const TunnelId& tunnel, std::span<const TunnelId> joined) {
  NextLevels* const present = graph_.nextLevels.find(tunnel);
  for (std::size_t i = 0; present != nullptr && i < present->size(); ++i) {
    present->markIs(i, std::binary_search(joined.begin(), joined.end(), present->id(i)));
  }
}

TunnelFibDependencies::TunnelIds TunnelFibDependencies::tunnelsDirectlyDependingOn(const TunnelId& tunnel) const {
  return idsOf(graph_.nextLevels.find(tunnel));
}

TunnelFibDependencies::TunnelIds TunnelFibDependencies::directlyDependentTunnels(const TunnelId& tunnel) const {
  TunnelIds ids;
  if (const DependentTunnels* const present = dependants(tunnel)) {
    present->forEach([&ids](const TunnelId& dependant) { ids.push_back(dependant); });
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

TunnelFibDependencies::TunnelIds TunnelFibDependencies::resolvedByTunnels(const TunnelId& tunnel) const {
  TunnelIds ids;
  Zol::HashCollection<TunnelId> visited;
  TunnelIds waiting{tunnel};
  while (!waiting.empty()) {
    const NextLevels* const next = graph_.nextLevels.find(waiting.back());
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
  if (const Component own = component(tunnel); own != noComponent) {
    TunnelIds ids = components_.members(own);
    std::sort(ids.begin(), ids.end());
    return ids;
  }
  const DependentTunnels* const present = dependants(tunnel);
  return present != nullptr && present->has(tunnel) ? TunnelIds{tunnel} : TunnelIds();
}

std::size_t TunnelFibDependencies::bytesUsed() const {
  std::size_t bytes = graph_.nextLevels.bytesUsed() + graph_.dependants.bytesUsed() + components_.bytesUsed();
  for (const auto& [tunnel, dependants] : graph_.dependants) {
    bytes += dependants.bytesUsed();
  }
  for (const auto& [tunnel, next] : graph_.nextLevels) {
    bytes += next.size() > 1 ? (next.size() + 1) * sizeof(std::uint64_t) : 0;
  }
  return bytes;
}

}  // namespace Tunnel::TunnelTable
