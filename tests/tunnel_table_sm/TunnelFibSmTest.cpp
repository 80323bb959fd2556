// Scenes of the tunnel FIB's state machine. What must hold after every one of them is swept when the scene goes.
#include "tests/support/NaiveFib.h"

namespace Tunnel::TunnelTable {
namespace {

using Op = Ipkit::MplsLabelOperation::Op;

void expectNaive(FibScene& scene) { EXPECT_EQ(scene.document(), NaiveFib(scene).document()); }

// Fails if somebody swaps bottom and top of the stack, or shifts the limit of 7 labels.
TEST(TunnelFibSm, labelStacksJoin) {
  struct Case {
    int line;
    Labels own, next;
    std::string joined;  // empty: unprogrammable
  };
  for (const Case& c : {Case{__LINE__, {17}, {300123}, "if12 0.0.0.0 labelStack push [300123, 17]"},
                        Case{__LINE__, {1, 2, 3}, {4, 5, 6, 7}, "if12 0.0.0.0 labelStack push [4, 5, 6, 7, 1, 2, 3]"},
                        Case{__LINE__, {1, 2, 3}, {4, 5, 6, 7, 8}, ""}}) {
    FibScene scene;
    scene.put(scene.ldp(5, {via("if12", c.next)}));
    scene.put(scene.sr(9, {via("tunnel:ldpTunnel/5", c.own)}));
    scene.settle();
    EXPECT_EQ(scene.shown("srTunnel/9"), c.joined) << "case in line " << c.line;
    EXPECT_EQ(scene.isUnprogrammable("srTunnel/9"), c.joined.empty()) << "case in line " << c.line;
  }
}

// Fails if labels are put on top of an outer encapsulation that the FIB cannot keep, or if a nexthop group is refused.
TEST(TunnelFibSm, labelsThroughOtherEncapsulations) {
  FibScene scene;
  scene.put(scene.gre(1, {via("if1")}, "192.0.2.10"));
  scene.put(scene.nexthopGroup(1, 4));
  scene.put(scene.sr(1, {via("tunnel:l3IntfTunnel/1", {17})}));
  scene.put(scene.sr(2, {via("tunnel:nexthopGroupTunnel/1", {17})}));
  scene.settle();
  EXPECT_TRUE(scene.isUnprogrammable("srTunnel/1"));
  EXPECT_EQ(scene.shown("srTunnel/2"), "nexthopGroup:4 0.0.0.0 labelStack push [17]");
}

// Fails if an operation that is no push gets into the FIB, or leaves next levels behind.
TEST(TunnelFibSm, onlyPushesAreUsed) {
  FibScene scene;
  scene.put(scene.ldp(5, {via("if12", {30})}));
  scene.put(scene.bgpLuPush(1, {via("tunnel:ldpTunnel/5", {}, "0.0.0.0", Op::swap)}));
  scene.put(scene.staticTunnel(1, {via("if1", {5})}, {via("if2", {6}, "0.0.0.0", Op::pop)}));
  scene.settle();
  EXPECT_TRUE(scene.isUnprogrammable("bgpLuPushTunnel/1"));
  EXPECT_TRUE(scene.isUnprogrammable("staticTunnel/1"));
  EXPECT_TRUE(scene.sm->directlyDependentTunnels(tunnel("ldpTunnel/5")).empty());
}

// Fails if the 512th via of either kind is refused or the 513th written.
TEST(TunnelFibSm, viaLimits) {
  const auto direct = [](unsigned first, unsigned count) {
    std::vector<MplsVia> vias;
    for (unsigned i = 0; i < count; ++i) {
      vias.push_back(via("if" + std::to_string(first + i), {16}));
    }
    return vias;
  };
  FibScene scene;
  scene.put(scene.ldp(1, direct(1, 511)));
  scene.put(scene.ldp(2, direct(1000, 1)));
  scene.put(scene.ldp(3, direct(2000, 1)));
  scene.put(scene.ldp(4, direct(1, 1)));
  scene.put(scene.sr(1, {via("tunnel:ldpTunnel/1"), via("tunnel:ldpTunnel/2"), via("tunnel:ldpTunnel/4")}));
  scene.put(scene.sr(2, {via("tunnel:ldpTunnel/1"), via("tunnel:ldpTunnel/2"), via("tunnel:ldpTunnel/3")}));
  scene.settle();
  EXPECT_EQ(scene.entry("srTunnel/1").tunnelVias(), 512U);
  EXPECT_TRUE(scene.isUnprogrammable("srTunnel/2"));
  scene.del(scene.ldp(3, {}));
  scene.settle();
  EXPECT_EQ(scene.entry("srTunnel/2").tunnelVias(), 512U);
}

// Fails if one review joins 512 x 512 vias, or forgets the next levels of those that it does not join any more.
TEST(TunnelFibSm, joiningStopsWhenThereAreTooMany) {
  FibScene scene;
  std::vector<MplsVia> wide;
  for (unsigned i = 1; i <= 512; ++i) {
    wide.push_back(via("if" + std::to_string(i), {16}));
  }
  std::vector<MplsVia> through;
  for (unsigned i = 0; i < 512; ++i) {
    scene.put(scene.ldp(i, wide));
    through.push_back(via("tunnel:ldpTunnel/" + std::to_string(i), {17 + i}));
  }
  scene.settle();
  scene.put(scene.sr(1, through));
  scene.settle();
  EXPECT_TRUE(scene.isUnprogrammable("srTunnel/1"));
  EXPECT_LE(scene.sm->finding(tunnel("srTunnel/1")).entry.viaInfos(), 1024U);
  EXPECT_EQ(scene.sm->tunnelsDirectlyDependingOn(tunnel("srTunnel/1")).size(), 512U);
}

// Fails if a ring flaps for ever, keeps a via into the ring, or stays broken after it has been opened at any edge.
TEST(TunnelFibSm, ringsOpenAndClose) {
  for (unsigned size = 1; size <= 5; ++size) {
    for (unsigned opened = 0; opened < size; ++opened) {
      FibScene scene;
      const auto member = [&](unsigned i, bool closed) {
        std::vector<MplsVia> vias{via("if" + std::to_string(i + 1), {100 + i})};
        if (closed) {
          vias.push_back(via("tunnel:srTunnel/" + std::to_string((i + 1) % size), {200 + i}));
        }
        return scene.sr(i, vias);
      };
      for (unsigned i = 0; i < size; ++i) {
        scene.put(member(i, true));
      }
      scene.settle();
      expectNaive(scene);
      for (unsigned i = 0; i < size; ++i) {
        EXPECT_EQ(scene.entry("srTunnel/" + std::to_string(i)).tunnelVias(), 1U) << size;
      }
      scene.put(member(opened, false));
      scene.settle();
      expectNaive(scene);
      EXPECT_EQ(scene.entry("srTunnel/" + std::to_string((opened + 1) % size)).tunnelVias(), size) << size;
    }
  }
}

// Fails if a cycle is seen in an order of edges that no longer is one.
TEST(TunnelFibSm, edgesThatTurnRound) {
  FibScene scene;
  const auto direct = via("if1");
  scene.put(scene.sr(2, {direct}));
  scene.put(scene.sr(1, {via("tunnel:srTunnel/2")}));
  scene.settle();
  scene.put(scene.sr(2, {via("tunnel:srTunnel/1")}));
  scene.put(scene.sr(1, {direct}));
  scene.settle();
  EXPECT_EQ(scene.shown("srTunnel/2"), scene.shown("srTunnel/1"));
  expectNaive(scene);
}

// Fails if somebody adds RSVP to the look-up that others ask, or removes its own: a start must not delete the entry.
TEST(TunnelFibSm, rsvpAndTiLfaHaveEntriesOfTheirOwn) {
  FibScene scene;
  scene.put(scene.rsvp(1, {via("if1", {7})}));
  scene.put(scene.tiLfa(1, {via("if1", {8})}, {via("if2", {9})}));
  scene.settle();
  const FibDocument before = scene.document();
  EXPECT_EQ(before.size(), 2U);
  const std::uint64_t writes = scene.writes();
  scene.restart();
  scene.settle();
  EXPECT_EQ(scene.document(), before);
  EXPECT_EQ(scene.writes(), writes);
  EXPECT_TRUE(!scene.sm->tunnelTableEntry(tunnel("rsvpTunnel/1")));
}

// Fails if entries of tunnels that went while nobody watched stay, or if the unprogrammable ones do.
TEST(TunnelFibSm, startRemovesWhatIsGone) {
  FibScene scene;
  scene.put(scene.ldp(1, {via("if1")}));
  scene.put(scene.ldp(2, {}));
  scene.settle();
  scene.sm = nullptr;
  scene.del(scene.ldp(1, {}));
  scene.del(scene.ldp(2, {}));
  scene.restart();
  EXPECT_FALSE(scene.fib->entry().has(tunnel("ldpTunnel/1")));  // before any review
  scene.settle();
  EXPECT_TRUE(scene.document().empty());
}

// Fails if an interface table hides another, or the wrong one of two wins.
TEST(TunnelFibSm, interfaceTablesShareIds) {
  FibScene scene;
  const auto inner = scene.interface<IpsecGreIntfTunnelTableEntry>(1, {via("if1")}, "192.0.2.1", "192.0.2.2");
  scene.put(inner);
  scene.settle();
  EXPECT_EQ(scene.entry("l3IntfTunnel/1").tunnelVia(0).encapId().encapType(), EncapType::ipsecGre);
  scene.put(scene.gre(1, {via("if1")}, "192.0.2.3"));
  scene.settle();
  EXPECT_EQ(scene.entry("l3IntfTunnel/1").tunnelVia(0).encapId().encapType(), EncapType::gre);
}

// Fails if a slice that yielded loses its place, or the next one does not wait.
TEST(TunnelFibSm, slicesYieldAndGoOn) {
  FibScene scene;
  scene.yieldEvery(2);
  scene.settle();
  for (unsigned i = 0; i < 5; ++i) {
    scene.put(scene.ldp(i, {via("if1")}));
    scene.put(scene.ldp(i, {via("if2")}));
  }
  EXPECT_EQ(scene.sm->tunnelForReviews(), 5U);
  const double begin = scene.time.now();
  EXPECT_TRUE(scene.scheduler->runReadyTask());
  EXPECT_EQ(scene.sm->tunnelForReviews(), 3U);
  EXPECT_NE(scene.sm->tunnelReviewBookmark(), TunnelId());
  EXPECT_FALSE(scene.scheduler->runReadyTask());
  EXPECT_DOUBLE_EQ(*scene.scheduler->nextTaskDeadline(), begin + 0.01);
}

// Fails if a start computes tunnels before what they leave through, and then again; or if one review may hold many.
TEST(TunnelFibSm, nextLevelsComeFirst) {
  FibScene scene;
  scene.sm = nullptr;
  std::vector<MplsVia> vias;
  for (unsigned i = 0; i < 100; ++i) {
    const std::string below = "tunnel:ldpTunnel/" + std::to_string(i);
    vias.push_back(via(below.c_str(), {17}));
    scene.put(scene.ldp(i, {via("if1", {100 + i})}));
    scene.put(scene.bgpLu(i, {vias.back()}));
  }
  const std::uint64_t before = scene.scheduler->counters().units;
  scene.restart();
  scene.settle();
  EXPECT_EQ(scene.scheduler->counters().units - before, 200U);
  expectNaive(scene);

  scene.put(scene.sr(1, vias));
  scene.settle();
  scene.yieldEvery(1);
  scene.settle();
  for (unsigned i = 0; i < 100; ++i) {
    scene.put(scene.ldp(i, {via("if2", {200 + i})}));
  }
  scene.put(scene.sr(1, vias));
  while (scene.sm->tunnelForReviews() > 0) {
    const std::uint64_t slice = scene.scheduler->counters().units;
    scene.runSlices(1);
    EXPECT_LE(scene.scheduler->counters().units - slice, 9U);
  }
  expectNaive(scene);
}

// Fails if a tunnel that is filed while it is reviewed is taken out of the backlog with the review's end.
TEST(TunnelFibSm, filedDuringItsOwnReview) {
  struct Publisher : Zol::Listener<TunnelId> {
    explicit Publisher(FibScene& scene) : scene_(scene) { channelIs(&scene.fib->entryChannel()); }
    void onKey(const TunnelId&) override { scene_.put(scene_.ldp(1, {via("if2")})); }
    FibScene& scene_;
  };
  FibScene scene;
  {
    Publisher publisher(scene);
    scene.put(scene.ldp(1, {via("if1")}));
    scene.settle();
  }
  expectNaive(scene);
}

// Fails if a review reads what it must not: tables that nobody publishes; or if tunnels outlive their table.
TEST(TunnelFibSm, tablesMayBeAbsent) {
  FibScene scene;
  scene.put(scene.ldp(2, {via("if2")}));
  scene.put(scene.ldp(3, {}));
  scene.put(scene.sr(1, {via("tunnel:ldpTunnel/1"), via("if1")}));
  scene.settle();
  scene.sm->ldpTableDel();
  scene.settle();
  EXPECT_EQ(scene.document().size(), 1U);
  EXPECT_EQ(scene.entry("srTunnel/1").tunnelVias(), 1U);
  scene.put(scene.ldp(1, {via("if2")}));
  scene.sm->ldpTableIs(&scene.table<LdpTunnelTableEntry>());
  scene.settle();
  EXPECT_EQ(scene.entry("srTunnel/1").tunnelVias(), 2U);
  EXPECT_EQ(scene.document().size(), 4U);
}

TEST(TunnelFibSm, contributionFollowsTypeAndBgp) {
  FibScene scene;
  scene.put(scene.bgpLu(1, {via("if1", {3})}, Contribution::notContributing));
  scene.put(scene.bgpLu(2, {via("if1", {3})}));
  scene.settle();
  for (const auto& [id, contributes] : std::map<TunnelId, bool>{{tunnel("bgpLuTunnel/1"), false},
                                                                {tunnel("bgpLuTunnel/2"), true},
                                                                {tunnel("bgpLuTunnel/3"), false},
                                                                {tunnel("rsvpTunnel/3"), true},
                                                                {tunnel("nexthopGroupTunnel/3"), true},
                                                                {tunnel("l3IntfTunnel/3"), true},
                                                                {tunnel("tunnelType6/3"), false},
                                                                {TunnelId(0xD00000000001), false}}) {
    EXPECT_EQ(scene.sm->tunnelContributesToTunnelFib(id), contributes) << id;
  }
  EXPECT_EQ(scene.document().size(), 1U);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
