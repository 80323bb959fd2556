// RIBs over tables that cannot be read, and RIBs with damaged entries: no tunnel that may still forward is lost, and
// none gets a preference that was never published.

#include <gtest/gtest.h>

#include "tests/support/DamagedBytes.h"
#include "tests/support/RibScene.h"

namespace Tunnel::TunnelTable {
namespace {

const Ipkit::IpGenPrefix a = tep("10.0.0.1/32");
const Ipkit::IpGenPrefix b = tep("10.0.0.2/32");
const Ipkit::IpGenPrefix c = tep("10.0.0.3/32");

TunnelId ldpId(std::uint64_t index) { return TunnelId(TunnelType::ldpTunnel, index); }

// Fails if a backup disappears because its table cannot be read when it is needed, or is not reviewed afterwards.
TEST(RibDamage, candidatesOfAnUnreadableTableMayWin) {
  RibScene scene;
  scene.configure("te", {{Id::staticTable, 5}, {Id::ldp, 7}, {Id::bgpLu, 9}});
  scene.staticTunnel(1, a);
  scene.ldp(5, a, asPublished, 50);
  scene.ldp(6, a, asPublished, 60);
  scene.bgpLu(1, a);
  scene.settle();
  scene.hide(Id::bgpLu);
  scene.hide(Id::ldp);
  scene.del("staticTunnel/1");
  scene.advance(0);
  EXPECT_EQ(scene.shown(a), "55: ldpTunnel/5 ldpTunnel/6");
  EXPECT_EQ(scene.shown(a, "te"), "7: ldpTunnel/5 ldpTunnel/6");
  EXPECT_EQ(scene.builder()->heldUp(), 2U);
  scene.bgpLuConvergence->bgpLuConvergedIs(true, 0);
  scene.advance(5);
  EXPECT_EQ(scene.convergence->tunnelRibConvergenceSeqno().size(), 0U) << "held up";

  scene.show(Id::ldp);
  scene.advance(1);
  EXPECT_EQ(scene.rib()->value(a).metrics().m(), 50U);
  scene.del("ldpTunnel/5");
  scene.del("ldpTunnel/6");
  scene.advance(0);
  EXPECT_EQ(scene.shown(a), "85: bgpLuTunnel/1");
  scene.unprogrammable->entryIs(TunnelId::fromText("bgpLuTunnel/1"), true);
  scene.advance(0);
  EXPECT_EQ(scene.shown(a), "") << "that it cannot be programmed is known";
  scene.hidden.clear();
  scene.settle();
  EXPECT_EQ(scene.convergence->tunnelRibConvergenceSeqno().size(), 2U);
  scene.expectRibs();
}

// Fails if a start over an unreadable table loses its tunnels, ranks them by a made-up preference, or never reads them
// again.
TEST(RibDamage, aStartKeepsWhatCannotBeRead) {
  RibScene scene;
  scene.ldp(1, a);
  scene.ldp(2, a);
  scene.staticTunnel(1, b);
  scene.ldp(3, b);
  scene.sr(1, b);
  scene.ldp(4, c);
  scene.settle();
  scene.configDirSm = nullptr;
  scene.ldp(2, a, 60);  // a new preference, but it cannot be read
  scene.del("ldpTunnel/4");
  scene.hide(Id::ldp);
  scene.start();
  scene.advance(0);
  EXPECT_EQ(scene.shown(a), "55: ldpTunnel/1 ldpTunnel/2");
  EXPECT_EQ(scene.shown(c), "55: ldpTunnel/4");
  scene.del("staticTunnel/1");
  scene.advance(0);
  EXPECT_EQ(scene.shown(b), "65: srTunnel/1") << "the preference of ldpTunnel/3 is unknown";
  EXPECT_EQ(tunnelsOf(*scene.protocolRib(TunnelType::ldpTunnel)).at(b), std::set<TunnelId>{ldpId(3)});
  scene.hidden.clear();
  scene.advance(1);
  scene.settle();
  scene.expectRibs();
}

// Fails if something that is held up delays anything else, or waits longer than it must.
TEST(RibDamage, whatIsHeldUpDelaysNothingElse) {
  RibScene scene(1);
  scene.ldp(1, a);
  scene.sr(1, b);
  scene.settle();
  scene.hide(Id::ldp);
  scene.builder()->tunnelForReviewIs(ldpId(1));
  scene.advance(0.5);
  EXPECT_EQ(scene.builder()->heldUp(), 1U);
  scene.del("srTunnel/1");
  scene.sr(2, c);
  scene.advance(0.02);
  EXPECT_EQ(scene.shown(b), "");
  EXPECT_EQ(scene.shown(c), "65: srTunnel/2");
  EXPECT_EQ(scene.shown(a), "55: ldpTunnel/1");
  scene.unmount(Id::ldp);
  scene.advance(0.02);
  EXPECT_EQ(scene.shown(a), "") << "without its table it is gone";
  EXPECT_EQ(scene.builder()->heldUp(), 0U);
}

// Fails if a RIB that remaps preferences drops a tunnel because its repaired table is known to the builder before it is
// known to the mapper.
TEST(RibDamage, theMapperMayBeTheLastToKnowOfARepair) {
  RibScene scene;
  scene.configure("te", {{Id::ldp, 7}});
  scene.ldp(1, a);
  scene.settle();
  const auto mapper = (*scene.configDirSm->tunnelRibSm().find(*scene.ribIds->tunnelRibId("te")))->preferenceMapperSm();
  scene.hide(Id::ldp);
  mapper->handleTunnelTableEntry(ldpId(1), Id::ldp, true);  // as a watcher reports a hidden key
  scene.advance(1);
  scene.hidden.clear();
  scene.advance(3);
  EXPECT_EQ(scene.shown(a, "te"), "7: ldpTunnel/1");
  mapper->handleTunnelTableEntry(ldpId(1), Id::ldp, false);
  scene.settle();
  scene.expectRibs();
}

// Fails if a damaged entry is taken for an absent one, or is refilled with tunnels of other types.
TEST(RibDamage, damagedEntriesAreRefilledFromTheCandidates) {
  constexpr std::uint64_t odd = 0x0A1B2C3D;
  const auto damage = [](const TunnelRib& rib, const auto&... bytes) {
    const std::array<std::uint8_t, sizeof...(bytes)> all = {static_cast<std::uint8_t>(bytes)...};
    ASSERT_TRUE(Support::damageFirst(Support::viewOf(rib), all));
    EXPECT_THROW(rib.value(a), Memtab::CorruptionException);
  };
  RibScene scene;
  scene.ldp(odd, a, 5);
  scene.sr(odd, a);
  scene.settle();
  damage(*scene.rib(), 0x3D, 0x2C, 0x1B, 0x0A);
  damage(*scene.protocolRib(TunnelType::ldpTunnel), 0x3D, 0x2C, 0x1B, 0x0A);
  scene.ldp(7, a, 200);
  scene.settle();
  scene.expectRibs();
}

}  // namespace
}  // namespace Tunnel::TunnelTable
