// A FIB and RIBs whose file system is full: what finds no space waits and comes, whatever else happens meanwhile.
#include "tests/support/NaiveFib.h"
#include "tests/support/RibScene.h"
#include "tests/support/TightStore.h"

namespace Tunnel::TunnelTable {
namespace {

constexpr unsigned plenty = 3000;

struct FullFib : testing::TestWithParam<unsigned> {
  void publish(unsigned first, unsigned label) {
    for (unsigned i = first; i < first + plenty; ++i) {
      scene.put(scene.ldp(i, {via("if1", {label + i})}));
    }
  }
  void advance(double seconds) { Quor::advance(*scene.scheduler, scene.time, seconds); }

  std::shared_ptr<bool> isFull = std::make_shared<bool>(false);
  FibScene scene{Zol::make<TunnelFib>("fib", Zol::make<Memtab::TightStore>(TunnelFib::layout(), isFull))};
};

// Fails if the process stops, a tunnel is forgotten, counts run away, or a withdrawal waits for space.
TEST_P(FullFib, waitsForSpace) {
  scene.yieldEvery(GetParam());
  publish(0, 100);
  scene.put(scene.sr(1, {via("tunnel:ldpTunnel/7", {17})}));
  scene.settle();
  *isFull = true;
  publish(plenty, 100);
  publish(2 * plenty, 100);
  advance(0.9);  // the first round
  EXPECT_GT(scene.sm->tunnelForReviews(), 0U);
  EXPECT_EQ(scene.fib->entry().size() + scene.sm->tunnelForReviews(), 3 * plenty + 1);
  EXPECT_TRUE(scene.sm->task().taskScheduled());
  scene.sweepReferences();

  const std::string standing = scene.shown("ldpTunnel/7");
  LdpTunnelTableEntry wide = scene.ldp(7, {});
  for (unsigned i = 1; i <= 512; ++i) {
    wide.viaRef().append(via("if" + std::to_string(i), {9}));
  }
  scene.put(wide);
  scene.del(scene.ldp(8, {}));
  const std::size_t waiting = scene.sm->tunnelForReviews();
  const std::uint64_t units = scene.scheduler->counters().units;
  advance(1);
  EXPECT_LE(scene.scheduler->counters().units, units + waiting) << "once in a second";
  EXPECT_EQ(scene.shown("ldpTunnel/7"), standing);
  EXPECT_EQ(scene.entry("ldpTunnel/8").tunnelVias(), 0U);
  EXPECT_TRUE(scene.sm->isWaiting(tunnel("ldpTunnel/7")));
  scene.sweepReferences();

  *isFull = false;
  advance(2);
  EXPECT_EQ(scene.sm->tunnelForReviews(), 0U);
  EXPECT_EQ(scene.entry("srTunnel/1").tunnelVias(), 512U);
  EXPECT_EQ(scene.document(), NaiveFib(scene).document());
}
INSTANTIATE_TEST_SUITE_P(, FullFib, testing::Values(0U, 150U));

// Fails if an entry that found no space is lost, is written as it was and not as it has become, keeps others from
// their turn, or lets the RIB say that it has caught up.
TEST(FullRib, waitsForSpace) {
  const auto isFull = std::make_shared<bool>(false);
  RibScene scene(0, isFull);
  for (unsigned i = 0; i < plenty; ++i) {
    scene.ldp(i, tep(i));
  }
  scene.settle();
  *isFull = true;
  for (unsigned i = plenty; i < 3 * plenty; ++i) {
    scene.ldp(i, tep(i));
  }
  scene.bgpLuConvergence->bgpLuConvergedIs(true, 0);
  scene.advance(0);
  const std::size_t written = scene.rib()->size();
  EXPECT_LT(written, 3 * plenty);
  EXPECT_EQ(scene.builder()->tunnelForReview().size(), 0U);
  EXPECT_DOUBLE_EQ(*scene.scheduler->nextTaskDeadline(), scene.time.now() + 1);
  EXPECT_EQ(scene.convergence->tunnelRibConvergenceSeqno().size(), 0U);

  for (unsigned i = 2 * plenty; i < 3 * plenty; ++i) {
    if (i % 3 == 0) {
      scene.del("ldpTunnel/" + std::to_string(i));
    } else if (i % 3 == 1) {
      scene.sr(i, tep(i), 10);
    } else {
      scene.ldp(2 * plenty + i, tep(i));
    }
  }
  const std::size_t heldUp = scene.builder()->heldUp();
  scene.del("ldpTunnel/3");
  scene.advance(0.02);
  EXPECT_EQ(scene.shown(tep(3)), "") << "entries without space delay nothing else";
  EXPECT_LT(scene.builder()->heldUp(), heldUp) << "another entry takes its space at once";
  EXPECT_LT(scene.rib()->size(), 2 * plenty + 2 * plenty / 3);

  *isFull = false;
  scene.advance(1.5);
  EXPECT_FALSE(scene.scheduler->hasTasks());
  EXPECT_EQ(scene.convergence->tunnelRibConvergenceSeqno().size(), 1U);
  scene.expectRibs();
}

// Fails if a start over a full RIB stops the process, or forgets what it could not put right.
TEST(FullRib, startsOverOne) {
  const auto isFull = std::make_shared<bool>(false);
  RibScene scene(0, isFull);
  for (unsigned i = 0; i < 3 * plenty; ++i) {
    scene.ldp(i, tep(i / 3));
  }
  scene.settle();
  scene.configDirSm = nullptr;
  for (unsigned i = 0; i < 3 * plenty; i += 3) {
    scene.ldp(i, tep(i / 3), 60);  // the first live id says the preference: the others leave
    scene.ldp(3 * plenty + i, tep(plenty + i));
  }
  *isFull = true;
  scene.start();
  scene.advance(0);
  EXPECT_LT(scene.rib()->size(), 2 * plenty);
  *isFull = false;
  scene.advance(1);
  scene.settle();
  scene.expectRibs();
}

// RIBs without space, and 513 tunnels at an endpoint that they lack and that comes first in turn.
struct CrowdedRib : testing::Test {
  CrowdedRib() {
    std::uint32_t first = tep(0).hash();
    for (unsigned i = 0; i < 3 * plenty; ++i) {
      first = std::min(first, tep(i).hash());
    }
    for (unsigned i = 3 * plenty; wide.hash() >= first; ++i) {
      wide = tep(i);
    }
    publish(0, plenty);
    scene.settle();
    *isFull = true;
    publish(plenty, 3 * plenty);
    scene.advance(0);
    for (unsigned i = 0; i < 513; ++i) {
      scene.sr(i, wide);
    }
    scene.advance(3);
  }
  void publish(unsigned first, unsigned last) {
    for (unsigned i = first; i < last; ++i) {
      scene.ldp(i, tep(i));
    }
  }

  const std::shared_ptr<bool> isFull = std::make_shared<bool>(false);
  RibScene scene{0, isFull};
  Ipkit::IpGenPrefix wide = tep(3 * plenty);
};

// Fails if an entry that never fits keeps those after it from their turn.
TEST_F(CrowdedRib, entriesTakeTurns) {
  const std::size_t before = scene.rib()->size();
  for (unsigned i = 0; i < 10; ++i) {
    scene.del("ldpTunnel/" + std::to_string(i));
    scene.advance(0);
  }
  EXPECT_GE(scene.rib()->size(), before - 2) << "other entries take the space at once";
}

// Fails if a full entry that loses a tunnel before it is written does not let the next one in.
TEST_F(CrowdedRib, unwrittenEntriesLetWaitingTunnelsIn) {
  scene.del("srTunnel/7");
  scene.advance(0);
  scene.sr(7, wide);
  scene.advance(0);
  scene.del("srTunnel/8");
  scene.advance(0);
  ASSERT_FALSE(scene.rib()->has(wide));
  *isFull = false;
  scene.advance(1.5);
  EXPECT_FALSE(scene.scheduler->hasTasks());
  scene.expectRibs();
}

}  // namespace
}  // namespace Tunnel::TunnelTable
