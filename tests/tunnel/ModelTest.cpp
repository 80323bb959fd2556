// Tunnel ids, types and tables' names, records and their order, and what tables refuse.

#include <gtest/gtest.h>

#include <algorithm>

#include "runtime/Zol/Assert.h"
#include "tunnel/TunnelIdColl.h"
#include "tunnel/TunnelRibConfig.h"
#include "tunnel/TunnelTable.h"
#include "tunnel/TunnelTableIdentifier.h"
#include "tunnel/TunnelTableInfo.h"

namespace Tunnel::TunnelTable {
namespace {

template <class F>
std::string messageOf(F&& f) {
  try {
    f();
  } catch (const Zol::Exception& exception) {
    return exception.what();
  }
  return "no exception";
}

TEST(TunnelId, hasForty8BitsAndAHashThatOthersKnow) {
  EXPECT_EQ(TunnelId(0xFFFFFFFFFFFF).tunnelType(), TunnelType::tunnelType15);
  EXPECT_EQ(messageOf([] { TunnelId(0x1000000000000); }),
            "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed");
  const TunnelId id(TunnelType::ldpTunnel, 5);
  EXPECT_EQ(id.value(), 0x300000000005U);
  // One-at-a-time over the eight bytes, in its usual shift-and-add form.
  std::uint32_t hash = 0;
  for (int i = 0; i < 8; ++i) {
    hash += static_cast<std::uint32_t>(id.value() >> (8 * i)) & 0xFFU;
    hash += hash << 10;
    hash ^= hash >> 6;
  }
  hash += hash << 3;
  hash ^= hash >> 11;
  hash += hash << 15;
  EXPECT_EQ(id.hash(), hash);
  EXPECT_LT(TunnelId(TunnelType::bgpLuTunnel, TunnelId::maxIndex), TunnelId(TunnelType::ldpTunnel, 0));
}

TEST(TunnelId, textForms) {
  for (const char* const text : {"ldpTunnel/5", "tunnelType0/0", "l3IntfTunnel/17592186044415", "tunnelType15/1"}) {
    EXPECT_EQ(Zol::stringOf(TunnelId::fromText(text)), text);
    EXPECT_EQ(Zol::stringOf(Ipkit::IntfId::fromText("tunnel:" + std::string(text))), "tunnel:" + std::string(text));
  }
  for (const char* const text : {"ldpTunnel", "ldpTunnel/", "ldp/5", "ldpTunnel/-1", "ldpTunnel/17592186044416",
                                 "tunnelType13/1", "ldpTunnel/5 ", "LdpTunnel/5", "ldpTunnel/0x5"}) {
    EXPECT_THROW(TunnelId::fromText(text), Zol::Exception) << text;
  }
}

TEST(TunnelType, whatFollowsFromTheType) {
  const std::map<unsigned, unsigned> prefs = {{0, 255}, {1, 255}, {2, 85},  {3, 55},   {4, 255}, {5, 15},   {6, 255},
                                              {7, 65},  {8, 255}, {9, 255}, {10, 255}, {11, 25}, {12, 255}, {15, 255}};
  for (unsigned number = 0; number <= 17; ++number) {
    const auto type = static_cast<TunnelType>(number);
    const auto pref = prefs.find(number);
    Zol::AssertionTrap trap;
    if (pref == prefs.end()) {
      EXPECT_EQ(messageOf([type] { getDefaultPrefForType(type); }), "false && \"Unknown tunnel type\"") << number;
    } else {
      EXPECT_EQ(getDefaultPrefForType(type), pref->second) << number;
    }
    EXPECT_EQ(contributeToTunnelRib(type), pref != prefs.end() && pref->second < 255) << number;
  }
}

TEST(TunnelTableIdentifier, configurableNamesAreNineRows) {
  EXPECT_EQ(TableIdToNameMap().size(), 9U);
  EXPECT_EQ(TableIdToNameMap().at(TunnelTableIdentifier::tiLfa), "tiLfa");
  for (const char* const name : {"bgpLu", "static", "tiLfa", "ipsecGreTunnelInterface"}) {
    EXPECT_EQ(Zol::stringOf(tableIdFromText(name)), name);
  }
  EXPECT_THROW(tableIdFromText("ospf"), Zol::ParseException);
}

// Own preference, type's default, id, endpoint, tie-breaker: each decides only when all before it are equal.
TEST(TunnelTableEntry, order) {
  const auto entry = [](TunnelType type, std::uint64_t index, TunnelEntryPref pref, std::uint32_t address = 0,
                        std::uint64_t tieBreaker = 0) {
    TunnelTableEntry result(TunnelId(type, index), pref);
    result.tepIs(Ipkit::IpGenPrefix::host(Ipkit::IpGenAddr::ipv4(address)));
    result.tieBreakerIs(tieBreaker);
    return result;
  };
  const TunnelTableEntry ordered[] = {
      entry(TunnelType::bgpLuTunnel, 9, 10, 9, 9),  entry(TunnelType::staticTunnel, 8, 20, 8, 8),
      entry(TunnelType::nexthopGroupTunnel, 7, 20), entry(TunnelType::ldpTunnel, 5, 20, 7, 7),
      entry(TunnelType::ldpTunnel, 6, 20, 5, 7),    entry(TunnelType::ldpTunnel, 6, 20, 6, 1),
      entry(TunnelType::ldpTunnel, 6, 20, 6, 2),
  };
  for (std::size_t i = 0; i + 1 < std::size(ordered); ++i) {
    EXPECT_LT(ordered[i], ordered[i + 1]) << i;
    EXPECT_GT(ordered[i + 1], ordered[i]) << i;
  }
  Zol::AssertionTrap trap;
  const TunnelTableEntry unknown(TunnelId(0xD00000000001), 20);
  EXPECT_THROW(static_cast<void>(unknown < ordered[3]), Zol::AssertionException);
}

TEST(TunnelTable, emptyRecordsHaveTheirDefaults) {
  const LdpTunnelTable ldp("ldp");
  const TunnelId absent(TunnelType::ldpTunnel, 1);
  EXPECT_EQ(ldp.value(absent), LdpTunnelTableEntry());
  EXPECT_TRUE(!ldp.value(absent));
  EXPECT_EQ(LdpTunnelTableEntry().pref(), 55);
  EXPECT_EQ(SrTunnelTableEntry().pref(), 65);
  EXPECT_EQ(BgpLuTunnelTableEntry().pref(), 85);
  EXPECT_EQ(BgpLuTunnelTableEntry().contribution(), Contribution::notContributing);
  EXPECT_EQ(NexthopGroupTunnelTableEntry().pref(), 25);
  EXPECT_EQ(TunnelTableEntry().pref(), 255);
}

TEST(TunnelTable, refusesWhatItsReadersCouldNotLiveWith) {
  LdpTunnelTable ldp("ldp");
  const auto entry = [](TunnelType type, Ipkit::IntfId intf) {
    LdpTunnelTableEntry result(TunnelId(type, 1));
    result.viaRef().append(MplsVia(Via(Ipkit::IpGenAddr(), intf), Ipkit::MplsLabelOperation()));
    return result;
  };
  const auto put = [&ldp](const LdpTunnelTableEntry& each) { return messageOf([&] { ldp.entryIs(each); }); };
  EXPECT_EQ(put(entry(TunnelType::srTunnel, Ipkit::IntfId(1))),
            "srTunnel/1 is not a tunnel of type ldpTunnel, which table ldp holds");
  for (const std::uint64_t intf : {std::uint64_t(0), std::uint64_t(0x80000000), std::uint64_t(0x1D00000000001000),
                                   std::uint64_t(0x1001000000000000), std::uint64_t(0x2000000100000000)}) {
    EXPECT_NE(put(entry(TunnelType::ldpTunnel, Ipkit::IntfId(intf))), "no exception") << intf;
  }
  EXPECT_EQ(ldp.size(), 0U);
  EXPECT_EQ(ldp.collectionControl().sequence(), 0U);
  EXPECT_EQ(put(entry(TunnelType::ldpTunnel, Ipkit::IntfId(1))), "no exception");
}

// Every record survives the shared table unchanged, and re-publishing it is no change.
TEST(TunnelTable, recordsComeBackAsWritten) {
  StaticTunnelTable table("static");
  const TunnelId id(TunnelType::staticTunnel, 7);
  StaticTunnelTableEntry entry(id, 9);
  entry.tepIs(Ipkit::IpGenPrefix::fromText("2001:db8::/64"));
  const Ipkit::MplsLabelOperation::Label labels[] = {1048575, 0, 17};
  for (std::uint32_t i = 1; i <= viaCountMax; ++i) {
    const Via via(Ipkit::IpGenAddr::ipv4(i), Ipkit::IntfId::ordinary(i));
    entry.viaRef().append(MplsVia(via, Ipkit::MplsLabelOperation(Ipkit::MplsLabelOperation::Op::swap, labels)));
  }
  entry.backupViaRef() = entry.via();
  EXPECT_TRUE(table.entryIs(entry));
  EXPECT_EQ(table.value(id), entry);
  const std::uint64_t sequence = table.collectionControl().sequence();
  EXPECT_FALSE(table.entryIs(entry));
  EXPECT_EQ(table.collectionControl().sequence(), sequence);
  EXPECT_EQ(messageOf([&entry] { entry.viaRef().append(MplsVia()); }), "PodArray::set expected size <= 512");
}

TEST(TunnelTable, aPlaceholderHoldsNothingAndTakesNothing) {
  LdpTunnelTable placeholder("none", nullptr);
  LdpTunnelTable::Hint hint;
  EXPECT_FALSE(placeholder.first(hint));
  EXPECT_FALSE(placeholder.has(TunnelId()));
  EXPECT_EQ(messageOf([&] { placeholder.entryIs(LdpTunnelTableEntry()); }), "write to read-only Memtab table");
  EXPECT_EQ(messageOf([&] { placeholder.entryDel(TunnelId()); }), "remove to read-only Memtab table");
  EXPECT_EQ(messageOf([&] { placeholder.cleanup(); }), "cleanup to read-only Memtab table");
  EXPECT_EQ(messageOf([&] { placeholder.validateFiles(); }), "validateFiles to read-only Memtab table");
  EXPECT_EQ(messageOf([&] { placeholder.validate(); }), "validate to read-only Memtab table");
}

TEST(TunnelRibEntry, idsAreAnUnorderedSetOfAtMost512) {
  TunnelRibEntry entry;
  for (std::uint64_t i = 1; i <= 512; ++i) {
    entry.addTunnelId(TunnelId(TunnelType::ldpTunnel, i));
    entry.addTunnelId(TunnelId(TunnelType::ldpTunnel, i));
  }
  EXPECT_EQ(entry.tunnelIds(), 512U);
  Zol::AssertionTrap trap;
  EXPECT_EQ(messageOf([&] { entry.addTunnelId(TunnelId(TunnelType::ldpTunnel, 513)); }), "tunnelId_.validateSize()");
  entry.delTunnelId(TunnelId(TunnelType::ldpTunnel, 3));
  EXPECT_EQ(entry.tunnelId(std::size_t(2)).index(), 512U) << "the last takes the freed place";
  entry.delTunnelId(TunnelId(TunnelType::ldpTunnel, 3));
  EXPECT_EQ(entry.tunnelIds(), 511U);
  EXPECT_EQ(messageOf([&] { static_cast<void>(entry.tunnelId(std::size_t(512))); }),
            "TunnelIdCollIndex::value < TunnelIdCollIndex::min or > TunnelIdCollIndex::max not allowed");
}

TEST(TunnelRibNameIdMap, idsAreUniqueAndComeBack) {
  TunnelRibNameIdMap ids;
  EXPECT_EQ(ids.tunnelRibNameIs("a"), 1U) << "0 is kept for the system RIB";
  EXPECT_EQ(ids.tunnelRibNameIs("b"), 2U);
  EXPECT_EQ(ids.tunnelRibNameIs("system"), 0U);
  EXPECT_EQ(ids.tunnelRibNameIs("a"), 1U);
  EXPECT_EQ(ids.tunnelRibNameDel("a"), 1U);
  EXPECT_EQ(ids.tunnelRibNameDel("a"), std::nullopt);
  EXPECT_EQ(ids.tunnelRibNameIs("c"), 1U);
}

TEST(TunnelTableInfo, twelveTablesHaveAPlaceAndAType) {
  const auto manager = Zol::make<Statehub::EntityManager>();
  const TunnelTableMounter mounter(manager);
  for (const int number : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 13}) {
    const auto id = static_cast<TunnelTableIdentifier>(number);
    const Zol::Ptr<TunnelTableBase> table = mounter.readMountTable(tunnelTableInfo(id));
    ASSERT_TRUE(table) << id;
    EXPECT_EQ(table->name(), "tunnel/table/" + Zol::stringOf(id));
    EXPECT_EQ(mounter.readMountTable(tunnelTableInfo(id)), table) << "one table a path";
  }
  EXPECT_EQ(tunnelTableInfo(static_cast<TunnelTableIdentifier>(12)), TunnelTableInfo()) << "no such table";
  EXPECT_THROW(mounter.readMountTable({"tunnel/table/x", "no such type"}), Zol::InternalException);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
