// RIBs as configuration makes and unmakes them, custom preferences, and the announcement of convergence.

#include <gtest/gtest.h>

#include "tests/support/RibScene.h"

namespace Tunnel::TunnelTable {
namespace {

const Ipkit::IpGenPrefix a = tep("10.0.0.1/32");

TEST(RibLifecycle, customRibsRemapPreferences) {
  RibScene scene;
  scene.ldp(1, a);
  scene.sr(1, a);
  scene.settle();
  scene.configure("te", {{Id::ldp, 40}, {Id::sr, 20}});
  scene.configure("plain", {{Id::sr, {}}});
  scene.settle();
  EXPECT_EQ(scene.shown(a), "55: ldpTunnel/1");
  EXPECT_EQ(scene.shown(a, "te"), "20: srTunnel/1");
  EXPECT_EQ(scene.shown(a, "plain"), "65: srTunnel/1") << "no preference configured: the published one";
  const auto config = scene.configDir->config().value("te");
  config->entry().value(Id::sr)->prefMappingIs(41);
  scene.settle();
  EXPECT_EQ(scene.shown(a, "te"), "40: ldpTunnel/1");
  config->entryDel(Id::ldp);  // its rows leave the filter with the table
  scene.settle();
  EXPECT_EQ(scene.shown(a, "te"), "41: srTunnel/1");
  scene.expectRibs();
}

TEST(RibLifecycle, idsTablesAndRecordsGoWithTheRib) {
  RibScene scene;
  scene.ldp(1, a);
  scene.configure("one", {{Id::ldp, 1}});
  scene.configure("two", {{Id::ldp, 2}, {Id::bgpLu, {}}});
  scene.settle();
  EXPECT_EQ(scene.ribIds->tunnelRibNameIs("system"), 0U);
  const TunnelRibId two = *scene.ribIds->tunnelRibId("two");
  EXPECT_NE(two, *scene.ribIds->tunnelRibId("one"));
  scene.bgpLuConvergence->bgpLuConvergedIs(true, 0);
  EXPECT_TRUE(scene.convergence->tunnelRibConvergenceSeqno().has(two));
  scene.configDir->configDel("two");
  scene.configDir->configDel("never configured");
  EXPECT_FALSE(scene.ribIds->tunnelRibId("two"));
  EXPECT_EQ(scene.entityManager->getEntity(tunnelRibStatusPathPrefix + std::to_string(two)), nullptr);
  EXPECT_FALSE(scene.convergence->tunnelRibConvergenceSeqno().has(two));
  EXPECT_EQ(scene.configDirSm->tunnelRibSm().size(), 2U);

  scene.configDirSm = nullptr;  // a RIB whose configuration went while nobody looked
  scene.configDir->configDel("one");
  scene.start();
  EXPECT_FALSE(scene.ribIds->tunnelRibId("one"));
}

// Readers of a RIB's table see the old entries until each is replaced, never an empty table.
TEST(RibLifecycle, reconfigurationNeverEmptiesTheTable) {
  RibScene scene(1);
  for (unsigned i = 0; i < 50; ++i) {
    scene.ldp(i, tep(i));
    scene.sr(i, tep(i));
  }
  scene.configure("te", {{Id::ldp, 10}, {Id::sr, 20}});
  scene.settle();
  scene.configure("te", {{Id::ldp, 30}, {Id::sr, 20}});
  do {
    EXPECT_EQ(scene.rib("te")->size(), 50U);
    scene.advance(0.01);
  } while (scene.scheduler->hasTasks());
  scene.expectRibs();
}

// Reactors are made in a fixed order and go in the order of declaration, quiet before they are let go.
TEST(RibLifecycle, systemAndCustomRibsDifferInTheirChildren) {
  RibScene scene;
  scene.configure("te", {});
  const auto sm = [&scene](const char* name) {
    return *scene.configDirSm->tunnelRibSm().find(*scene.ribIds->tunnelRibId(name));
  };
  EXPECT_FALSE(sm("system")->preferenceMapperSm());
  EXPECT_FALSE(sm("system")->tableEntryFilter());
  EXPECT_TRUE(sm("system")->protoTunnelRibColl());
  EXPECT_TRUE(sm("te")->preferenceMapperSm());
  EXPECT_FALSE(sm("te")->protoTunnelRibColl());
  EXPECT_TRUE(sm("te")->tunnelRibBuilderSm()) << "also without a table";
  const Zol::Ptr<TunnelRibBuilderSm> kept = sm("te")->tunnelRibBuilderSm();
  scene.configDir->configDel("te");
  EXPECT_FALSE(kept->hasNotificationActive());
}

TEST(RibLifecycle, onlyFiveTablesCanBeRemapped) {
  RibScene scene;
  Zol::AssertionTrap trap;
  const auto entities = tunnelTableEntitiesFactory();
  const auto filter = tunnelTableEntryFilterFactory();
  const auto handle = [&](int id, bool isDeletion) {
    handleConfigPreferences(static_cast<Id>(id), TunnelId(TunnelType::ldpTunnel, 1), filter, entities, nullptr,
                            isDeletion);
  };
  entities->tunnelTableIs("rsvp", Zol::make<RsvpTunnelTable>("rsvp"));
  EXPECT_THROW(handle(4, false), Zol::AssertionException) << "mounted, but not one that can be remapped";
  EXPECT_THROW(handle(3, false), Zol::AssertionException) << "not mounted";
  EXPECT_NO_THROW(handle(14, false));
  EXPECT_NO_THROW(handle(-1, false));
  filter->preferenceIs(TunnelId(TunnelType::ldpTunnel, 1), 9);
  EXPECT_NO_THROW(handle(4, true));
  EXPECT_EQ(filter->preference().size(), 0U);
}

// Effective preferences: the filter's low byte, and none for a type that no RIB takes.
TEST(RibLifecycle, effectivePreference) {
  RibScene scene;
  const auto filter = tunnelTableEntryFilterFactory();
  const auto rib = Zol::make<TunnelRib>("rib", 7U);
  const auto builder = tunnelRibBuilderSmFactory(tunnelTableEntitiesFactory(), scene.unprogrammable, true, filter, rib,
                                                 scene.bgpLuConvergence, scene.convergence, nullptr, scene.scheduler,
                                                 scene.scheduler->activityConfig().clock());
  const TunnelTableEntry entry(TunnelId(TunnelType::ldpTunnel, 1), 10);
  filter->preferenceIs(entry.tunnelId(), 300);
  EXPECT_EQ(builder->getPreference(entry), 44);
  EXPECT_EQ(builder->getPreference(TunnelTableEntry(TunnelId(TunnelType::l3IntfTunnel, 1), 10)), 255);
}

// ---- convergence ---------------------------------------------------------------------------------------------------

class Convergence : public testing::Test, private Zol::Listener<TunnelRibId> {
 protected:
  Convergence() { channelIs(&scene.convergence->tunnelRibConvergenceSeqno().channel()); }
  void onKey(const TunnelRibId&) override { ++announced; }
  std::uint64_t bgpSeqno() const { return scene.bgpLuTable->collectionControl().sequence(); }

