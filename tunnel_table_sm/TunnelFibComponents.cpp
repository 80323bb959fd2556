// Why one search is enough, for edges that T gets and loses. In both cases every member of T's component leads to T
// when the change is done: a path to T ends where it reaches T first, so it needs no edge that starts at T.
//
//     added      a tunnel joins T's component when a new edge leads to it and it leads to T, or to T's component
//     removed    T's new component is what T still leads to. It leads to nothing else of the old component, so the
//                rest splits up by itself
//
// Edges are added first, since a change of T may replace one way around a cycle by another.
#include "tunnel_table_sm/TunnelFibComponents.h"

#include <algorithm>
#include <utility>

namespace Tunnel::TunnelTable {

using Direction = TunnelFibGraph::Direction;

// What some tunnels lead to, or what leads to them, found tunnel by tunnel.
class TunnelFibComponents::Search {
 public:
  Search(const TunnelFibGraph& graph, Direction direction, std::uint64_t& edgesFollowed)
      : graph_(graph), direction_(direction), edgesFollowed_(edgesFollowed) {}

  // False when the tunnel has been found before.
  bool find(const TunnelId& tunnel) {
    const bool isNew = found_.insert(tunnel).second;
    if (isNew) {
      waiting_.push_back(tunnel);
    }
    return isNew;
  }
  bool isComplete() const { return waiting_.empty(); }
  // Of all steps so far and the next one.
  std::size_t cost() const { return cost_ + 1 + graph_.neighbours(direction_, waiting_.back()); }
  // Follows the edges of one tunnel: calls onEdge with each neighbour.
  template <class F>
  void step(F&& onEdge) {
    cost_ = cost();
    const TunnelId tunnel = waiting_.back();
    waiting_.pop_back();
    graph_.forEachNeighbour(direction_, tunnel, [&](const TunnelId& neighbour) {
      ++edgesFollowed_;
      onEdge(neighbour);
    });
  }
  const Visited& found() const { return found_; }
  const TunnelIds& waiting() const { return waiting_; }

