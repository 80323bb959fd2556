// From tables to entries: mounting, the twelve watchers, and the one call that a listener gets for each change.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <tuple>

#include "tests/support/DamagedBytes.h"
#include "tests/support/RibScene.h"
#include "tunnel_table_sm/WatcherSm.h"

namespace Tunnel::TunnelTable {
namespace {

struct Report {
  TunnelId id;
  Id table;
  bool isDeletion;
  friend auto operator<=>(const Report&, const Report&) = default;
  friend std::ostream& operator<<(std::ostream& out, const Report& report) {
    return out << report.id << ' ' << report.table << (report.isDeletion ? " deleted" : " present");
  }
};

class RecordingSm final : public TableEntrySm {
 public:
  RecordingSm(Zol::PtrConst<TunnelTableEntities> entities, Zol::PtrConst<TunnelIdColl> ids)
      : TableEntrySm(std::move(entities), std::move(ids)) {
    handleTunnelTableEntity();
  }
  void handleTunnelTableEntry(const TunnelId& id, TunnelTableIdentifier table, bool isDeletion) override {
    reports.push_back({id, table, isDeletion});
  }
  std::vector<Report> taken() { return std::exchange(reports, {}); }
  std::vector<Report> reports;
};

// A table whose look-ups can be made to fail.
template <class Table>
class FailingTable : public Table {
 public:
  FailingTable() : Table("failing") {}
  std::optional<Memtab::Bytes> lookup(const TunnelId& id) const override {
    if (lookups++ == failing) {
      this->raiseCorruption("planted");
    }
    return Table::lookup(id);
  }
  Memtab::View view() const { return this->store().store().view(); }
  mutable int lookups = 0;
  int failing = -1;
};

template <class Sm>
class Watcher : public testing::Test {
 protected:
  using Entry = typename Sm::Table::Record;
  static Entry entry(std::uint64_t index) { return Entry(TunnelId(Sm::Table::tableTunnelType, index)); }

