// A FIB and RIBs whose file system is full: what finds no space waits and comes, whatever else happens meanwhile.
#include <malloc.h>

#include <ctime>

#include "tests/support/NaiveFib.h"
#include "tests/support/RibScene.h"
#include "tests/support/TightStore.h"

namespace Tunnel::TunnelTable {
namespace {

constexpr unsigned plenty = 3000;

// Of this process: a busy machine does not count.
double cpuSeconds() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// Whether the FIB is in a tmpfs, and how many reviews a slice has (0: no end).
struct FullFib : testing::TestWithParam<std::tuple<bool, unsigned>> {
  void publish(unsigned first, unsigned label) {
    for (unsigned i = first; i < first + plenty; ++i) {
      scene.put(scene.ldp(i, {via("if1", {label + i})}));
    }
  }
  void advance(double seconds) { Quor::advance(*scene.scheduler, scene.time, seconds); }

  // Three thousand tunnels and as many others as find space; thousands wait.
  void fill() {
    scene.yieldEvery(std::get<1>(GetParam()));
    publish(0, 100);
    scene.put(scene.sr(1, {via("tunnel:ldpTunnel/7", {17})}));
    scene.settle();
    space.isFullIs(true);
    publish(plenty, 100);
    publish(2 * plenty, 100);
    advance(0.9);  // the first round
    EXPECT_GT(scene.sm->heldUp(), plenty);
    EXPECT_EQ(scene.fib->entry().size() + scene.sm->heldUp(), 3 * plenty + 1);
    EXPECT_EQ(scene.sm->tunnelForReviews(), 0U);
    EXPECT_FALSE(scene.sm->task().taskScheduled());
    EXPECT_TRUE(scene.sm->retryTask().taskScheduled());
  }

  void TearDown() override { space.isFullIs(false); }