 private:
  const TunnelFibGraph& graph_;
  const Direction direction_;
  std::uint64_t& edgesFollowed_;
  Visited found_;
  TunnelIds waiting_;
  std::size_t cost_ = 0;
};

void TunnelFibComponents::edgesChanged(const TunnelFibGraph& graph, const TunnelId& tunnel, const TunnelIds& added,
                                       const TunnelIds& removed) {
  turned_.clear();
  join(graph, tunnel, added);
  split(graph, tunnel, removed);
  if (!moved_.empty()) {
    collectTurned(graph, tunnel);
    before_.clear();
    moved_.clear();
  }
}

// Down from the new edges and up from the tunnel, the cheaper one first. When one direction is complete, the tunnels
// that join are among those that it found.
void TunnelFibComponents::join(const TunnelFibGraph& graph, const TunnelId& tunnel, const TunnelIds& added) {
  const Id own = of(tunnel);
  const auto isHome = [&](const TunnelId& other) { return other == tunnel || (own != none && of(other) == own); };
  Search down(graph, Direction::down, edgesFollowed_);
  for (const TunnelId& next : added) {
    if (!isHome(next) && graph.nextLevels.has(next)) {
      down.find(next);
    }
  }
  if (down.isComplete()) {  // nearly always
    return;
  }
  const TunnelIds starts = down.waiting();
  Search up(graph, Direction::up, edgesFollowed_);
  up.find(tunnel);
  bool leadsHome = false;
  while (!down.isComplete() && !up.isComplete()) {
    if (up.cost() < down.cost()) {
      up.step([&](const TunnelId& dependant) { up.find(dependant); });
    } else {
      down.step([&](const TunnelId& next) {
        const bool isHomeAgain = isHome(next);
        leadsHome = leadsHome || isHomeAgain;
        if (!isHomeAgain) {
          down.find(next);
        }
      });
    }
  }
  const Visited& found = down.isComplete() ? down.found() : up.found();
  leadsHome = down.isComplete()
                  ? leadsHome
                  : std::any_of(starts.begin(), starts.end(), [&](const TunnelId& id) { return found.has(id); });
  if (!leadsHome) {
    return;
  }
  TunnelIds candidates{tunnel};
  for (const auto& [other, value] : found) {
    if (!isHome(other)) {
      candidates.push_back(other);
    }
  }
  for (const TunnelIds& part : partsOf(graph, candidates, own)) {
    if (std::find(part.begin(), part.end(), tunnel) != part.end()) {
      merge(tunnel, part);
      return;
    }
  }
}

// The largest of the components keeps its id, and its members their records.
void TunnelFibComponents::merge(const TunnelId& tunnel, const TunnelIds& joined) {
  const Id own = of(tunnel);
  std::vector<Id> merged;
  for (const TunnelId& other : joined) {
    if (const Id id = of(other); id != none) {
      merged.push_back(id);
    }
  }
  std::sort(merged.begin(), merged.end());
  merged.erase(std::unique(merged.begin(), merged.end()), merged.end());
  const auto largest = std::max_element(merged.begin(), merged.end(),
                                        [this](Id a, Id b) { return members(a).size() < members(b).size(); });
  const Id kept = largest == merged.end() ? ++last_ : *largest;
  TunnelIds& keptMembers = members_[kept];
  const auto move = [&](const TunnelId& other) {
    if (of(other) != kept) {
      componentIs(other, kept);
      keptMembers.push_back(other);
    }
  };
  if (own != none && own != kept) {
    std::for_each(members(own).begin(), members(own).end(), move);
  }
  std::for_each(joined.begin(), joined.end(), move);
  for (const Id id : merged) {
    if (id != kept) {
      members_.erase(id);
    }
  }
}

void TunnelFibComponents::split(const TunnelFibGraph& graph, const TunnelId& tunnel, const TunnelIds& removed) {
  const Id own = of(tunnel);
  if (own == none) {
    return;
  }
  Visited missing;
  for (const TunnelId& next : removed) {
    if (next != tunnel && of(next) == own) {
      missing.insert(next);
    }
  }
  Search search(graph, Direction::down, edgesFollowed_);
  search.find(tunnel);
  while (!missing.empty() && !search.isComplete()) {
    search.step([&](const TunnelId& next) {
      if (of(next) == own && search.find(next)) {
        missing.erase(next);
      }
    });
  }
  if (missing.empty()) {
    return;
  }
  TunnelIds rest;
  for (const TunnelId& member : members(own)) {
    if (!search.found().has(member)) {
      rest.push_back(member);
    }
  }
  std::vector<TunnelIds> parts = partsOf(graph, rest, none);
  TunnelIds first;
  for (const auto& [member, value] : search.found()) {
    first.push_back(member);
  }
  parts.insert(parts.begin(), std::move(first));
  const auto largest = std::max_element(parts.begin(), parts.end(),
                                        [](const TunnelIds& a, const TunnelIds& b) { return a.size() < b.size(); });
  const Id keeper = largest->size() > 1 ? own : none;
  for (auto part = parts.begin(); part != parts.end(); ++part) {
    if (keeper != none && part == largest) {
      continue;
    }
    const Id id = part->size() > 1 ? ++last_ : none;
    for (const TunnelId& member : *part) {
      componentIs(member, id);
    }
    if (id != none) {
      members_.insert(id, std::move(*part));
    }
  }
  if (keeper == none) {
    members_.erase(own);
  } else {
    members_[own] = std::move(*largest);
  }
}

// The components of some tunnels and the edges between them, by Tarjan's algorithm. A tunnel on no cycle is a component
// of its own. Next levels come first. The first tunnel represents all members of component `home`.
std::vector<TunnelFibComponents::TunnelIds> TunnelFibComponents::partsOf(const TunnelFibGraph& graph,
                                                                         const TunnelIds& tunnels, Id home) {
  struct Node {
    const NextLevels* next = nullptr;
    std::uint32_t followed = 0;  // edges
    std::uint32_t number = 0;    // in the order in which tunnels are met; 0: not yet
    std::uint32_t lowest = 0;    // the first tunnel that it is known to lead back to
    bool isOpen = false;         // met, its component not known
  };
  std::vector<Node> nodes(tunnels.size());
  Zol::HashCollection<TunnelId, std::uint32_t> places;
  for (std::uint32_t i = 0; i < tunnels.size(); ++i) {
    places.insert(tunnels[i], i);
  }
  std::vector<TunnelIds> parts;
  std::vector<std::uint32_t> path, open;
  std::uint32_t met = 0;
  // Follows the edges of the last node of the path; false when one leads to a node that must come first.
  const auto follow = [&](Node& node) {
    while (node.next != nullptr && node.followed < node.next->size()) {
      ++edgesFollowed_;
      const TunnelId next = node.next->id(node.followed++);
      const std::uint32_t* place = places.find(next);
      if (place == nullptr && home != none && of(next) == home) {
        place = places.find(tunnels.front());
      }
      if (place != nullptr && nodes[*place].number == 0) {
        path.push_back(*place);
        return false;
      }
      if (place != nullptr && nodes[*place].isOpen) {
        node.lowest = std::min(node.lowest, nodes[*place].number);
      }
    }
    return true;
  };
  const auto close = [&](std::uint32_t last) {
    TunnelIds& part = parts.emplace_back();
    for (std::uint32_t place = open.back();; place = open.back()) {
      open.pop_back();
      nodes[place].isOpen = false;
      part.push_back(tunnels[place]);
      if (place == last) {
        return;
      }
    }
  };
  for (std::uint32_t start = 0; start < tunnels.size(); ++start) {
    if (nodes[start].number == 0) {
      path.push_back(start);
    }
    while (!path.empty()) {
      const std::uint32_t place = path.back();
      Node& node = nodes[place];
      if (node.number == 0) {
        node.number = node.lowest = ++met;
        node.isOpen = true;
        node.next = graph.nextLevels.find(tunnels[place]);
        open.push_back(place);
      }
      if (!follow(node)) {
        continue;
      }
      path.pop_back();
      if (!path.empty()) {
        nodes[path.back()].lowest = std::min(nodes[path.back()].lowest, node.lowest);
      }
      if (node.lowest == node.number) {
        close(place);
      }
    }
  }
  return parts;
}

// An edge can only have turned when one of its ends has moved. Unmoved tunnels come last: what moved is now below them
// or together with them.
void TunnelFibComponents::collectTurned(const TunnelFibGraph& graph, const TunnelId& tunnel) {
  const auto hasTurned = [this](const TunnelId& from, const TunnelId& to) {
    const Id earlier = before(from);
    const Id now = of(from);
    return (earlier != none && earlier == before(to)) != (now != none && now == of(to));
  };
  for (const TunnelId& moved : moved_) {
    bool hasAnyTurned = false;
    graph.forEachNeighbour(Direction::down, moved, [&](const TunnelId& next) {
      hasAnyTurned = hasAnyTurned || (next != moved && hasTurned(moved, next));
    });
    if (hasAnyTurned && moved != tunnel) {
      turned_.push_back(moved);
    }
  }
  Visited unmoved;
  for (const TunnelId& moved : moved_) {
    graph.forEachNeighbour(Direction::up, moved, [&](const TunnelId& dependant) {
      if (of(dependant) != none && dependant != tunnel && !before_.has(dependant) && hasTurned(dependant, moved) &&
          unmoved.insert(dependant).second) {
        turned_.push_back(dependant);
      }
    });
  }
}

void TunnelFibComponents::componentIs(const TunnelId& tunnel, Id component) {
  if (before_.insert(tunnel, of(tunnel)).second) {
    moved_.push_back(tunnel);
  }
  if (component == none) {
    components_.erase(tunnel);
  } else {
    components_.insertOrAssign(tunnel, component);
  }
}

TunnelFibComponents::Id TunnelFibComponents::before(const TunnelId& tunnel) const {
  const Id* const id = before_.find(tunnel);
  return id == nullptr ? of(tunnel) : *id;
}

std::size_t TunnelFibComponents::bytesUsed() const {
  std::size_t bytes = components_.bytesUsed() + members_.bytesUsed();
  for (const auto& [id, tunnels] : members_) {
    bytes += tunnels.capacity() * sizeof(TunnelId);
  }
  return bytes;
}

}  // namespace Tunnel::TunnelTable
