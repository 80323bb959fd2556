// Deferral: an entry that forwards stays until all tunnels that it resolves through are settled.
#include "tests/support/HiddenTable.h"
#include "tests/support/NaiveFib.h"
#include "tests/support/TightStore.h"

namespace Tunnel::TunnelTable {
namespace {

// Fails the test when the entry of a tunnel has fewer vias than before, or loses one that must stay.
struct Guard : Zol::Listener<TunnelId> {
  Guard(const FibScene& scene, const std::string& id, const std::string& stays = "")
      : scene_(scene), id_(id), stays_(stays) {
    channelIs(&scene.fib->entryChannel());
  }
  void onKey(const TunnelId& id) override {
    if (id == tunnel(id_)) {
      EXPECT_GE(scene_.entry(id_).tunnelVias(), vias_) << id_ << " is narrower";
      EXPECT_NE(scene_.shown(id_).find(stays_), std::string::npos) << id_ << " has " << scene_.shown(id_);
      vias_ = scene_.entry(id_).tunnelVias();
    }
  }
  const FibScene& scene_;
  const std::string id_, stays_;
  std::size_t vias_ = scene_.entry(id_).tunnelVias();
};

std::string through(TunnelType type, std::uint64_t index) { return "tunnel:" + Zol::stringOf(TunnelId(type, index)); }

// Longer than the reviews that one review may hold.
constexpr std::uint64_t longChain = 30;
void putChain(FibScene& scene, TunnelType type, const std::string& lastIntf) {
  for (std::uint64_t i = 1; i <= longChain; ++i) {
    scene.put(type, i, {i < longChain ? via(through(type, i + 1)) : via(lastIntf, {7})});
  }
}

// Fails if a tunnel that moves to a next level of any type loses its vias before that next level has been reviewed.
TEST(FibDeferral, nextLevelsOfEveryTypeAreWaitedFor) {
  for (const TunnelType type : FibScene::mplsTypes) {
    for (std::uint64_t mover = 100; mover < 108; ++mover) {
      SCOPED_TRACE(Zol::stringOf(type) + " " + std::to_string(mover));
      FibScene scene;
      scene.yieldEvery(1);
      const std::string id = "srTunnel/" + std::to_string(mover);
      scene.put(scene.sr(mover, {via("if1", {7}), via("if2", {7})}));
      scene.settle();
      const Guard guard(scene, id);
      putChain(scene, type, "if1");
      scene.put(scene.nexthopGroup(1, 4));
      scene.put(scene.sr(mover, {via(through(type, 1)), via("tunnel:nexthopGroupTunnel/1", {7}), via("if3")}));
      scene.settle();
      EXPECT_EQ(scene.entry(id).tunnelVias(), 3U);
      EXPECT_EQ(scene.document(), NaiveFib(scene).document());
    }
  }
}

// Fails if a tunnel with two next levels is narrowed because one of them, or a tunnel further down, is queued.
TEST(FibDeferral, deeperLevelsAreWaitedFor) {
  for (std::uint64_t mover = 100; mover < 116; ++mover) {
    FibScene scene;
    scene.put(scene.ldp(3, {via("if9", {7})}));
    scene.put(scene.ldp(2, {via("tunnel:ldpTunnel/3")}));
    scene.put(scene.ldp(1, {via("tunnel:ldpTunnel/2")}));
    const std::string id = "srTunnel/" + std::to_string(mover);
    scene.put(scene.sr(mover, {via("if1", {7}), via("if2", {7})}));
    scene.yieldEvery(1);
    scene.settle();
    const Guard guard(scene, id, "if2 0.0.0.0 labelStack push [7]");
    scene.put(scene.ldp(3, {via("if2", {7})}));
    scene.put(scene.sr(mover, {via("tunnel:ldpTunnel/1"), via("if1", {7})}));
    scene.settle();
    EXPECT_EQ(scene.document(), NaiveFib(scene).document());
  }
}

// Fails if a cycle is taken for granted whose edges a queued tunnel removes.
TEST(FibDeferral, queuedTunnelsMayOpenCycles) {
  for (std::uint64_t first = 0; first < 12; ++first) {
    FibScene scene;
    const auto name = [&](std::uint64_t i) { return "srTunnel/" + std::to_string(first + i); };
    scene.put(scene.sr(first, {via("if1")}));
    scene.put(scene.sr(first + 2, {via("tunnel:" + name(0))}));
    scene.put(scene.sr(first + 1, {via("tunnel:" + name(2))}));
    scene.yieldEvery(1);
    scene.settle();
    const Guard guard(scene, name(0));
    scene.put(scene.sr(first, {via("tunnel:" + name(1))}));
    scene.put(scene.sr(first + 2, {via("if2")}));
    scene.settle();
    EXPECT_EQ(scene.shown(name(0)), scene.shown(name(2))) << first;
  }
}

// Fails if, during a start, a tunnel that has been reviewed moves to one that has not, and is withdrawn for that.
TEST(FibDeferral, markedNextLevelsAreWaitedFor) {
  for (const TunnelType type : FibScene::mplsTypes) {
    FibScene scene;
    putChain(scene, type, "if2");
    scene.put(scene.sr(100, {via("if1")}));
    scene.settle();
    scene.yieldEvery(1);
    scene.sm->updateTunnelFibEntry(tunnel("srTunnel/100"));
    ASSERT_FALSE(scene.sm->tunnelFibEntryMarkedUnprocessed(tunnel("srTunnel/100")));
    const Guard guard(scene, "srTunnel/100");
    scene.put(scene.sr(100, {via(through(type, 1))}));
    scene.sm->updateTunnelFibEntry(tunnel("srTunnel/100"));
    EXPECT_EQ(scene.shown("srTunnel/100"), "if1 0.0.0.0 labelStack push []") << type;
    scene.settle();
    EXPECT_EQ(scene.shown("srTunnel/100"), "if2 0.0.0.0 labelStack push [7]") << type;
  }
}

// Fails if a deferred tunnel is forgotten, or its old entry is withdrawn while it waits.
TEST(FibDeferral, deferredTunnelsComeBack) {
  FibScene scene;
  scene.put(scene.ldp(3, {}));
  scene.put(scene.ldp(1, {via("if1", {101})}));
  scene.settle();
  const std::string old = scene.shown("ldpTunnel/1");
  // Reviewed one at a time, in any order: the old entry may only go when ldpTunnel/3 has been reviewed.
  scene.yieldEvery(1);
  scene.settle();
  auto emptied = scene.ldp(3, {});
  emptied.prefIs(60);
  scene.put(scene.ldp(1, {via("tunnel:ldpTunnel/3")}));
  scene.put(emptied);
  while (scene.sm->isWaiting(tunnel("ldpTunnel/3"))) {
    EXPECT_EQ(scene.shown("ldpTunnel/1"), old);
    scene.runSlices(1);
  }
  scene.settle();
  EXPECT_TRUE(scene.isUnprogrammable("ldpTunnel/1"));
  scene.put(scene.ldp(3, {via("if3", {103})}));
  scene.settle();
  EXPECT_EQ(scene.shown("ldpTunnel/1"), scene.shown("ldpTunnel/3"));
}

// Fails if a tunnel is withdrawn because its next level, published before it, is notified after it.
TEST(FibDeferral, newsMayComeInAnyOrder) {
  for (const TunnelType type : FibScene::mplsTypes) {
    for (const bool wasUnprogrammable : {false, true}) {
      SCOPED_TRACE(Zol::stringOf(type) + (wasUnprogrammable ? " unprogrammable before" : ""));
      FibScene scene;
      scene.put(scene.sr(1, {via("if1", {101})}));
      if (wasUnprogrammable) {
        scene.put(type, 3, {});
      }
      scene.settle();
      const Guard guard(scene, "srTunnel/1");
      scene.put(type, 3, {via("if3", {103})});
      scene.sm->tunnelForReviewDel(TunnelId(type, 3));
      scene.put(scene.sr(1, {via(through(type, 3))}));
      scene.settle();
      scene.sm->tunnelForReviewIs(TunnelId(type, 3), true);
      scene.settle();
      EXPECT_EQ(scene.shown("srTunnel/1"), "if3 0.0.0.0 labelStack push [103]");
    }
  }
}

// Fails if next levels that change in every slice keep a tunnel over them from ever being updated.
TEST(FibDeferral, constantChangeFreezesNoTunnel) {
  constexpr unsigned nextLevels = 20;
  FibScene scene;
  scene.yieldEvery(1);
  std::vector<MplsVia> vias;
  const auto flap = [&](unsigned turn) {
    for (unsigned i = 0; i < nextLevels; ++i) {
      scene.put(scene.ldp(i, {via("if1", {100 + (turn + i) % 2})}));
    }
  };
  for (unsigned i = 0; i < nextLevels; ++i) {
    vias.push_back(via("tunnel:ldpTunnel/" + std::to_string(i), {200 + i}));
  }
  flap(0);
  scene.put(scene.sr(1, vias));
  scene.settle();
  vias.push_back(via("if9"));
  scene.put(scene.sr(1, vias));
  unsigned turn = 0;
  while (scene.entry("srTunnel/1").tunnelVias() == nextLevels && turn < 10000) {
    flap(++turn);
    scene.runSlices(1);
  }
  EXPECT_LT(turn, 10000U);
}

// Fails if a tunnel loses vias by its move to a next level that finds no space, or if a new tunnel waits for that.
TEST(FibDeferral, entriesStayUntilNextLevelsFindSpace) {
  const auto isFull = std::make_shared<bool>(false);
  FibScene scene(Zol::make<TunnelFib>("fib", Zol::make<Memtab::TightStore>(TunnelFib::layout(), isFull)));
  const auto advance = [&] { Quor::advance(*scene.scheduler, scene.time, 3); };
  scene.put(scene.sr(1, {via("if1", {7}), via("if2", {7})}));
  scene.settle();
  *isFull = true;
  FibScene::Vias wide;
  for (unsigned i = 1; i <= 512; ++i) {
    wide.push_back(via("if" + std::to_string(i), {7}));
  }
  std::uint64_t last = 0;
  for (; scene.sm->heldUp() == 0 && last < 1000; advance()) {
    scene.put(scene.ldp(++last, wide));
  }
  ASSERT_EQ(scene.entry("ldpTunnel/" + std::to_string(last)).tunnelVias(), 0U);
  const Guard guard(scene, "srTunnel/1", "if2 0.0.0.0 labelStack push [7]");
  const FibScene::Vias moved{via(through(TunnelType::ldpTunnel, last)), via("if1", {7})};
  scene.put(scene.sr(1, moved));
  scene.put(scene.sr(2, moved));
  advance();
  EXPECT_EQ(scene.entry("srTunnel/1").tunnelVias(), 2U);
  EXPECT_EQ(scene.shown("srTunnel/2"), "if1 0.0.0.0 labelStack push [7]");
  *isFull = false;
  scene.settle();
  EXPECT_EQ(scene.document(), NaiveFib(scene).document());
}

// Fails if a tunnel that was deferred when its table became unreadable freezes the tunnels over it.
TEST(FibDeferral, heldUpTunnelsFreezeNoOther) {
  FibScene scene;
  scene.sweepIsOff();
  scene.put(scene.ldp(5, {via("if5", {5})}));
  scene.put(scene.sr(9, {via("tunnel:ldpTunnel/5", {9})}));
  scene.yieldEvery(1);
  scene.settle();
  for (std::uint64_t i = 1; i <= 60; ++i) {
    scene.put(scene.rsvp(i, {i < 60 ? via("tunnel:rsvpTunnel/" + std::to_string(i + 1)) : via("if7", {7})}));
  }
  scene.put(scene.ldp(5, {via("tunnel:rsvpTunnel/1", {5})}));
  const TunnelId ldp = tunnel("ldpTunnel/5");
  for (int n = 0; n < 1000 && (!scene.sm->isWaiting(ldp) || scene.sm->tunnelForReview(ldp)); ++n) {
    scene.runSlices(1);
  }
  ASSERT_TRUE(scene.sm->isWaiting(ldp) && !scene.sm->tunnelForReview(ldp)) << "deferred";
  const Support::HiddenTable hidden(scene.table<LdpTunnelTableEntry>());
  scene.runSlices(500);
  ASSERT_TRUE(scene.sm->isHeldUp(ldp));
  scene.put(scene.sr(9, {via("if1", {1}), via("tunnel:ldpTunnel/5", {9})}));
  scene.runSlices(500);
  EXPECT_EQ(scene.shown("srTunnel/9").find("if1"), 0U) << scene.shown("srTunnel/9");
}

}  // namespace
}  // namespace Tunnel::TunnelTable
