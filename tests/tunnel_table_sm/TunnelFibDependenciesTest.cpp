// Cycles among tunnels: which there are after any changes, which tunnels a change concerns, and what finding out costs.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <numeric>
#include <random>
#include <set>

#include "tests/support/FibScene.h"
#include "tests/support/Seeds.h"
#include "tunnel_table_sm/TunnelFibDependencies.h"

namespace Tunnel::TunnelTable {
namespace {

using Number = std::uint32_t;
using Edges = std::map<Number, std::set<Number>>;

TunnelId member(Number number) { return {TunnelType::srTunnel, number}; }

// Finds the tunnels that each tunnel leads to, by plain search.
class NaiveCycles {
 public:
  NaiveCycles(const Edges& edges, Number size) : reached_(size, std::vector<bool>(size)) {
    for (Number start = 0; start < size; ++start) {
      std::vector<Number> waiting{start};
      while (!waiting.empty()) {
        const auto from = edges.find(waiting.back());
        waiting.pop_back();
        for (const Number next : from == edges.end() ? std::set<Number>() : from->second) {
          if (!reached_[start][next]) {
            reached_[start][next] = true;
            waiting.push_back(next);
          }
        }
      }
    }
  }
  bool isCyclic(Number from, Number next) const { return from == next || reached_[next][from]; }
  TunnelFibDependencies::TunnelIds cycleOf(Number start) const {
    TunnelFibDependencies::TunnelIds ids;
    for (Number other = 0; other < reached_.size(); ++other) {
      if (reached_[start][other] && reached_[other][start]) {
        ids.push_back(member(other));
      }
    }
    return ids;
  }

 private:
  std::vector<std::vector<bool>> reached_;
};

// Edges and their records side by side.
struct Network {
  void change(Number from, const std::set<Number>& next) {
    edges[from] = next;
    std::vector<TunnelId> ids;
    std::transform(next.begin(), next.end(), std::back_inserter(ids), member);
    dependencies.nextLevelsIs(member(from), ids);
  }
  Edges edges;
  TunnelFibDependencies dependencies;
};

// Fails if a cycle is not seen, seen where there is none any more, or if a change misses a tunnel or names one too
// many.
TEST(TunnelFibDependencies, equalWhatPlainSearchesFind) {
  struct Shape {
    Number size, edgesMax, span;
  };
  // Sparse; near rings with chords; dense; many small cycles through a few; long.
  constexpr Shape shapes[] = {{12, 2, 12}, {40, 2, 3}, {24, 16, 24}, {60, 3, 60}, {200, 1, 2}, {300, 2, 300}};
  Support::forEachSeed(12, [&](unsigned seed) {
    const Shape& shape = shapes[seed % std::size(shapes)];
    std::mt19937 random(seed);
    const auto below = [&](Number bound) { return static_cast<Number>(random() % bound); };
    Network network;
    NaiveCycles naive(network.edges, shape.size);
    for (unsigned step = 0; step < 3 * shape.size && !testing::Test::HasFailure(); ++step) {
      const Number from = below(shape.size);
      std::set<Number> next;
      for (Number count = below(8) == 0 ? 0 : 1 + below(shape.edgesMax); count > 0; --count) {
        const bool throughHub = shape.edgesMax == 3 && below(3) == 0;
        next.insert(throughHub ? below(2) : (from + below(shape.span + 1)) % shape.size);
      }
      const Edges before = network.edges;
      network.change(from, next);
      const NaiveCycles now(network.edges, shape.size);
      std::set<TunnelId> turned;
      for (Number i = 0; i < shape.size; ++i) {
        const TunnelId id = member(i);
        ASSERT_EQ(network.dependencies.cycleOf(id), now.cycleOf(i)) << "step " << step << id;
        for (const Number to : network.edges[i]) {
          const bool isTogether = network.dependencies.component(id) != TunnelFibDependencies::noComponent &&
                                  network.dependencies.component(id) == network.dependencies.component(member(to));
          ASSERT_EQ(i == to || isTogether, now.isCyclic(i, to)) << id << " through " << to;
          if (i != from && now.isCyclic(i, to) != naive.isCyclic(i, to)) {
            turned.insert(id);
          }
        }
      }
      const auto& named = network.dependencies.turned();
      ASSERT_EQ(std::set(named.begin(), named.end()), turned) << "step " << step;
      ASSERT_EQ(named.size(), turned.size()) << "step " << step;
      naive = now;
    }
  });
}

std::vector<Number> order(Number size, const std::string& name) {
  std::vector<Number> order(size);
  std::iota(order.begin(), order.end(), 0U);
  if (name == "descending") {
    std::reverse(order.begin(), order.end());
  } else if (name == "every second") {
    std::stable_partition(order.begin(), order.end(), [](Number i) { return i % 2 == 0; });
  } else if (name == "shuffled") {
    std::shuffle(order.begin(), order.end(), std::mt19937(size));
  }
  return order;
}

// Fails if members of a ring are searched again and again while it is built, opened, closed or taken down.
TEST(TunnelFibDependencies, ringsCostOneSearchAChange) {
  constexpr Number size = 4000;
  for (const char* const name : {"ascending", "descending", "every second", "shuffled"}) {
    Network network;
    auto cost = [&, spent = std::uint64_t(0)]() mutable {
      return network.dependencies.edgesFollowed() - std::exchange(spent, network.dependencies.edgesFollowed());
    };
    for (const Number i : order(size, name)) {
      network.change(i, {(i + 1) % size});
    }
    EXPECT_EQ(network.dependencies.cycleOf(member(0)).size(), size);
    EXPECT_LE(cost(), 4 * size * std::log2(size)) << name;
    network.change(7, {8, 9});
    EXPECT_EQ(cost(), 0U) << "inside a component";
    for (int i = 0; i < 3; ++i) {
      network.change(5, {});
      EXPECT_EQ(network.dependencies.turned().size(), size - 1) << name;
      EXPECT_LE(cost(), 2 * size) << name;
      network.change(5, {6});
      EXPECT_LE(cost(), 4 * size) << name;
    }
    for (const Number i : order(size, name)) {
      network.change(i, {});
    }
    EXPECT_LE(cost(), 4 * size) << name;
  }
}

// Fails if what lies outside of a component is searched when it changes, or all of it for each edge of a dense one.
TEST(TunnelFibDependencies, workIsBoundedByWhatJoinsOrSplits) {
  Network network;
  constexpr Number size = 200, others = 100000;
  for (Number i = 0; i < others; ++i) {
    network.change(size + i, {0});
  }
  for (Number i = 0; i < size; ++i) {
    std::set<Number> next;
    for (Number to = 0; to < size; ++to) {
      next.insert(to);
    }
    network.change(i, next);
  }
  const std::uint64_t before = network.dependencies.edgesFollowed();
  EXPECT_LE(before, 2 * size * size * size + 2 * others);
  for (Number i = 1; i < size; ++i) {
    network.edges[i].erase(i - 1);
    network.change(i, network.edges[i]);
  }
  EXPECT_LE(network.dependencies.edgesFollowed() - before, 2 * size * size);
}

struct RingScene : FibScene {
  explicit RingScene(Number members, const std::string& name) : size(members) {
    for (const Number i : order(size, name)) {
      through(i, (i + 1) % size);
    }
    settle();
  }
  void through(Number i, Number next) {
    put(sr(i,
           {via("if" + std::to_string(i + 1), {100 + i}), via("tunnel:srTunnel/" + std::to_string(next), {200 + i})}));
  }
  // Reviews, and edges followed, since the last call.
  std::pair<std::uint64_t, std::uint64_t> work() {
    settle();
    const std::uint64_t reviews = scheduler->counters().units, edges = sm->dependencies().edgesFollowed();
    return {reviews - std::exchange(reviewed_, reviews), edges - std::exchange(followed_, edges)};
  }
  const Number size;

