// The backlog of a RIB builder, and what it does with the RIBs that it finds at its start.

#include <gtest/gtest.h>

#include "tests/support/RibScene.h"

namespace Tunnel::TunnelTable {
namespace {

const Ipkit::IpGenPrefix a = tep("10.0.0.1/32");
const Ipkit::IpGenPrefix b = tep("10.0.0.2/32");

TEST(RibBacklog, aTunnelFiledOftenIsReviewedOnce) {
  RibScene scene;
  for (const unsigned pref : {10U, 20U, 30U}) {
    scene.ldp(1, a, pref);
  }
  EXPECT_EQ(scene.builder()->tunnelForReview().size(), 1U);
  scene.settle();
  EXPECT_EQ(scene.shown(a), "30: ldpTunnel/1");
  EXPECT_EQ(scene.builder()->task()->taskWorkCount(), 1U);
}

// Fails if the bookmark is off by one, is kept after the last id, or if a slice that yielded does not wait its delay.
TEST(RibBacklog, drainsInSlicesFromItsBookmark) {
  RibScene scene(100);
  for (unsigned i = 0; i < 250; ++i) {
    scene.ldp(i, tep(i));
  }
  std::vector<TunnelId> order;
  for (auto it = scene.builder()->tunnelForReview().begin(); it; ++it) {
    order.push_back(it.key());
  }
  const Zol::Ptr<TunnelRibBuilderSm> builder = scene.builder();
  scene.scheduler->runReadyTask();
  EXPECT_EQ(scene.rib()->size(), 100U);
  EXPECT_EQ(builder->tunnelReviewBookmark(), order[100]);
  EXPECT_EQ(builder->task()->taskWorkPending(), 150U);
  EXPECT_DOUBLE_EQ(*scene.scheduler->nextTaskDeadline(), scene.scheduler->now() + 0.01);

  // Ids on both sides of the bookmark: those behind it come first, the others after the wrap-around.
  std::vector<TunnelId> before(order.begin(), order.begin() + 60);
  for (const TunnelId& id : before) {
    scene.del(Zol::stringOf(id));
  }
  scene.advance(0.01);
  EXPECT_EQ(scene.rib()->size(), 200U);
  EXPECT_EQ(builder->tunnelReviewBookmark(), order[200]);
  scene.advance(0.01);
  EXPECT_EQ(scene.rib()->size(), 200U) << "50 added, 50 deleted";
  scene.advance(0.01);
  EXPECT_EQ(scene.rib()->size(), 190U);
  EXPECT_EQ(builder->tunnelReviewBookmark(), TunnelId());
  EXPECT_FALSE(builder->task()->taskScheduled());
  EXPECT_EQ(builder->task()->taskWorkPending(), 0U);
  scene.expectRibs();
}

// Fails if an id that is filed while it is itself under review gets lost, or one filed during a drain waits for the
// next.
TEST(RibBacklog, idsFiledDuringADrainAreReviewedInIt) {
  RibScene scene;
  struct Refiler : Zol::Listener<Ipkit::IpGenPrefix> {
    explicit Refiler(RibScene& owner) : scene(owner) { channelIs(&scene.rib()->entryChannel()); }
    void onKey(const Ipkit::IpGenPrefix& endpoint) override {
      if (endpoint == a && left-- > 0) {
        scene.ldp(1, a, 100U + static_cast<unsigned>(left));  // the tunnel under review
        scene.ldp(2, b);
      }
    }
    RibScene& scene;
    int left = 3;
  } refiler(scene);
  scene.ldp(1, a);
  scene.scheduler->runReadyTask();
  EXPECT_EQ(scene.shown(a), "100: ldpTunnel/1");
  EXPECT_EQ(scene.shown(b), "55: ldpTunnel/2");
  EXPECT_TRUE(scene.builder()->tunnelForReview().empty());
}

TEST(RibBacklog, startKeepsWhatHoldsAndRemovesWhatDoesNot) {
  RibScene scene;
  for (unsigned i = 0; i < 9; ++i) {
    scene.ldp(i, tep(i / 3));  // three endpoints with three tunnels each
  }
  scene.sr(1, a);
  scene.bgpLu(1, b);
  scene.nexthopGroup(1, tep(7));
  scene.settle();
  const std::uint64_t writes = scene.writes();
  scene.restart();
  scene.settle();
  EXPECT_EQ(scene.writes(), writes) << "unchanged tables";

  // What changes while no builder is there is found by the next one before its first review.
  scene.configDirSm = nullptr;
  scene.del("ldpTunnel/0");  // gone
  scene.ldp(1, tep(2));      // elsewhere
  scene.ldp(3, tep(1), 60);  // of another preference than 4 and 5
  scene.unprogrammable->entryIs(TunnelId::fromText("ldpTunnel/6"), true);
  scene.bgpLu(1, b, Contribution::notContributing);
  scene.del("ldpTunnel/2");
  scene.del("nexthopGroupTunnel/1");
  scene.nexthopGroup(2, tep(7));
  scene.start();
  EXPECT_EQ(scene.shown(tep(7)), "25: nexthopGroupTunnel/2") << "taken over at once";
  EXPECT_EQ(tunnelsOf(*scene.protocolRib(TunnelType::nexthopGroupTunnel)).size(), 1U);
  EXPECT_EQ(scene.shown(tep(0)), "");
  EXPECT_EQ(scene.shown(tep(1)), "60: ldpTunnel/3") << "the first live id says the preference";
  EXPECT_EQ(scene.shown(tep(2)), "55: ldpTunnel/7 ldpTunnel/8");
  scene.settle();
  scene.expectRibs();
}

// A configuration that is set again replaces the builder; what its predecessor filed must not outlive its tunnels.
TEST(RibBacklog, replacedBuilderKnowsWhatItsPredecessorFiled) {
  RibScene scene;
  scene.ldp(1, a);
  scene.ldp(2, b);
  scene.settle();
  scene.configure("system", {{Id::ldp, {}}, {Id::sr, {}}});
  scene.del("ldpTunnel/1");
  scene.ldp(2, tep("10.0.0.3/32"));
  scene.settle();
  scene.expectRibs();
  EXPECT_EQ(scene.rib()->size(), 1U);
  EXPECT_FALSE(scene.scheduler->hasTasks()) << "the replaced builder's task must not linger";
}

// Fails if a builder that was replaced by a watcher of its own writes continues its drain.
TEST(RibBacklog, replacedBuilderStopsItsDrain) {
  RibScene scene;
  struct Replacer : Zol::Listener<Ipkit::IpGenPrefix> {
    explicit Replacer(RibScene& owner) : scene(owner) { channelIs(&scene.rib()->entryChannel()); }
    void onKey(const Ipkit::IpGenPrefix&) override {
      channelIs(nullptr);
      scene.configure("system", {{Id::ldp, {}}});
    }
    RibScene& scene;
  } replacer(scene);
  for (unsigned i = 0; i < 10; ++i) {
    scene.ldp(i, tep(i));
  }
  const Zol::Ptr<TunnelRibBuilderSm> replaced = scene.builder();
  scene.scheduler->runReadyTask();
  EXPECT_EQ(replaced->tunnelForReview().size(), 9U);
  scene.settle();
  scene.expectRibs();
}

// Fails if a withdrawal waits for more than its own review while tables come and go.
TEST(RibBacklog, aWithdrawalTakesEffectAtItsReview) {
  RibScene scene(1);
  for (unsigned i = 0; i < 40; ++i) {
    scene.ldp(i, tep(i));
  }
  scene.settle();
  scene.unmount(Id::sr);
  scene.advance(100);
  for (unsigned i = 0; i < 40; ++i) {
    scene.del("ldpTunnel/" + std::to_string(i));
    scene.ldp(100 + i, tep(100 + i));
  }
  while (scene.scheduler->hasTasks()) {
    scene.advance(0.01);
    for (unsigned i = 0; i < 40; ++i) {
      const bool waits = scene.builder()->tunnelForReview().has(TunnelId(TunnelType::ldpTunnel, i));
      EXPECT_EQ(scene.rib()->has(tep(i)), waits) << i;
    }
  }
}

// Table damage costs what cannot be read, and nothing else.
TEST(RibBacklog, damagedEntriesReadAsMissing) {
  struct DamagedTable : LdpTunnelTable {
    DamagedTable() : LdpTunnelTable("damaged") {}
    std::optional<Memtab::Bytes> lookup(const TunnelId& id) const override {
      if (id.index() == bad) {
        raiseCorruption("planted");
      }
      return LdpTunnelTable::lookup(id);
    }
    std::uint64_t bad = 0;
  };
  RibScene scene;
  const auto table = Zol::make<DamagedTable>();
  for (unsigned i = 1; i <= 3; ++i) {
    table->entryIs(RibScene::at(LdpTunnelTableEntry(TunnelId(TunnelType::ldpTunnel, i)), a));
  }
  const auto entities = tunnelTableEntitiesFactory();
  entities->tunnelTableIs("ldp", table);
  const auto rib = Zol::make<TunnelRib>("rib", 7U);
  const auto builder =
      tunnelRibBuilderSmFactory(entities, scene.unprogrammable, false, nullptr, rib, scene.bgpLuConvergence,
                                scene.convergence, nullptr, scene.scheduler, scene.scheduler->activityConfig().clock());
  scene.settle();
  EXPECT_EQ(rib->value(a).tunnelIds(), 3U);
  table->bad = 2;
  builder->handleTunnelTableEntry(TunnelId::fromText("ldpTunnel/2"), Id::ldp, false);
  scene.settle();
  EXPECT_EQ(rib->value(a).tunnelIds(), 2U);
  EXPECT_EQ(table->corruptions(), 1U);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
