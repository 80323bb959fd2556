// What stands in a RIB entry: who joins, who replaces, who waits, and what a change leaves untouched.

#include <gtest/gtest.h>

#include "runtime/Fastlog/TraceRegistry.h"
#include "tests/support/RibScene.h"

namespace Tunnel::TunnelTable {
namespace {

const Ipkit::IpGenPrefix a = tep("10.0.0.1/32");
const Ipkit::IpGenPrefix b = tep("10.0.0.2/32");

TEST(RibSelection, bestSourceWinsEqualsJoinLosersWait) {
  RibScene scene;
  scene.ldp(1, a);
  scene.ldp(2, a);
  scene.sr(1, a);
  scene.settle();
  EXPECT_EQ(scene.shown(a), "55: ldpTunnel/1 ldpTunnel/2");
  scene.staticTunnel(1, a, 55);  // equal preference: the default of its type, 15, decides
  scene.settle();
  EXPECT_EQ(scene.shown(a), "55: staticTunnel/1");
  scene.sr(2, a, 54);  // own preference decides before the default of the type
  scene.settle();
  EXPECT_EQ(scene.shown(a), "54: srTunnel/2");
  EXPECT_EQ(tunnelsOf(*scene.protocolRib(TunnelType::ldpTunnel)).at(a).size(), 2U);

  scene.del("srTunnel/2");
  scene.del("staticTunnel/1");
  scene.settle();
  EXPECT_EQ(scene.shown(a), "55: ldpTunnel/1 ldpTunnel/2");
  scene.del("ldpTunnel/1");
  scene.del("ldpTunnel/2");
  scene.settle();
  EXPECT_EQ(scene.shown(a), "65: srTunnel/1");
  scene.expectRibs();
}

TEST(RibSelection, removalFollowsTheTunnelNotItsClaims) {
  RibScene scene;
  scene.bgpLu(1, a);
  scene.ldp(1, a);
  scene.ldp(2, b);
  scene.settle();
  EXPECT_EQ(scene.shown(a), "55: ldpTunnel/1");
  scene.ldp(1, b);                                   // moves
  scene.bgpLu(1, b, Contribution::notContributing);  // moves and stops contributing in one change
  scene.settle();
  EXPECT_EQ(scene.shown(a), "");
  EXPECT_EQ(scene.shown(b), "55: ldpTunnel/1 ldpTunnel/2");
  EXPECT_TRUE(tunnelsOf(*scene.protocolRib(TunnelType::bgpLuTunnel)).empty());
  scene.ldp(2, tep("::/0"));  // the zero prefix is no endpoint
  scene.settle();
  EXPECT_EQ(scene.shown(b), "55: ldpTunnel/1");
  scene.expectRibs();
}

TEST(RibSelection, unprogrammableTunnelsStayOut) {
  RibScene scene;
  scene.ldp(1, a);
  scene.sr(1, a);
  scene.settle();
  scene.unprogrammable->entryIs(TunnelId::fromText("ldpTunnel/1"), true);
  scene.ldp(1, b);  // whatever it claims meanwhile
  scene.settle();
  EXPECT_EQ(scene.shown(a), "65: srTunnel/1");
  EXPECT_EQ(scene.shown(b), "");
  scene.unprogrammable->entryDel(TunnelId::fromText("ldpTunnel/1"));
  scene.settle();
  EXPECT_EQ(scene.shown(b), "55: ldpTunnel/1");
  scene.expectRibs();
}

// Fails if metrics stay those of a tunnel that has gone, or of one that is no longer the smallest.
TEST(RibSelection, metricsAreThoseOfTheSmallestTunnel) {
  RibScene scene;
  const auto metric = [&scene] { return scene.rib()->value(a).metrics().m(); };
  scene.ldp(2, a, asPublished, 20);
  scene.settle();
  scene.ldp(1, a, asPublished, 10);
  scene.settle();
  EXPECT_EQ(metric(), 10U);
  scene.ldp(1, a, asPublished, 11);
  scene.settle();
  EXPECT_EQ(metric(), 11U);
  scene.ldp(2, a, asPublished, 21);
  scene.settle();
  EXPECT_EQ(metric(), 11U);
  scene.del("ldpTunnel/1");
  scene.settle();
  EXPECT_EQ(metric(), 21U);
  scene.staticTunnel(1, a);
  scene.settle();
  EXPECT_EQ(metric(), 0U) << "static tunnels have none";
}

// Between a change of a table and its review, a rebuild must not mix what is filed with what the table says.
TEST(RibSelection, rebuildDuringChangeUsesWhatIsFiled) {
  RibScene scene(1);
  for (unsigned i = 0; i < 40; ++i) {
    scene.staticTunnel(i, tep(i));
    scene.ldp(2 * i, tep(i), 50);
    scene.ldp(2 * i + 1, tep(i), 50);
  }
  scene.settle();
  for (unsigned i = 0; i < 40; ++i) {
    scene.del("staticTunnel/" + std::to_string(i));
    scene.ldp(2 * i + i / 2 % 2, i % 2 == 0 ? tep(i) : tep(100 + i), 70);
  }
  while (scene.scheduler->hasTasks()) {
    scene.advance(0.01);
    for (const auto& [endpoint, entry] : contentsOf(*scene.rib())) {
      EXPECT_TRUE(entry.pref != 70 || entry.tunnels.size() == 1) << endpoint << ' ' << entry;
      for (const TunnelId& id : entry.tunnels) {
        EXPECT_TRUE(id.tunnelType() != TunnelType::ldpTunnel || scene.ldpTable->value(id).tep() == endpoint) << id;
      }
    }
  }
  scene.expectRibs();
}

// Fails if a re-published tunnel is written although nothing came out differently, or flickers.
TEST(RibSelection, whatComesOutTheSameIsNotWritten) {
  RibScene scene;
  for (unsigned i = 0; i < 5; ++i) {
    scene.ldp(i, a);
  }
  scene.sr(1, a);
  scene.settle();
  const std::uint64_t writes = scene.writes();
  std::uint64_t notifications = 0;
  struct Counter : Zol::Listener<Ipkit::IpGenPrefix> {
    Counter(const TunnelRib& rib, std::uint64_t& count) : count_(count) { channelIs(&rib.entryChannel()); }
    void onKey(const Ipkit::IpGenPrefix&) override { ++count_; }
    std::uint64_t& count_;
  } counter(*scene.rib(), notifications);

  auto entry = LdpTunnelTableEntry(TunnelId(TunnelType::ldpTunnel, 2));
  entry.tepIs(a);
  entry.tieBreakerIs(7);  // a change, but none that the RIB shows
  scene.ldpTable->entryIs(entry);
  scene.sr(1, a, 66);  // a loser's change
  scene.settle();
  EXPECT_EQ(scene.writes(), writes);
  scene.ldp(2, a, 56);  // leaves the entry, the others stay
  scene.settle();
  EXPECT_EQ(notifications, 1U);
  scene.expectRibs();
}

TEST(RibSelection, fullEntriesLetTheSmallestWaitingTunnelIn) {
  RibScene scene;
  for (unsigned i = 0; i < 512; ++i) {
    scene.ldp(10 + i, a);
  }
  scene.settle();
  scene.ldp(9, a);
  scene.ldp(5, a);
  scene.ldp(4, a, 60);  // waits in the protocol RIB, but is no equal in the RIB
  scene.settle();
  const auto holds = [&scene](unsigned i) {
    const TunnelId id(TunnelType::ldpTunnel, i);
    return std::pair(scene.rib()->value(a).hasTunnelId(id),
                     scene.protocolRib(TunnelType::ldpTunnel)->value(a).hasTunnelId(id));
  };
  EXPECT_EQ(scene.rib()->value(a).tunnelIds(), 512U);
  EXPECT_EQ(holds(5), std::pair(false, false));
  const std::uint64_t writes = scene.writes();
  scene.ldp(10, a, asPublished, 1);  // a member's own change must not cost it its place
  scene.settle();
  EXPECT_EQ(holds(10), std::pair(true, true));
  EXPECT_LE(scene.writes() - writes, 1U) << "at most the metrics";
  scene.del("ldpTunnel/100");
  scene.settle();
  EXPECT_EQ(holds(5), std::pair(true, false));
  EXPECT_EQ(holds(4), std::pair(false, true));
  EXPECT_EQ(holds(9), std::pair(false, false));
  EXPECT_EQ(scene.rib()->value(a).tunnelIds(), 512U);
}

// Fails if a tunnel that no longer exists takes the place that has become free.
TEST(RibSelection, onlyTunnelsThatExistMoveUp) {
  RibScene scene(1);
  for (unsigned i = 0; i < 514; ++i) {
    scene.ldp(2000 - i, a);  // 1487 and 1488 wait
  }
  scene.settle();
  const auto rib = contentsOf(*scene.rib()).at(a).tunnels;
  std::vector<TunnelId> waiting;
  for (std::uint64_t i = 1487; i <= 2000; ++i) {
    if (!rib.contains(TunnelId(TunnelType::ldpTunnel, i))) {
      waiting.push_back(TunnelId(TunnelType::ldpTunnel, i));
    }
  }
  ASSERT_EQ(waiting.size(), 2U);
  scene.del(Zol::stringOf(waiting[0]));
  std::uint64_t member = 1487;
  for (; scene.builder()->tunnelForReview().begin().key() == waiting[0]; ++member) {
    if (rib.contains(TunnelId(TunnelType::ldpTunnel, member))) {
      scene.del("ldpTunnel/" + std::to_string(member));  // until one is reviewed first
    }
  }
  scene.scheduler->runReadyTask();
  ASSERT_TRUE(scene.builder()->tunnelForReview().has(waiting[0]));
  EXPECT_TRUE(scene.rib()->value(a).hasTunnelId(waiting[1]));
  EXPECT_FALSE(scene.rib()->value(a).hasTunnelId(waiting[0]));
  scene.settle();
  scene.expectRibs();
}

// The lines that tell why a tunnel lost are part of what operators rely on.
TEST(RibSelection, tracesTellWhoWonAndWhy) {
  RibScene scene;
  scene.ldp(1, a);
  scene.settle();
  std::string lines;
  Fastlog::TraceRegistry::instance().levelIs("TunnelRibBuilderSm", 8);
  Fastlog::TraceRegistry::instance().traceDestinationIs(
      [&lines](const Fastlog::TraceLine& line) { lines += std::string(line.text) + "\n"; });
  scene.sr(1, a, 55);  // loses
  scene.settle();
  scene.staticTunnel(1, a);  // wins
  scene.settle();
  scene.staticTunnel(1, a, 16);  // is filed again
  scene.settle();
  scene.ldp(1, Ipkit::IpGenPrefix());  // leaves
  scene.settle();
  scene.del("ldpTunnel/1");  // was nowhere
  scene.settle();
  Fastlog::TraceRegistry::instance().traceDestinationIs(nullptr);
  Fastlog::TraceRegistry::instance().levelIs("TunnelRibBuilderSm", 0);
  for (const char* const text :
       {"handleTunnelTableEntry tunnel ID srTunnel/1, isDeletion 0 for rib id 0",
        "Existing tunnel ldpTunnel/1 ldpTunnel(55)", "have the same preference value of 55",
        "New srTunnel tunnel table entry has a default static preference of 65",
        "Existing tunnel entry contributed by table: ldpTunnel (55) is preferred more than srTunnel (55) ",
        "Deleting existing entry contributed by table: ", "(15) is more preferred.", "New ID is: staticTunnel/1",
        "ID to tep entry found, deleting old version, old tep 10.0.0.1/32",
        "drainTunnelBacklog: Reviewed 1 tunnels. 0 remain in the backlog for rib 0",
        " tunnel of type ldpTunnel and id ldpTunnel/1 has an invalid tep of 0.0.0.0/0 associated with it."}) {
    EXPECT_NE(lines.find(text), std::string::npos) << text << "\n" << lines;
  }
}

}  // namespace
}  // namespace Tunnel::TunnelTable
