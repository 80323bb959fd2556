// Seeded scenarios against a recomputation from scratch. A seed makes the script: writes and deletes over few ids, so
// that tunnels resolve through each other, in cycles too; slices cut short; restarts in the middle. Whatever the order,
// the FIB after each settling must be the one that follows from the tables.
#include <random>

#include "tests/support/NaiveFib.h"

namespace Tunnel::TunnelTable {
namespace {

class Script {
 public:
  Script(FibScene& scene, unsigned seed) : scene_(scene), random_(seed) {}

  unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }

  void step() {
    const unsigned index = below(3);
    switch (below(11)) {
      case 0:
        return change(FibScene::sr(index, vias()));
      case 1:
        return change(FibScene::ldp(index, vias()));
      case 2:
        return change(FibScene::bgpLuPush(index, vias(below(8) == 0)));
      case 3:
        return change(
            FibScene::bgpLu(index, vias(), below(4) == 0 ? Contribution::notContributing : Contribution::contributing));
      case 4:
        return change(FibScene::staticTunnel(index, vias(below(8) == 0), backups()));
      case 5:
        return change(FibScene::segmentList(index, vias()));
      case 6:
        return change(FibScene::rsvp(index, vias()));
      case 7:
        return change(FibScene::tiLfa(index, vias(), backups()));
      case 8:
        return change(FibScene::nexthopGroup(index, below(2)));
      case 9:
        return change(FibScene::gre(index, backups(), below(2) == 0 ? "192.0.2.10" : "192.0.2.11"));
      default:
        return change(FibScene::interface<IpsecVtiIntfTunnelTableEntry>(index, backups(), "192.0.2.9", "192.0.2.12"));
    }
  }

 private:
  template <class Entry>
  void change(const Entry& entry) {
    below(3) == 0 ? scene_.del(entry) : scene_.put(entry);
  }

  MplsVia direct() { return via("if" + std::to_string(1 + below(2)), labels(), "192.0.2." + std::to_string(below(2))); }
  Labels labels() {
    Labels labels(below(3) == 0 ? below(5) : 1);
    for (auto& label : labels) {
      label = 16 + below(4);
    }
    return labels;
  }
  std::vector<MplsVia> vias(bool swaps = false) {
    static const char* const types[] = {"srTunnel",           "ldpTunnel",   "bgpLuPushTunnel", "bgpLuTunnel",
                                        "staticTunnel",       "rsvpTunnel",  "tiLfaTunnel",     "srTeSegmentListTunnel",
                                        "nexthopGroupTunnel", "l3IntfTunnel"};
    std::vector<MplsVia> vias;
    for (unsigned count = below(4); count > 0; --count) {
      const std::string next = std::string(types[below(std::size(types))]) + "/" + std::to_string(below(3));
      vias.push_back(below(3) == 0 ? direct() : via("tunnel:" + next, labels()));
      if (swaps) {
        vias.back().labelOpIs(Ipkit::MplsLabelOperation(Ipkit::MplsLabelOperation::Op::swap, {}));
      }
    }
    return vias;
  }
  std::vector<MplsVia> backups() {
    std::vector<MplsVia> vias;
    for (unsigned count = below(3); count > 0; --count) {
      vias.push_back(direct());
    }
    return vias;
  }

  FibScene& scene_;
  std::mt19937 random_;
};

// Fails if anything but the tables decides what is in the FIB: order of reviews, yields, restarts, deferral, cycles.
TEST(FibRandom, equalsTheFibThatFollowsFromTheTables) {
  for (unsigned seed = 0; seed < 400 && !testing::Test::HasFailure(); ++seed) {
    FibScene scene;
    Script script(scene, seed);
    scene.yieldEvery(script.below(4));
    for (unsigned round = 0; round < 12; ++round) {
      for (unsigned steps = script.below(20); steps > 0; --steps) {
        script.step();
        if (script.below(4) == 0) {
          scene.runSlices(script.below(4));
        }
        if (script.below(25) == 0) {
          scene.restart();
        }
      }
      scene.settle();
      ASSERT_EQ(scene.document(), NaiveFib(scene).document()) << "seed " << seed << " round " << round;
    }
  }
}

// Fails if a start over unchanged inputs takes anything out of service, even for a moment.
TEST(FibRandom, restartWritesNothing) {
  for (unsigned seed = 1000; seed < 1200 && !testing::Test::HasFailure(); ++seed) {
    FibScene scene;
    Script script(scene, seed);
    for (unsigned steps = 0; steps < 60; ++steps) {
      script.step();
    }
    scene.settle();
    const std::uint64_t writes = scene.writes();
    unsigned changesOfSet = 0;
    struct Counter : Zol::Listener<TunnelId> {
      explicit Counter(unsigned& count, Zol::Channel<TunnelId>& channel) : count_(count) { channelIs(&channel); }
      void onKey(const TunnelId&) override { ++count_; }
      unsigned& count_;
    } counter(changesOfSet, scene.unprogrammable->entryChannel());
    scene.yieldEvery(script.below(3));
    scene.settle();
    EXPECT_EQ(scene.writes(), writes) << "seed " << seed;
    EXPECT_EQ(changesOfSet, 0U) << "seed " << seed;
  }
}

}  // namespace
}  // namespace Tunnel::TunnelTable
