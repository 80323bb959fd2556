// The values of the FIB calculation: text forms, sets, and what a written entry means.
#include <gtest/gtest.h>

#include "runtime/Zol/HashCollection.h"
#include "tunnel/ConsolidatedTunnelFibEntry.h"
#include "tunnel/TunnelFibCalcResult.h"

namespace Tunnel::TunnelTable {
namespace {

Via viaOn(unsigned ifIndex, std::uint32_t nextHop = 0) {
  return {Ipkit::IpGenAddr::ipv4(nextHop), Ipkit::IntfId::ordinary(ifIndex)};
}
Ipkit::MplsLabelOperation stack(std::initializer_list<Ipkit::MplsLabelOperation::Label> labels) {
  return Ipkit::MplsLabelOperation::push({labels.begin(), labels.size()});
}

// Fails if flags change places, or a nested text is taken that the flags alone would refuse.
TEST(TunnelFibRecords, resultsPrintAndParse) {
  TunnelFibCalcResult result;
  result.viaResultRef().recTunMissingIs(true);
  result.tunnelContributingIs(true);
  const std::string text =
      "Value('Tunnel::TunnelTable::TunnelFibCalcResult', ** {'viaResult': "
      "Value('Tunnel::TunnelTable::TunnelFibViaCalcResult', ** {'recTunNotReady': False, 'recTunUnprogrammable': "
      "False, 'recTunMissing': True, 'recTunNonContrib': False, 'recTunFlattenError': False, 'recTunCycle': False}), "
      "'tunnelTableEntryDeleted': False, 'tunnelContributing': True})";
  EXPECT_EQ(valueToStrep(result), text);
  EXPECT_EQ(Zol::fromText<TunnelFibCalcResult>(text), result);
  EXPECT_EQ(TunnelFibViaCalcResult(0x3F).value(), 0x3FU);
  EXPECT_THROW(TunnelFibViaCalcResult(0x40), Zol::RangeException);
  EXPECT_THROW(Zol::fromText<TunnelFibViaCalcResult>("Value('Tunnel::TunnelTable::TunnelFibViaCalcResult', ** {})"),
               Zol::ParseException);
}

TEST(TunnelFibRecords, viasPrintAndParse) {
  ViaAndTunnelInfo via(viaOn(12, 0xC0000201), EncapType::labelStack);
  via.labelStackIs(stack({300123, 17}));
  EXPECT_EQ(Zol::fromText<ViaAndTunnelInfo>(valueToStrep(via)), via);
  for (const EncapId& id : {EncapId(), EncapId(EncapType::labelStack, 42), EncapId(EncapType::gre, 0)}) {
    EXPECT_EQ(Zol::fromText<EncapId>(Zol::stringOf(id)), id);
  }
  EXPECT_EQ(Zol::stringOf(EncapId(EncapType::labelStack, EncapId::indexCount + 42)), "labelStack/42");
  EXPECT_THROW(Zol::fromText<EncapId>("none/1"), Zol::ParseException);
  EXPECT_THROW(Zol::fromText<EncapId>("gre/268435456"), Zol::Exception);
}

// Fails if the set keeps doubles, forgets one, or depends on the order of insertion.
TEST(TunnelFibRecords, setsAreSets) {
  ConsolidatedTunnelFibEntry forward(TunnelId(TunnelType::ldpTunnel, 1));
  ConsolidatedTunnelFibEntry backward(TunnelId(TunnelType::ldpTunnel, 1));
  for (unsigned i = 1; i <= 40; ++i) {
    forward.insertLabelStackVia(viaOn(i), stack({i}));
    forward.insertLabelStackVia(viaOn(i), stack({i}));
    backward.insertLabelStackVia(viaOn(41 - i), stack({41 - i}));
    backward.insertLabelStackVia(viaOn(41 - i), stack({41 - i}));
  }
  EXPECT_EQ(forward.viaInfos(), 40U);
  EXPECT_EQ(backward.viaInfos(), 40U);
  EXPECT_EQ(forward, backward);
  forward.insertGreVia(viaOn(1), GreTunnelInfo());
  EXPECT_EQ(forward.viaInfos(), 41U);
  ViaAndTunnelInfo gre(viaOn(1), EncapType::gre);
  forward.viaInfoDel(gre);
  EXPECT_FALSE(forward.viaInfoHas(gre));
  EXPECT_EQ(forward, backward);
  EXPECT_FALSE(forward.viaInfo().holdsMoreThan(40));
  EXPECT_TRUE(forward.viaInfo().holdsMoreThan(39));
  EXPECT_TRUE(!ConsolidatedTunnelFibEntry());
  const Zol::AssertionTrap trap;
  EXPECT_THROW(ConsolidatedTunnelFibEntry("Value"), Zol::AssertionException);
}

// Fails if an entry loses its flag or a kind of via, or a missing encapsulation is an error.
TEST(TunnelFibRecords, writtenEntriesReadBack) {
  TunnelFib fib("fib");
  fib.greEncap().entryIs({EncapId(EncapType::gre, 3), GreTunnelInfo()});
  fib.labelStackEncap().entryIs({EncapId(EncapType::labelStack, 4), stack({5})});
  TunnelFibEntry written(TunnelId(TunnelType::ldpTunnel, 1));
  written.arePrimaryViasUsableIs(false);
  written.tunnelViaRef().append({viaOn(1), EncapId(EncapType::gre, 3)});
  written.tunnelViaRef().append({viaOn(2), EncapId(EncapType::labelStack, 99)});
  written.backupTunnelViaRef().append({viaOn(3), EncapId(EncapType::labelStack, 4)});
  ConsolidatedTunnelFibEntry expected(written.tunnelId());
  expected.arePrimaryViasUsableIs(false);
  expected.insertGreVia(viaOn(1), GreTunnelInfo());
  expected.viaInfoIs(ViaAndTunnelInfo(viaOn(2), EncapType::labelStack));
  expected.insertBackupLabelStackVia(viaOn(3), stack({5}));
  EXPECT_EQ(ConsolidatedTunnelFibEntry::fromTunnelFibEntry(written, fib), expected);
  EXPECT_THROW(written.tunnelVia(512), Zol::RangeException);
}

// Fails if neighbouring ids collide, or a type's ids crowd one end: the collections divide by the upper bits.
TEST(TunnelFibRecords, encapIdHashesDifferAndSpread) {
  Zol::HashCollection<std::uint32_t> hashes;
  unsigned upper = 0;
  for (unsigned index = 0; index < 4096; ++index) {
    const std::uint32_t hash = EncapId(EncapType::labelStack, index).hash();
    EXPECT_TRUE(hashes.insert(hash).second);
    upper += hash >> 31;
  }
  EXPECT_EQ(upper, 2048U);
}

// Fails if a group shows an entry without its encapsulation, for any kind and order of staging. A killed agent would
// leave the entry like that.
TEST(TunnelFibRecords, noEntryNamesAnAbsentEncapsulationAtAnyStore) {
  struct WatchedStores {
    const std::function<void()>* watch;
    void word(Memtab::Word& at, std::uint64_t value, std::memory_order order) const {
      at.store(value, order);
      (*watch)();
    }
  };
  const Memtab::StoreLayout layout = TunnelFib::layout();
  std::function<void()> watch = [] {};
  Memtab::BasicStore<WatchedStores> store(Memtab::Region::anonymous(), layout.fingerprint, layout.hashes,
                                          {.referred = layout.referred}, {&watch});
  const Memtab::Bytes key = std::as_bytes(std::span("anything", 8));
  const auto has = [&](unsigned collection) {
    return store.reader().get(collection, layout.hashes[collection](key), key).state == Memtab::Found::found;
  };
  for (unsigned encap = 1; encap < layout.hashes.size(); ++encap) {
    watch = [&] { ASSERT_TRUE(!has(0) || has(encap)) << "collection " << encap; };
    store.groupBegin();
    store.put(0, layout.hashes[0](key), key, {});
    store.put(encap, layout.hashes[encap](key), key, {});
    store.groupEnd([](unsigned, Memtab::Bytes, Memtab::ChangeKind) {});
    store.groupBegin();
    store.del(encap, layout.hashes[encap](key), key);
    store.del(0, layout.hashes[0](key), key);
    store.groupEnd([](unsigned, Memtab::Bytes, Memtab::ChangeKind) {});
    watch = [] {};
  }
}

}  // namespace
}  // namespace Tunnel::TunnelTable