  const Memtab::TightSpace space{std::get<0>(GetParam())};
  FibScene scene{Zol::make<TunnelFib>("fib", space.store("fib", TunnelFib::layout()))};
};

// Fails if the process stops, a tunnel is forgotten, counts run away, or a withdrawal waits for space.
TEST_P(FullFib, waitsForSpace) {
  fill();
  scene.sweepReferences();

  LdpTunnelTableEntry wide = scene.ldp(7, {});
  for (unsigned i = 1; i <= 512; ++i) {
    wide.viaRef().append(via("if" + std::to_string(i), {900'000 + i}));
  }
  for (unsigned i = 0; i < 8; ++i) {  // more than the reserve lends
    wide.tunnelIdIs(tunnel("ldpTunnel/" + std::to_string(i)));
    scene.put(wide);
  }
  scene.del(scene.ldp(8, {}));
  const std::uint64_t units = scene.scheduler->counters().units;
  advance(0.9);
  EXPECT_LE(scene.scheduler->counters().units, units + 100) << "a round retries a few";
  EXPECT_EQ(scene.entry("ldpTunnel/8").tunnelVias(), 0U);
  unsigned widened = 0;
  for (unsigned i = 0; i < 8; ++i) {
    const std::string id = "ldpTunnel/" + std::to_string(i);
    const std::size_t vias = scene.entry(id).tunnelVias();
    EXPECT_EQ(vias, scene.sm->isHeldUp(tunnel(id)) ? 1U : 512U) << id;
    widened += vias == 512 ? 1U : 0U;
  }
  EXPECT_TRUE(widened > 0 && widened < 8) << widened;
  scene.sweepReferences();

  space.isFullIs(false);
  advance(2);
  EXPECT_EQ(scene.sm->tunnelForReviews() + scene.sm->heldUp(), 0U);
  EXPECT_EQ(scene.entry("srTunnel/1").tunnelVias(), 512U);
  EXPECT_EQ(scene.document(), NaiveFib(scene).document());
}

// Fails if a full FIB delays a replacement or a withdrawal, a waiting tunnel does not enter as soon as there is space,
// the number of waiting tunnels is wrong between two slices, or refusals leave something in memory. Sixty changes a
// second; OVERLOAD_SECONDS says how long.
TEST_P(FullFib, delaysNoOtherChange) {
  fill();
  const char* const configured = std::getenv("OVERLOAD_SECONDS");
  const unsigned changes = 60 * (configured != nullptr ? static_cast<unsigned>(std::stoul(configured)) : 5);
  std::size_t deleted = 0;
  unsigned deletions = 0;
  std::size_t followed = 0;  // by a waiting tunnel that takes the place
  double slowest = 0;
  const auto change = [&](auto&& make) {
    const double begin = cpuSeconds();
    make();
    advance(0.016);
    slowest = std::max(slowest, cpuSeconds() - begin);
    ASSERT_EQ(scene.sm->heldUp() + scene.fib->entry().size() + deleted, 3 * plenty + 1);
  };
  std::size_t bytes = 0;
  unsigned changed = 0;
  for (unsigned i = 0; i < changes && !HasFailure(); ++i) {
    do {
      changed = (changed + 7) % plenty;
    } while (changed == 7 || !scene.fib->entry().has(TunnelId(TunnelType::ldpTunnel, changed)));
    const std::string id = "ldpTunnel/" + std::to_string(changed);
    const unsigned label = 500'000 + i % 500'000;
    if (i % 3 != 0) {
      change([&] { scene.put(scene.ldp(changed, {via("if2", {label}, "10.0.0.9")})); });
      ASSERT_EQ(scene.shown(id), "if2 10.0.0.9 labelStack push [" + std::to_string(label) + "]");
    } else {
      const std::size_t before = scene.fib->entry().size();
      ++deleted;
      change([&] { scene.del(scene.ldp(changed, {})); });
      ASSERT_FALSE(scene.fib->entry().has(tunnel(id)));
      followed += scene.fib->entry().size() + 1 - before;
      ++deletions;
      --deleted;
      change([&] { scene.put(scene.ldp(changed, {via("if3", {100 + changed})})); });
    }
    if (i == changes / 2) {
      bytes = mallinfo2().uordblks;
    }
  }
  EXPECT_GE(followed * 4, deletions * 3) << "of " << deletions;
  EXPECT_LE(mallinfo2().uordblks, bytes + 65536);
  EXPECT_LT(slowest, 0.05) << "seconds of processor time";
  std::printf("%u changes, the slowest %.1f ms; %zu of %u places taken; memory %+lld bytes\n", changes, slowest * 1000,
              followed, deletions, static_cast<long long>(mallinfo2().uordblks) - static_cast<long long>(bytes));
  scene.sweepReferences();
}
INSTANTIATE_TEST_SUITE_P(, FullFib, testing::Combine(testing::Bool(), testing::Values(0U, 150U)));

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
  scene.advance(1.5);
  EXPECT_FALSE(scene.scheduler->hasTasks());
  scene.expectRibs();
}

// RIBs without space, and 513 tunnels at each of two endpoints that they lack. In turn these come first, whether turns
// begin at the first hash or at that of the zero prefix.
struct CrowdedRib : testing::Test {
  CrowdedRib() {
    publish(0, plenty);
    scene.settle();
    *isFull = true;
    publish(plenty, 3 * plenty);
    scene.advance(0);
    for (unsigned i = 0; i < 513; ++i) {
      scene.sr(i, wide);
      scene.sr(1000 + i, wide2);
    }
    scene.advance(3);
  }
  static Ipkit::IpGenPrefix firstInTurn(std::uint32_t start) {
    const auto turn = [start](unsigned i) { return tep(i).hash() - start; };
    std::uint32_t first = ~0U;
    for (unsigned i = 0; i < 3 * plenty; ++i) {
      first = std::min(first, turn(i));
    }
    unsigned i = 3 * plenty;
    while (turn(i) >= first) {
      ++i;
    }
    return tep(i);
  }
  void publish(unsigned first, unsigned last) {
    for (unsigned i = first; i < last; ++i) {
      scene.ldp(i, tep(i));
    }
  }

  const std::shared_ptr<bool> isFull = std::make_shared<bool>(false);
  RibScene scene{0, isFull};
  const Ipkit::IpGenPrefix wide = firstInTurn(0);
  const Ipkit::IpGenPrefix wide2 = firstInTurn(Ipkit::IpGenPrefix().hash());
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