 private:
  std::uint64_t reviewed_ = 0, followed_ = 0;
};

// Fails if a change of one edge reviews tunnels of which nothing changes, or others more than once.
TEST(TunnelFibSm, oneEdgeOfARingReviewsWhatChanges) {
  RingScene scene(1000, "shuffled");
  scene.work();
  for (const Number next : {0U, 500U}) {  // out of the ring, and to its other half
    scene.put(scene.sr(10, {via("if11", {110})}));
    auto [reviews, edges] = scene.work();
    EXPECT_LE(reviews, 1000U) << "all get more vias";
    EXPECT_LE(edges, 2000U);
    scene.through(10, next == 0 ? 11 : next);
    std::tie(reviews, edges) = scene.work();
    EXPECT_LE(reviews, 1000U);
    EXPECT_LE(edges, 4000U);
  }
  scene.through(10, 11);
  scene.work();
  scene.through(10, 12);
  const auto [reviews, edges] = scene.work();
  EXPECT_LE(reviews, 2U) << "srTunnel/11 has left the ring";
  EXPECT_LE(edges, 2000U);
  EXPECT_EQ(scene.entry("srTunnel/11").tunnelVias(), 2U);
}

// Fails if the work for a ring grows faster than the ring.
TEST(TunnelFibSm, ringsOfTwiceTheSizeTakeTwiceTheWork) {
  for (const char* const name : {"ascending", "shuffled"}) {
    std::map<Number, std::pair<std::uint64_t, std::uint64_t>> work;
    for (const Number size : {1000U, 2000U}) {
      RingScene scene(size, name);
      work[size] = scene.work();
    }
    EXPECT_LE(work[2000].first, 2.3 * static_cast<double>(work[1000].first)) << name;
    EXPECT_LE(work[2000].second, 2.3 * static_cast<double>(work[1000].second)) << name;
  }
}

}  // namespace
}  // namespace Tunnel::TunnelTable