  // Interface tables share a type: the name under which they are mounted tells them apart.
  const std::string name = Zol::stringOf(Sm::tableId);
  Zol::Ptr<typename Sm::Table> table = Zol::make<typename Sm::Table>(name);
  Zol::Ptr<TunnelTableEntities> entities = tunnelTableEntitiesFactory();
  Zol::Ptr<RecordingSm> listener = Zol::Factory<RecordingSm>()(entities, nullptr);
};

using AllWatchers = testing::Types<BgpLuTunnelSm, BgpLuPushTunnelSm, LdpTunnelSm, RsvpTunnelSm, SrTunnelSm,
                                   StaticTunnelSm, NexthopGroupTunnelSm, SrTeSegmentListTunnelSm, GreInterfaceTunnelSm,
                                   IpsecVtiInterfaceTunnelSm, IpsecGreInterfaceTunnelSm, TiLfaTunnelSm>;
TYPED_TEST_SUITE(Watcher, AllWatchers);

TYPED_TEST(Watcher, reportsPresenceChangesAndWithdrawal) {
  constexpr Id id = TypeParam::tableId;
  constexpr bool keepsSeenIds = id != Id::tiLfa;
  const auto present = [&](std::uint64_t i) { return Report{this->entry(i).tunnelId(), id, false}; };
  const auto deleted = [&](std::uint64_t i) { return Report{this->entry(i).tunnelId(), id, true}; };
  const auto sorted = [](std::vector<Report> reports) {
    std::sort(reports.begin(), reports.end());
    return reports;
  };
  this->table->entryIs(this->entry(1));
  this->table->entryIs(this->entry(2));
  this->entities->tunnelTableIs(this->name, this->table);
  EXPECT_EQ(sorted(this->listener->taken()), sorted({present(1), present(2)}));

  auto changed = this->entry(1);
  changed.tieBreakerIs(5);
  this->table->entryIs(changed);
  this->table->entryIs(this->entry(3));
  this->table->entryDel(this->entry(2).tunnelId());
  EXPECT_EQ(this->listener->taken(), (std::vector<Report>{present(1), present(3), deleted(2)}));

  this->entities->tunnelTableDel(this->name);
  EXPECT_EQ(sorted(this->listener->taken()), keepsSeenIds ? sorted({deleted(1), deleted(3)}) : std::vector<Report>{});
  this->table->entryIs(this->entry(4));
  EXPECT_TRUE(this->listener->taken().empty()) << "the watcher is gone";

  // A table replaced in place is walked; what only the old one held is not reported.
  this->entities->tunnelTableIs(this->name, this->table);
  this->listener->taken();
  const auto other = Zol::make<typename TypeParam::Table>(this->name);
  other->entryIs(this->entry(9));
  this->entities->tunnelTableIs(this->name, other);
  EXPECT_EQ(this->listener->taken(), std::vector<Report>{present(9)});
}

TEST(Intake, theTwoLookupsAreIndependent) {
  const auto entities = tunnelTableEntitiesFactory();
  const auto table = Zol::make<FailingTable<LdpTunnelTable>>();
  const auto listener = Zol::Factory<RecordingSm>()(entities, nullptr);
  const TunnelId id(TunnelType::ldpTunnel, 1);
  table->entryIs(LdpTunnelTableEntry(id));
  entities->tunnelTableIs("ldp", table);
  listener->taken();
  struct Case {
    int failing;
    bool isDeletion;
    std::size_t seen;
  };
  for (const Case& c : {Case{0, false, 0}, Case{1, true, 1}, Case{2, false, 1}}) {
    table->lookups = 0;
    table->failing = c.failing;
    listener->tunnelSm("ldp")->handleTunnelEntry();
    EXPECT_EQ(listener->taken(), (std::vector<Report>{{id, Id::ldp, c.isDeletion}})) << c.failing;
    EXPECT_EQ(listener->tunnelSm("ldp")->seenTunnelId().size(), c.seen) << c.failing;
  }
  EXPECT_EQ(table->corruptions(), 2U);
}

// Fails if a damaged record hides those behind it from who begins to listen: they are no news to anybody later.
TEST(Intake, walksGoOnBehindDamagedRecords) {
  const auto table = Zol::make<FailingTable<LdpTunnelTable>>();
  for (unsigned i = 1; i <= 5; ++i) {
    LdpTunnelTableEntry entry(TunnelId(TunnelType::ldpTunnel, i));
    entry.tepIs(tep("203.0.113." + std::to_string(i) + "/32"));
    table->entryIs(entry);
  }
  LdpTunnelTable::Hint first;
  ASSERT_TRUE(table->first(first));
  const std::array<std::uint8_t, 4> endpoint = {203, 0, 113, static_cast<std::uint8_t>(first.key().index())};
  ASSERT_TRUE(Support::damageFirst(table->view(), endpoint));
  const auto entities = tunnelTableEntitiesFactory();
  const auto listener = Zol::Factory<RecordingSm>()(entities, nullptr);
  entities->tunnelTableIs("ldp", table);
  const std::vector<Report> reports = listener->taken();
  EXPECT_EQ(reports.size(), 4U);
  EXPECT_TRUE(std::none_of(reports.begin(), reports.end(), [&](const Report& each) { return each.id == first.key(); }));
  EXPECT_EQ(table->corruptions(), 1U);
}

// Fails if a table that is withdrawn while it is walked for the first time keeps its watcher.
TEST(Intake, aTableMayBeWithdrawnDuringItsFirstWalk) {
  struct WithdrawingSm final : TableEntrySm {
    explicit WithdrawingSm(Zol::Ptr<TunnelTableEntities> all) : TableEntrySm(all, nullptr), entities(std::move(all)) {}
    void handleTunnelTableEntry(const TunnelId&, TunnelTableIdentifier, bool) override {
      ++reports;
      entities->tunnelTableDel("ldp");
    }
    const Zol::Ptr<TunnelTableEntities> entities;
    unsigned reports = 0;
  };
  const auto entities = tunnelTableEntitiesFactory();
  const auto listener = Zol::Factory<WithdrawingSm>()(entities);
  const auto table = Zol::make<LdpTunnelTable>("ldp");
  table->entryIs(LdpTunnelTableEntry(TunnelId(TunnelType::ldpTunnel, 1)));
  entities->tunnelTableIs("ldp", table);
  EXPECT_EQ(listener->tunnelSm("ldp"), nullptr);
  table->entryIs(LdpTunnelTableEntry(TunnelId(TunnelType::ldpTunnel, 2)));
  EXPECT_EQ(listener->reports, 1U);
}

TEST(Intake, interfaceTablesOfOtherNamesReadAsRsvp) {
  const auto entities = tunnelTableEntitiesFactory();
  const auto listener = Zol::Factory<RecordingSm>()(entities, nullptr);
  entities->tunnelTableIs("somewhere", Zol::make<GreIntfTunnelTable>("somewhere"));
  EXPECT_NE(dynamic_cast<RsvpTunnelSm*>(listener->tunnelSm("somewhere").get()), nullptr);
  EXPECT_TRUE(listener->taken().empty()) << "it is no RSVP table: the watcher stays idle";

  Zol::AssertionTrap trap;
  using NamelessTable = ProtocolTunnelTable<LdpTunnelTableEntry, TunnelType::tunnelType4>;
  EXPECT_THROW(entities->tunnelTableIs("nameless", Zol::make<NamelessTable>("t")), Zol::AssertionException);
}

TEST(Intake, tablesAreMountedWhenDescribedAndWanted) {
  const auto infos = Zol::make<TunnelTableInfoCollection>("infos");
  const auto filter = tunnelTableTypeFilterFactory();
  const auto manager = Zol::make<Statehub::EntityManager>();
  const auto entities = tunnelTableEntitiesFactory();
  const auto sm = tunnelTablesMountSmFactory(infos, filter, manager, entities);
  infos->tunnelTableInfoIs("ldp", tunnelTableInfo(Id::ldp));
  EXPECT_FALSE(entities->ldpTable()) << "described, not wanted";
  filter->tableIs("ldp");
  filter->tableIs("sr");
  EXPECT_TRUE(entities->ldpTable());
  EXPECT_FALSE(entities->tunnelTableHas("sr")) << "wanted, not described";
  EXPECT_EQ(manager->getEntity("tunnel/table/ldp").get(), entities->ldpTable().get());
  filter->tableDel("ldp");
  EXPECT_FALSE(entities->tunnelTableHas("ldp"));
  filter->tableIs("ldp");
  infos->tunnelTableInfoIs("ldp", TunnelTableInfo());
  EXPECT_FALSE(entities->tunnelTableHas("ldp")) << "a default description is none";
  infos->tunnelTableInfoIs("ldp", tunnelTableInfo(Id::ldp));

  const auto others = Zol::make<TunnelTableInfoCollection>("others");
  others->tunnelTableInfoIs("sr", tunnelTableInfo(Id::sr));
  sm->tunnelTableInfoCollIs(others);
  EXPECT_FALSE(entities->tunnelTableHas("ldp"));
  EXPECT_TRUE(entities->srTable());
  EXPECT_FALSE(entities->ldpTable()) << "absent, or of another class";
  sm->hasNotificationActiveIs(false);
  others->tunnelTableInfoDel("sr");
  EXPECT_TRUE(entities->srTable()) << "quiet";
}

TEST(Intake, encapsulatedEntriesHoldWhatTheTypeSays) {
  RibScene scene;
  const auto entities = tunnelTableEntitiesFactory();
  const TunnelId bgp(TunnelType::bgpLuTunnel, 1);
  EXPECT_EQ(EncapsulatedTableEntry::getEntry(bgp, *entities), EncapsulatedTableEntry(bgp)) << "table not mounted";
  entities->tunnelTableIs("bgpLu", scene.bgpLuTable);
  EXPECT_EQ(EncapsulatedTableEntry::getEntry(bgp, *entities).bgpLuEntry(), BgpLuTunnelTableEntry());
  scene.bgpLu(1, tep(1));
  EncapsulatedTableEntry entry = EncapsulatedTableEntry::getEntry(bgp, *entities);
  EXPECT_EQ(entry.entry().tep(), tep(1));
  EXPECT_TRUE(doesEntryContribute(false, nullptr, entry));
  scene.bgpLu(1, tep(1), Contribution::notContributing);
  entry = EncapsulatedTableEntry::getEntry(bgp, *entities);
  EXPECT_FALSE(doesEntryContribute(false, nullptr, entry));
  EXPECT_FALSE(EncapsulatedTableEntry::getEntry(TunnelId(TunnelType::l3IntfTunnel, 1), *entities).hasEntry());
  TunnelRibEntry ribEntry;
  Zol::AssertionTrap trap;
  EXPECT_THROW(copyMetrics(bgp, ribEntry, entry), Zol::AssertionException);

  const std::string text = valueToStrep(entry);
  EXPECT_EQ(EncapsulatedTableEntry(text.begin(), text.end()), entry);
  EXPECT_EQ(text.find("Value('Tunnel::TunnelTable::EncapsulatedTableEntry', ** {'tunnelId': bgpLuTunnel/1, 'entry': "),
            0U);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
