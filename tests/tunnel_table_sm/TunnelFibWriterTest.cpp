// Encapsulations and their references: the writer alone, and what damage may do to it.
#include <algorithm>
#include <functional>

#include "tests/support/DamagedBytes.h"
#include "tests/support/FibScene.h"
#include "tests/support/TightStore.h"
#include "tunnel_table_sm/TunnelFibWriter.h"

namespace Tunnel::TunnelTable {
namespace {

Ipkit::MplsLabelOperation stack(const Labels& labels) { return Ipkit::MplsLabelOperation::push(labels); }

ConsolidatedTunnelFibEntry consolidated(const std::string& id, const Labels& labels) {
  ConsolidatedTunnelFibEntry entry(tunnel(id));
  entry.insertLabelStackVia(via("if1"), stack(labels));
  return entry;
}

struct WriterScene {
  Zol::Ptr<TunnelFib> fib = Zol::make<TunnelFib>("fib");
  Zol::Ptr<TunnelFibWriter> writer = tunnelFibWriterFactory(fib);
  void restart() { writer = tunnelFibWriterFactory(fib); }
};

// The same rules for all four kinds of encapsulation.
template <class Info>
class Encap : public testing::Test {
 protected:
  static Info info(unsigned number) {
    Info info;
    info.destinationIs(Ipkit::IpGenAddr::ipv4(number));
    return info;
  }
  void insert(const std::string& id, unsigned number) {
    ConsolidatedTunnelFibEntry entry(tunnel(id));
    ViaAndTunnelInfo withInfo(via("if1"), EncapKind<Info>::type);
    (withInfo.*EncapKind<Info>::infoRef)() = info(number);
    entry.viaInfoIs(withInfo);
    scene.writer->addFibEntry(entry);
  }
  std::size_t records() const { return EncapKind<Info>::encaps(*scene.fib).size(); }
  EncapId idOf(const std::string& id) const { return scene.fib->entry().value(tunnel(id)).tunnelVia(0).encapId(); }
  WriterScene scene;
};
template <>
Ipkit::MplsLabelOperation Encap<Ipkit::MplsLabelOperation>::info(unsigned number) {
  return stack({number});
}
using Infos = testing::Types<GreTunnelInfo, IpsecVtiTunnelInfo, IpsecGreTunnelInfo, Ipkit::MplsLabelOperation>;
TYPED_TEST_SUITE(Encap, Infos);

// Fails if equal encapsulations get two records, or one goes before its last user, or comes back under a used id.
TYPED_TEST(Encap, isSharedAndCounted) {
  this->insert("ldpTunnel/1", 5);
  this->insert("ldpTunnel/2", 5);
  this->insert("ldpTunnel/3", 6);
  const EncapId shared = this->idOf("ldpTunnel/1");
  EXPECT_EQ(shared, EncapId(EncapKind<TypeParam>::type, 0));
  EXPECT_EQ(this->idOf("ldpTunnel/2"), shared);
  EXPECT_EQ(this->idOf("ldpTunnel/3"), EncapId(EncapKind<TypeParam>::type, 1));
  EXPECT_EQ(this->scene.writer->encapIdRefCount(shared), 2U);
  this->scene.restart();
  EXPECT_EQ(this->scene.writer->encapIdRefCount(shared), 2U);
  this->insert("ldpTunnel/4", 7);
  EXPECT_EQ(this->idOf("ldpTunnel/4"), EncapId(EncapKind<TypeParam>::type, 2));
  this->scene.writer->deleteFibEntry(tunnel("ldpTunnel/1"));
  EXPECT_EQ(this->records(), 3U);
  this->scene.writer->deleteFibEntry(tunnel("ldpTunnel/2"));
  EXPECT_EQ(this->records(), 2U);
  EXPECT_EQ(this->scene.writer->encapIdRefCount(shared), 0U);
}

struct Watch : Zol::Listener<TunnelId>, Zol::Listener<EncapId> {
  Watch(TunnelFib& fib, std::function<void()> look) : look_(std::move(look)) {
    Zol::Listener<TunnelId>::channelIs(&fib.entryChannel());
    Zol::Listener<EncapId>::channelIs(&fib.labelStackEncap().entryChannel());
  }
  void onKey(const TunnelId&) override { seen(); }
  void onKey(const EncapId&) override { seen(); }
  void seen() {
    ++changes;
    look_();
  }
  std::function<void()> look_;
  unsigned changes = 0;
};

// Fails if references are dropped before new ones are taken, or a record before the entry that names it.
TEST(TunnelFibWriter, noEntryEverNamesAMissingRecord) {
  WriterScene scene;
  Watch watch(*scene.fib, [&] {
    walkSafely(scene.fib->entry(), [&](const auto& hint) {
      const TunnelFibEntry entry = scene.fib->entry().value(hint.key());
      for (const TunnelVia& each : entry.tunnelVia()) {
        EXPECT_TRUE(scene.fib->labelStackEncap().has(each.encapId()));
      }
    });
  });
  scene.writer->addFibEntry(consolidated("ldpTunnel/1", {1}));
  scene.writer->addFibEntry(consolidated("ldpTunnel/1", {2}));
  scene.writer->addFibEntry(consolidated("ldpTunnel/2", {2}));
  scene.writer->deleteFibEntry(tunnel("ldpTunnel/1"));
  scene.writer->deleteFibEntry(tunnel("ldpTunnel/2"));
  EXPECT_EQ(scene.fib->labelStackEncap().size(), 0U);
  const unsigned changes = watch.changes;
  scene.writer->deleteFibEntry(tunnel("ldpTunnel/2"));
  EXPECT_EQ(watch.changes, changes);
}

// Fails if changes that find no space, or counting outside of a change, leave something in memory.
TEST(TunnelFibWriter, refusalsLeaveNothing) {
  const auto isFull = std::make_shared<bool>(false);
  WriterScene scene{Zol::make<TunnelFib>("fib", Zol::make<Memtab::TightStore>(TunnelFib::layout(), isFull))};
  *isFull = true;
  std::size_t bytes = 0;
  unsigned refused = 0;
  for (unsigned i = 0; refused < 20'000; ++i) {
    try {
      scene.writer->addFibEntry(consolidated("ldpTunnel/" + std::to_string(i), {i}));
      bytes = scene.writer->bytesUsed();
    } catch (const Memtab::NoSpace&) {
      ++refused;
    }
  }
  EXPECT_LE(scene.writer->bytesUsed(), bytes + 4096);
  for (unsigned i = 0; i < 10'000; ++i) {
    scene.writer->encapIdRefCountInc(EncapId(EncapType::labelStack, 0), 1);
    scene.writer->encapIdRefCountDec(EncapId(EncapType::labelStack, 0), 1);
  }
  EXPECT_LE(scene.writer->bytesUsed(), bytes + 4096);
}

// Fails if an unchanged entry is written again, also one whose vias another writer put in another order.
TEST(TunnelFibWriter, unchangedEntriesAreNotWritten) {
  WriterScene scene;
  ConsolidatedTunnelFibEntry entry = consolidated("ldpTunnel/1", {1});
  entry.insertLabelStackVia(via("if2"), stack({2}));
  scene.writer->addFibEntry(entry);
  TunnelFibEntry turned = scene.fib->entry().value(entry.tunnelId());
  std::swap(turned.tunnelViaRef()[0], turned.tunnelViaRef()[1]);
  scene.fib->entry().entryIs(turned);
  unsigned changes = 0;
  Watch watch(*scene.fib, [&] { ++changes; });
  scene.writer->addFibEntry(entry);
  EXPECT_EQ(changes, 0U);
  entry.arePrimaryViasUsableIs(false);
  scene.writer->addFibEntry(entry);
  EXPECT_EQ(changes, 1U);
}

// Fails if a via without encapsulation takes or gives a reference.
TEST(TunnelFibWriter, noneTakesNoReference) {
  WriterScene scene;
  ConsolidatedTunnelFibEntry entry(tunnel("nexthopGroupTunnel/1"));
  entry.insertInvalidVia(via("nexthopGroup:4"));
  scene.writer->addFibEntry(entry);
  EXPECT_EQ(scene.writer->encapIdRefCounts(), 0U);
  scene.restart();
  EXPECT_EQ(scene.writer->encapIdRefCounts(), 0U);
  scene.writer->deleteFibEntry(entry.tunnelId());
  EXPECT_EQ(scene.fib->entry().size(), 0U);
}

// Fails if records that a killed process left behind stay, or if one that is in use goes.
TEST(TunnelFibWriter, unreferencedRecordsAreSwept) {
  FibScene scene;
  scene.put(scene.ldp(1, {via("if1", {1})}));
  scene.settle();
  scene.fib->labelStackEncap().entryIs({EncapId(EncapType::labelStack, 77), stack({9})});
  scene.restart();
  EXPECT_EQ(scene.fib->labelStackEncap().size(), 1U);
}

// Fails if the index answers otherwise than a scan of the collection when several records are equal.
TEST(TunnelFibWriter, indexAnswersAsAScanWould) {
  WriterScene scene;
  for (const unsigned index : {900U, 5U, 130U, 258U}) {
    scene.fib->labelStackEncap().entryIs({EncapId(EncapType::labelStack, index), stack({9})});
  }
  scene.restart();
  for (unsigned left = 4; left > 0; --left) {
    TunnelFib::Collection<LabelStackEncap>::Hint hint;
    ASSERT_TRUE(scene.fib->labelStackEncap().first(hint));
    EXPECT_EQ(scene.writer->insertLabelStackEncap(stack({9})), hint.key());
    scene.writer->decrementEncapRef(hint.key());
  }
}

// Fails if ids run out instead of wrapping around, or an id in use is handed out.
TEST(TunnelFibWriter, idsWrapAround) {
  WriterScene scene;
  const auto gre = EncapType::gre;
  scene.writer->encapIdRefCountIs(EncapId(gre, EncapId::indexCount - 1), 1);
  scene.writer->encapIdRefCountIs(EncapId(gre, 0), 1);
  scene.writer->nextEncapIndexIs(gre, EncapId::indexCount - 1);
  EXPECT_EQ(scene.writer->nextFreeEncapId(gre), EncapId(gre, 1));
}

TEST(TunnelFibWriter, misuseStops) {
  WriterScene scene;
  const Zol::AssertionTrap trap;
  const auto textOf = [](auto&& misuse) {
    try {
      misuse();
    } catch (const Zol::Exception& stopped) {
      return std::string(stopped.what());
    }
    return std::string("nothing");
  };
  EXPECT_EQ(textOf([&] { scene.writer->decrementEncapRef(EncapId()); }), "encapIdRefCount( encapId ) > 0");
  EXPECT_EQ(textOf([&] { scene.writer->decrementEncapRef(EncapId(EncapType::gre, 3)); }),
            "encapIdRefCount( encapId ) > 0");
  EXPECT_EQ(textOf([&] { scene.writer->encapIdUsed(EncapId()); }),
            "0 && \"This function should not be used for checking invalidEncaps.\"");
  ConsolidatedTunnelFibEntry wide(tunnel("ldpTunnel/1"));
  for (unsigned i = 1; i <= 513; ++i) {
    wide.insertInvalidVia(via("if" + std::to_string(i)));
  }
  EXPECT_EQ(textOf([&] { scene.writer->addFibEntry(wide); }),
            "TunnelViaIndex::value < TunnelViaIndex::min or > TunnelViaIndex::max not allowed");
}

// ---- damage --------------------------------------------------------------------------------------------------------

// The n-th look-up of the whole scene meets damage, or that one and all after it.
struct Damage {
  int lookups = 0;
  int damaged = -1;
  bool isLasting = false;
  bool isNext() {
    ++lookups;
    return damaged >= 0 && (isLasting ? lookups > damaged : lookups == damaged + 1);
  }
};
template <class Map>
class DamagedMap final : public Map {
 public:
  template <class... Args>
  explicit DamagedMap(Damage& damage, Args&&... args) : Map(std::forward<Args>(args)...), damage_(damage) {}
  std::optional<Memtab::Bytes> lookup(const typename Map::Key& key) const override {
    if (damage_.isNext()) {
      throw Memtab::CorruptionException("damaged on purpose");
    }
    return Map::lookup(key);
  }

