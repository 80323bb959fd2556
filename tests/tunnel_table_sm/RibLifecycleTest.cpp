// RIBs as configuration makes and unmakes them, and custom preferences.

#include <gtest/gtest.h>

#include <functional>

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
  config->entryIs(Zol::make<TunnelRibProtoEntry>(Id::ldp, 42));  // in place of the other one
  scene.settle();
  EXPECT_EQ(scene.shown(a, "te"), "41: srTunnel/1");
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

// A number is given to one RIB at a time, from 1 on, and is free again when its RIB goes.
TEST(RibLifecycle, idsAreUniqueAndReleased) {
  RibScene scene;
  const auto ids = [&scene] {
    std::string text;
    for (const auto& [name, id] : scene.ribIds->tunnelRibNames()) {
      text += name + std::to_string(id) + " ";
    }
    return text;
  };
  for (const char* const name : {"a", "b", "c", "d"}) {
    scene.configure(name, {{Id::ldp, {}}});
  }
  EXPECT_EQ(ids(), "a1 b2 c3 d4 system0 ");
  scene.configure("b", {{Id::sr, {}}});
  EXPECT_EQ(ids(), "a1 b2 c3 d4 system0 ") << "a RIB keeps its number while it is configured";
  scene.configDir->configDel("c");
  scene.configDir->configDel("a");
  scene.configure("renamed", {{Id::ldp, {}}});
  EXPECT_EQ(ids(), "b2 d4 renamed1 system0 ");
  scene.configDir->configDel("system");
  scene.configure("e", {});
  EXPECT_EQ(ids(), "b2 d4 e3 renamed1 ") << "0 is the system RIB's, configured or not";
}

// Fails if a reader that changes the configuration while the RIB is put right is overtaken by what it replaced.
TEST(RibLifecycle, aReaderMayConfigureTheRibThatItReads) {
  struct Reader : Zol::Listener<Ipkit::IpGenPrefix> {
    explicit Reader(std::function<void()> what) : act(std::move(what)) {}
    void listen(const TunnelRib& rib) { channelIs(&rib.entryChannel()); }
    void onKey(const Ipkit::IpGenPrefix&) override {
      channelIs(nullptr);
      act();
    }
    const std::function<void()> act;
  };
  RibScene scene;
  scene.ldp(1, a);
  scene.sr(1, a);
  scene.configure("te", {{Id::ldp, 10}});
  scene.settle();
  Reader configures([&scene] { scene.configure("te", {{Id::sr, 30}}); });
  configures.listen(*scene.rib("te"));
  scene.configure("te", {{Id::ldp, 20}});
  scene.settle();
  EXPECT_EQ(scene.shown(a, "te"), "30: srTunnel/1");
  Reader removes([&scene] { scene.configDir->configDel("te"); });
  removes.listen(*scene.rib("te"));
  scene.configure("te", {{Id::ldp, 20}});
  scene.settle();
  EXPECT_EQ(scene.configDirSm->tunnelRibSm().size(), 1U);
  EXPECT_FALSE(scene.ribIds->tunnelRibId("te"));
}

// A change of one tunnel concerns the RIBs that take its table and no other, however many there are.
TEST(RibLifecycle, aHundredRibsOverTenThousandTunnels) {
  constexpr unsigned ribs = 100;
  RibScene scene;
  for (unsigned i = 0; i < 2000; ++i) {
    scene.ldp(i, tep(i % 700), 100 + i % 3, i);
    scene.sr(i, tep(i % 600), 100 + i % 3, i);
    scene.staticTunnel(i, tep(i % 500));
    scene.nexthopGroup(i, tep(i % 400));
    scene.bgpLu(i, tep(i % 300), i % 7 == 0 ? Contribution::notContributing : Contribution::contributing);
  }
  const auto nameOf = [](unsigned i) { return "rib" + std::to_string(i); };
  for (unsigned i = 0; i < ribs; ++i) {
    RibScene::TablePrefs tables = {{ribTables[i % 5], static_cast<TunnelEntryPref>(i)}};
    if (i % 10 == 0) {
      tables[ribTables[(i / 10 + 1) % 5]] = std::nullopt;
    }
    scene.configure(nameOf(i), tables);
  }
  scene.settle();
  const NaiveTunnels tunnels = scene.tunnels();
  for (unsigned i = 0; i < ribs; i += i < 20 ? 1 : 9) {
    const NaiveConfig config = naiveConfig(*scene.configDir->config(nameOf(i)));
    EXPECT_EQ(contentsOf(*scene.rib(nameOf(i))), tunnels.rib(config, {})) << nameOf(i);
  }

  const auto takesLdp = [&](unsigned i) { return scene.configDir->config(nameOf(i))->entry().has(Id::ldp); };
  scene.ldp(7, tep(9999), 1);
  unsigned concerned = 0;
  for (unsigned i = 0; i < ribs; ++i) {
    const Zol::Ptr<TunnelRibBuilderSm> builder = scene.builder(nameOf(i));
    EXPECT_EQ(builder->tunnelForReview().size(), takesLdp(i) ? 1U : 0U) << nameOf(i);
    EXPECT_EQ(builder->task()->taskScheduled(), takesLdp(i)) << nameOf(i);
    concerned += takesLdp(i) ? 1U : 0U;
  }
  scene.settle();
  for (unsigned i = 0; i < ribs; ++i) {
    EXPECT_EQ(scene.rib(nameOf(i))->has(tep(9999)), takesLdp(i));
  }
  EXPECT_EQ(concerned, 22U);
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

}  // namespace
}  // namespace Tunnel::TunnelTable