  RibScene scene;
  unsigned announced = 0;
};

TEST_F(Convergence, waitsForTheBacklogThenForTheTable) {
  for (unsigned i = 0; i < 10; ++i) {
    scene.bgpLu(i, tep(i));
  }
  scene.bgpLuConvergence->bgpLuConvergedIs(true, bgpSeqno());
  EXPECT_EQ(announced, 0U) << "ten tunnels wait for review";
  scene.settle();
  EXPECT_EQ(announced, 1U);
  EXPECT_EQ(scene.convergence->tunnelRibConvergenceSeqno().value(0), scene.rib()->collectionControl().sequence());
  scene.advance(200);
  EXPECT_EQ(announced, 1U);

  scene.bgpLuConvergence->bgpLuConvergedIs(true, bgpSeqno() + 1);
  scene.settle();
  EXPECT_EQ(announced, 1U) << "the table has not caught up";
  scene.bgpLu(20, tep(20));
  scene.settle();
  EXPECT_EQ(announced, 2U);
}

TEST_F(Convergence, theDeadlineComesOnceAndDoesNotMove) {
  scene.bgpLuConvergence->bgpLuConvergedIs(true, 1000);
  scene.advance(60);
  scene.bgpLuConvergence->bgpLuConvergedIs(true, 1000);
  scene.advance(59.99);
  EXPECT_EQ(announced, 0U);
  scene.advance(0.01);
  EXPECT_EQ(announced, 1U);
  scene.advance(500);
  EXPECT_EQ(announced, 1U);
}

TEST_F(Convergence, aRestartOfBgpAbandonsTheWait) {
  scene.bgpLuConvergence->bgpLuConvergedIs(true, 1000);
  scene.advance(50);
  scene.bgpLuConvergence->bgpLuConvergedIs(false, 0);
  scene.bgpLuConvergence->bgpLuConvergedIs(true, 1000);  // before the expired deadline was even looked at
  scene.advance(119.9);
  EXPECT_EQ(announced, 0U);
  scene.advance(0.2);
  EXPECT_EQ(announced, 1U);
}

TEST_F(Convergence, aTableThatIsNotMounted) {
  scene.unmount(Id::bgpLu);
  scene.settle();
  scene.bgpLuConvergence->bgpLuConvergedIs(true, 0);
  scene.advance(130);
  EXPECT_EQ(announced, 0U);
  scene.mount(Id::bgpLu);  // BGP had converged before
  scene.settle();
  EXPECT_EQ(announced, 1U);

  scene.bgpLuConvergence->bgpLuConvergedIs(true, 1000);
  scene.unmount(Id::bgpLu);  // while waiting: no sequence number to ask
  scene.ldp(1, a);
  scene.settle();
  EXPECT_EQ(announced, 1U);
  scene.advance(121);
  EXPECT_EQ(announced, 2U) << "the deadline announces all the same";
}

}  // namespace
}  // namespace Tunnel::TunnelTable