 private:
  Damage& damage_;
};

Zol::Ptr<TunnelFib> damagedFib(Damage& damage) {
  const auto store = TunnelFib::ownStore();
  const auto collection = [&]<class Record>(Record, const char* name, unsigned number) {
    return Zol::Ptr<TunnelFib::Collection<Record>>(
        Zol::make<DamagedMap<TunnelFib::Collection<Record>>>(damage, name, store, number));
  };
  return Zol::make<TunnelFib>(
      "fib", TunnelFib::Collections{collection(TunnelFibEntry(), "entry", 0), collection(GreEncap(), "greEncap", 1),
                                    collection(IpsecVtiEncap(), "ipsecVtiEncap", 2),
                                    collection(IpsecGreEncap(), "ipsecGreEncap", 3),
                                    collection(LabelStackEncap(), "labelStackEncap", 4)});
}

// Fails if damage met by any one look-up stops the process, is not told to the table, leaves tunnels waiting, or vias
// that were made from what could not be read.
TEST(TunnelFibDamage, everyLookUpMayMeetIt) {
  Memtab::corruptionDirectoryIs(testing::TempDir());
  int lookups = 0;
  FibDocument undamaged;
  for (int damaged = -1; damaged < lookups; ++damaged) {
    Damage damage;
    FibScene scene(damagedFib(damage));
    scene.sweepIsOff();
    const auto change = [&] {
      scene.put(scene.gre(1, {via("if1")}, "192.0.2.10"));
      scene.put(scene.ldp(5, {via("if12", {30})}));
      scene.put(scene.sr(9, {via("tunnel:ldpTunnel/5", {17}), via("if3")}));
      scene.settle();
      scene.restart();
      scene.settle();
      scene.put(scene.ldp(5, {via("if13", {31})}));
      scene.settle();
      const Damage kept = std::exchange(damage, Damage());
      undamaged = damaged < 0 ? scene.document() : undamaged;
      EXPECT_EQ(scene.document(), undamaged) << damaged;
      damage = kept;
      scene.del(scene.gre(1, {}, "192.0.2.10"));
      scene.del(scene.sr(9, {}));
      scene.settle();
    };
    damage.damaged = damaged;
    change();
    lookups = damaged < 0 ? damage.lookups : lookups;
    std::uint64_t told = scene.fib->entry().corruptions();
    forEachEncapKind([&](auto kind) { told += decltype(kind)::encaps(*scene.fib).corruptions(); });
    EXPECT_EQ(told, damaged < 0 ? 0U : 1U) << damaged;
    EXPECT_EQ(scene.sm->tunnelForReviews() + scene.sm->deferredTunnels(), 0U) << damaged;
    damage.damaged = -1;
    change();  // and life goes on
    EXPECT_EQ(scene.shown("ldpTunnel/5"), "if13 0.0.0.0 labelStack push [31]") << damaged;
  }
  EXPECT_GT(lookups, 30);
}

// Fails if a tunnel waits again and again for a next level whose entry no review makes readable.
TEST(TunnelFibDamage, lastingDamageEndsDeferral) {
  Memtab::corruptionDirectoryIs(testing::TempDir());
  Damage damage;
  FibScene scene(damagedFib(damage));
  scene.sweepIsOff();
  scene.yieldEvery(1);
  scene.put(scene.ldp(5, {via("if12", {30})}));
  scene.settle();
  damage = {.damaged = 0, .isLasting = true};
  scene.put(scene.sr(9, {via("tunnel:ldpTunnel/5", {17}), via("if3")}));
  scene.runSlices(100);
  EXPECT_EQ(scene.sm->tunnelForReviews() + scene.sm->deferredTunnels(), 0U);
  damage = {};
  EXPECT_EQ(scene.shown("srTunnel/9"), "if3 0.0.0.0 labelStack push []");
}

// Fails if releasing references that damage hid from the start asserts.
TEST(TunnelFibDamage, uncountedReferencesAreReleasedQuietly) {
  Memtab::corruptionDirectoryIs(testing::TempDir());
  Damage damage;
  const auto fib = damagedFib(damage);
  auto writer = tunnelFibWriterFactory(fib);
  writer->addFibEntry(consolidated("ldpTunnel/1", {1}));
  writer->addFibEntry(consolidated("ldpTunnel/2", {2}));
  damage = {0, 0};  // the first entry that the next start reads
  writer = tunnelFibWriterFactory(fib);
  EXPECT_EQ(writer->encapIdRefCounts(), 1U) << "the walk went on behind the damage";
  writer->deleteUnreferencedEncaps();
  EXPECT_EQ(fib->labelStackEncap().size(), 2U) << "a record of the unread entry was swept";
  writer->deleteFibEntry(tunnel("ldpTunnel/1"));
  writer->deleteFibEntry(tunnel("ldpTunnel/2"));
  EXPECT_EQ(writer->encapIdRefCounts(), 0U);
}

// Fails if the start stops counting at the first entry whose bytes are damaged.
TEST(TunnelFibDamage, countingGoesOnBehindDamagedBytes) {
  Memtab::corruptionDirectoryIs(testing::TempDir());
  const auto store = TunnelFib::ownStore();
  const auto fib = Zol::make<TunnelFib>("fib", store);
  auto writer = tunnelFibWriterFactory(fib);
  for (unsigned i = 1; i <= 3; ++i) {
    ConsolidatedTunnelFibEntry entry(TunnelId(TunnelType::ldpTunnel, i));
    entry.insertLabelStackVia(via("if1", {}, "192.0.2.20" + std::to_string(i)), stack({i}));
    writer->addFibEntry(entry);
  }
  TunnelFib::Collection<TunnelFibEntry>::Hint hint;
  ASSERT_TRUE(fib->entry().first(hint));
  const auto nextHop = fib->entry().value(hint.key()).tunnelVia(0).nextHop().bytes();
  ASSERT_TRUE(Support::damageFirst(store->store().view(), std::span(nextHop).first(4)));
  writer = tunnelFibWriterFactory(fib);
  EXPECT_EQ(writer->encapIdRefCounts(), 2U);
  EXPECT_EQ(fib->entry().corruptions(), 1U);
}

// Fails if an interface that stands for no legal tunnel gets an exception through the drain. A table refuses such a
// via; here it is read all the same.
class UncheckedLdpTable final : public LdpTunnelTable {
 public:
  UncheckedLdpTable() : LdpTunnelTable("ldp") {}

 protected:
  void refuseIllegal(const LdpTunnelTableEntry&) const override {}
};
TEST(TunnelFibDamage, illegalTunnelsReadAsMissing) {
  FibScene scene;
  const auto table = Zol::make<UncheckedLdpTable>();
  scene.sm->ldpTableIs(table);
  LdpTunnelTableEntry entry = scene.ldp(1, {via("if1", {5})});
  for (const std::uint64_t illegal : {std::uint64_t(1) << 50, std::uint64_t(13) << 44}) {
    MplsVia broken = via("if1");
    broken.intfIs(Ipkit::DynamicTunnelIntfId::fromTunnelIdValue(illegal));
    entry.viaRef().append(broken);
  }
  table->entryIs(entry);
  scene.settle();
  EXPECT_EQ(scene.entry("ldpTunnel/1").tunnelVias(), 1U);
  EXPECT_TRUE(scene.sm->tunnelsDirectlyDependingOn(tunnel("ldpTunnel/1")).empty());
}

}  // namespace
}  // namespace Tunnel::TunnelTable
