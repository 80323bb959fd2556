// FibScene: twelve tables, a tunnel FIB and its state machine in simulated time. A test writes table entries and
// looks at what is forwarded; when the scene goes, it sweeps the invariants.
//
//     FibScene scene;
//     scene.put(scene.ldp(5, {via("if12", {300123})}));
//     scene.put(scene.sr(9, {via("tunnel:ldpTunnel/5", {17})}));
//     scene.settle();
//     EXPECT_EQ(scene.shown("srTunnel/9"), "if12 0.0.0.0 labelStack push [300123, 17]");
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "runtime/Quor/EndlessSlicePolicy.h"
#include "runtime/Quor/SimulatedLoop.h"
#include "runtime/Quor/UnitSlicePolicy.h"
#include "tunnel/EncapKind.h"
#include "tunnel_table_sm/TunnelFibSm.h"

namespace Tunnel::TunnelTable {

using Labels = std::vector<Ipkit::MplsLabelOperation::Label>;

inline TunnelId tunnel(const std::string& text) { return TunnelId::fromText(text); }

// Labels top first, as everywhere in text.
inline MplsVia via(const std::string& intf, const Labels& labels = {}, const std::string& nextHop = "0.0.0.0",
                   Ipkit::MplsLabelOperation::Op op = Ipkit::MplsLabelOperation::Op::push) {
  return {Via(Ipkit::IpGenAddr::fromText(nextHop), Ipkit::IntfId::fromText(intf)),
          Ipkit::MplsLabelOperation(op, labels)};
}

// The vias of a FIB entry in words, in its order; encapsulations are shown by content, not by id.
inline std::vector<std::string> viaTexts(const TunnelFib& fib, const TunnelViaArray& vias) {
  std::vector<std::string> texts;
  for (const TunnelVia& via : vias) {
    std::ostringstream out;
    out << via.intf() << ' ' << via.nextHop() << ' ' << via.encapId().encapType();
    const auto show = [&](const auto& encaps) { out << ' ' << encaps.value(via.encapId()).info(); };
    switch (via.encapId().encapType()) {
      case EncapType::gre:
        show(fib.greEncap());
        break;
      case EncapType::ipsecVti:
        show(fib.ipsecVtiEncap());
        break;
      case EncapType::ipsecGre:
        show(fib.ipsecGreEncap());
        break;
      case EncapType::labelStack:
        show(fib.labelStackEncap());
        break;
      case EncapType::invalid:
        break;
    }
    texts.push_back(out.str());
  }
  return texts;
}
template <class Texts>
std::string listed(const Texts& texts) {
  std::string list;
  for (const std::string& text : texts) {
    list += (list.empty() ? "" : ", ") + text;
  }
  return list;
}

// The contents of a FIB, one line a tunnel, with the vias in the order of their texts.
using FibDocument = std::map<std::string, std::string>;

inline FibDocument fibDocument(const TunnelFib& fib, const TunnelIdColl& unprogrammable) {
  const auto sorted = [&fib](const TunnelViaArray& vias) {
    auto texts = viaTexts(fib, vias);
    std::sort(texts.begin(), texts.end());
    return listed(texts);
  };
  FibDocument lines;
  walkSafely(fib.entry(), [&](const auto& hint) {
    const TunnelFibEntry entry = fib.entry().value(hint.key());
    lines[Zol::stringOf(hint.key())] =
        sorted(entry.tunnelVia()) + (entry.backupTunnelVias() == 0 ? "" : " backup " + sorted(entry.backupTunnelVia()));
  });
  for (const auto& [id, value] : unprogrammable.entry().members()) {
    lines["unprogrammable " + Zol::stringOf(id)];
  }
  return lines;
}

class FibScene {
 public:
  explicit FibScene(Zol::Ptr<TunnelFib> tunnelFib = Zol::make<TunnelFib>("fib"))
      : fib(std::move(tunnelFib)), unprogrammable(tunnelIdCollFactory("unprogrammable")) {
    if (std::getenv("FLFILE") == nullptr) {
      setenv("FASTLOG_DISABLE", "1", 0);  // tests leave no trace files behind
    }
    start();
  }
  FibScene(const FibScene&) = delete;
  FibScene& operator=(const FibScene&) = delete;
  ~FibScene() { sweep(); }

  // ---- table entries ----
  template <class Entry>
  static Entry mpls(TunnelType type, std::uint64_t index, const std::vector<MplsVia>& vias) {
    Entry entry{TunnelId(type, index)};
    for (const MplsVia& each : vias) {
      entry.viaRef().append(each);
    }
    return entry;
  }
  using Vias = std::vector<MplsVia>;
  static auto ldp(std::uint64_t i, const Vias& v) { return mpls<LdpTunnelTableEntry>(TunnelType::ldpTunnel, i, v); }
  static auto sr(std::uint64_t i, const Vias& v) { return mpls<SrTunnelTableEntry>(TunnelType::srTunnel, i, v); }
  static auto rsvp(std::uint64_t i, const Vias& v) { return mpls<RsvpTunnelTableEntry>(TunnelType::rsvpTunnel, i, v); }
  static auto segmentList(std::uint64_t i, const Vias& v) {
    return mpls<SrTeSegmentListTunnelTableEntry>(TunnelType::srTeSegmentListTunnel, i, v);
  }
  template <class Entry>
  static Entry withBackup(Entry entry, const Vias& backup) {
    for (const MplsVia& each : backup) {
      entry.backupViaRef().append(each);
    }
    return entry;
  }
  static auto staticTunnel(std::uint64_t i, const Vias& v, const Vias& backup = {}) {
    return withBackup(mpls<StaticTunnelTableEntry>(TunnelType::staticTunnel, i, v), backup);
  }
  static auto tiLfa(std::uint64_t i, const Vias& v, const Vias& backup = {}) {
    return withBackup(mpls<TiLfaTunnelTableEntry>(TunnelType::tiLfaTunnel, i, v), backup);
  }
  // The label operation of the first via is that of all.
  template <class Entry>
  static Entry bgp(TunnelType type, std::uint64_t index, const Vias& vias) {
    Entry entry{TunnelId(type, index)};
    entry.labelOpIs(vias.empty() ? Ipkit::MplsLabelOperation::push({}) : vias.front().labelOp());
    for (const MplsVia& each : vias) {
      entry.viaRef().append(each);
    }
    return entry;
  }
  static auto bgpLuPush(std::uint64_t i, const Vias& v) {
    return bgp<BgpLuPushTunnelTableEntry>(TunnelType::bgpLuPushTunnel, i, v);
  }
  static auto bgpLu(std::uint64_t i, const Vias& v, Contribution contribution = Contribution::contributing) {
    auto entry = bgp<BgpLuTunnelTableEntry>(TunnelType::bgpLuTunnel, i, v);
    entry.contributionIs(contribution);
    return entry;
  }
  static auto nexthopGroup(std::uint64_t i, std::uint32_t group) {
    NexthopGroupTunnelTableEntry entry{TunnelId(TunnelType::nexthopGroupTunnel, i)};
    entry.nexthopGroupIdIs(group);
    return entry;
  }
  // Of one of the three interface tables.
  template <class Entry>
  static Entry interface(std::uint64_t i, const Vias& vias, const std::string& source, const std::string& destination) {
    Entry entry{TunnelId(TunnelType::l3IntfTunnel, i)};
    for (const MplsVia& each : vias) {
      entry.viaRef().append(each);
    }
    entry.tunnelInfoRef().sourceIs(Ipkit::IpGenAddr::fromText(source));
    entry.tunnelInfoRef().destinationIs(Ipkit::IpGenAddr::fromText(destination));
    return entry;
  }
  static auto gre(std::uint64_t i, const Vias& v, const std::string& destination) {
    return interface<GreIntfTunnelTableEntry>(i, v, "192.0.2.9", destination);
  }

  // The types whose entries hold MPLS vias.
  static constexpr TunnelType mplsTypes[] = {
      TunnelType::srTunnel,     TunnelType::ldpTunnel,  TunnelType::bgpLuPushTunnel, TunnelType::bgpLuTunnel,
      TunnelType::staticTunnel, TunnelType::rsvpTunnel, TunnelType::tiLfaTunnel,     TunnelType::srTeSegmentListTunnel};
  // Calls f with the entry of such a type.
  template <class F>
  static void withMpls(TunnelType type, std::uint64_t i, const Vias& v, const Vias& backup, F&& f) {
    switch (type) {
      case TunnelType::srTunnel:
        return f(sr(i, v));
      case TunnelType::ldpTunnel:
        return f(ldp(i, v));
      case TunnelType::bgpLuPushTunnel:
        return f(bgpLuPush(i, v));
      case TunnelType::bgpLuTunnel:
        return f(bgpLu(i, v));
      case TunnelType::staticTunnel:
        return f(staticTunnel(i, v, backup));
      case TunnelType::rsvpTunnel:
        return f(rsvp(i, v));
      case TunnelType::tiLfaTunnel:
        return f(tiLfa(i, v, backup));
      default:
        return f(segmentList(i, v));
    }
  }

  void put(TunnelType type, std::uint64_t i, const Vias& v) {
    withMpls(type, i, v, {}, [this](const auto& entry) { put(entry); });
  }
  template <class Entry>
  void put(const Entry& entry) {
    table<Entry>().entryIs(entry);
  }
  template <class Entry>
  void del(const Entry& entry) {
    table<Entry>().entryDel(entry.tunnelId());
  }
  template <class Entry>
  auto& table() {
    return *std::get<TableOf<Entry>>(tables).table;
  }

  // ---- time ----
  void settle() { Quor::settle(*scheduler, time); }
  // Runs at most that many slices.
  void runSlices(unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      if (!scheduler->runReadyTask() && scheduler->hasTasks()) {
        time.nowIs(*scheduler->nextDeadline());
      }
    }
  }
  // A slice ends after that many reviews; 0: never. Restarts.
  void yieldEvery(unsigned reviews) {
    yieldEvery_ = reviews;
    restart();
  }
  // Another process over the same tables, FIB and set, whatever the first one was at.
  void restart() {
    sm = nullptr;
    scheduler = nullptr;
    start();
  }

  // ---- what came out ----
  const TunnelFibWriter& writer() const { return *sm->tunnelFibWriter(); }
  TunnelFibEntry entry(const std::string& id) const { return fib->entry().value(tunnel(id)); }
  // The vias of one tunnel; empty when it has no entry.
  std::string shown(const std::string& id) const { return listed(viaTexts(*fib, entry(id).tunnelVia())); }
  bool isUnprogrammable(const std::string& id) const { return unprogrammable->has(tunnel(id)); }
  FibDocument document() const { return fibDocument(*fib, *unprogrammable); }
  // What would have to be zero for "nothing was written".
  std::uint64_t writes() const { return fib->entry().collectionControl().sequence(); }

  // Not when damage is in play: what cannot be read cannot be counted.
  void sweepIsOff() { sweeps_ = false; }

  // Every handler of every test ends here.
  void sweep() {
    if (!sweeps_ || !sm) {
      return;
    }
    settle();
    EXPECT_EQ(sm->tunnelForReviews() + sm->heldUp(), 0U);
    EXPECT_EQ(sm->deferredTunnels(), 0U);
    EXPECT_EQ(sm->tunnelFibEntryMarkedUnprocesseds(), 0U);
    EXPECT_FALSE(sm->task().taskScheduled());
    EXPECT_EQ(sm->tunnelReviewBookmark(), TunnelId());
    sweepReferences();
    sweepDependencies();
  }

  // Whether every reference is counted, every named record there, and no other.
  void sweepReferences() {
    std::map<EncapId, std::uint32_t> counts;
    walkSafely(fib->entry(), [&](const auto& hint) {
      const TunnelFibEntry fibEntry = fib->entry().value(hint.key());
      for (const TunnelViaArray* vias : {&fibEntry.tunnelVia(), &fibEntry.backupTunnelVia()}) {
        for (const TunnelVia& each : *vias) {
          if (!!each.encapId()) {
            ++counts[each.encapId()];
          }
        }
      }
    });
    EXPECT_EQ(writer().encapIdRefCounts(), counts.size());
    std::size_t records = 0;
    for (const auto& [id, count] : counts) {
      EXPECT_EQ(writer().encapIdRefCount(id), count) << id;
      withEncapKind(id.encapType(), [&, encapId = id](auto kind) {
        EXPECT_TRUE(decltype(kind)::encaps(*fib).has(encapId)) << encapId << " is named and missing";
      });
    }
    forEachEncapKind([&](auto kind) { records += decltype(kind)::encaps(*fib).size(); });
    EXPECT_EQ(records, counts.size()) << "records that nobody names";
  }

  template <class Table>
  struct Holder {
    Zol::Ptr<Table> table = Zol::make<Table>("table");
  };

  Quor::SimulatedTimeSource time;
  Zol::Ptr<Quor::TaskScheduler> scheduler;
  Zol::Ptr<TunnelFib> fib;
  Zol::Ptr<TunnelIdColl> unprogrammable;
  std::tuple<Holder<BgpLuTunnelTable>, Holder<LdpTunnelTable>, Holder<SrTunnelTable>, Holder<BgpLuPushTunnelTable>,
             Holder<StaticTunnelTable>, Holder<SrTeSegmentListTunnelTable>, Holder<RsvpTunnelTable>,
             Holder<GreIntfTunnelTable>, Holder<IpsecVtiIntfTunnelTable>, Holder<IpsecGreIntfTunnelTable>,
             Holder<NexthopGroupTunnelTable>, Holder<TiLfaTunnelTable>>
      tables;
  Zol::Ptr<TunnelFibSm> sm;

 private:
  template <class Entry, class Tuple>
  struct Find;
  template <class Entry, class First, class... Rest>
  struct Find<Entry, std::tuple<Holder<First>, Rest...>> {
    using Type = typename std::conditional_t<std::same_as<typename First::Record, Entry>,
                                             std::type_identity<Holder<First>>, Find<Entry, std::tuple<Rest...>>>;
    using type = typename Type::type;
  };
  template <class Entry>
  using TableOf = typename Find<Entry, decltype(tables)>::type;

  void start() {
    if (yieldEvery_ == 0) {
      policy_ = std::make_unique<Quor::EndlessSlicePolicy>();
    } else {
      policy_ = std::make_unique<Quor::UnitSlicePolicy>(yieldEvery_);
    }
    scheduler = Zol::make<Quor::TaskScheduler>(time, *policy_);
    sm = std::apply(
        [this](auto&... holder) { return tunnelFibSmFactory(fib, unprogrammable, holder.table..., scheduler); },
        tables);
  }

  void sweepDependencies() {
    walkSafely(fib->entry(), [&](const auto& hint) {
      for (const TunnelId& next : sm->tunnelsDirectlyDependingOn(hint.key())) {
        const auto back = sm->directlyDependentTunnels(next);
        EXPECT_TRUE(std::binary_search(back.begin(), back.end(), hint.key()));
      }
      for (const TunnelId& dependant : sm->directlyDependentTunnels(hint.key())) {
        const auto next = sm->tunnelsDirectlyDependingOn(dependant);
        EXPECT_TRUE(std::binary_search(next.begin(), next.end(), hint.key()));
      }
    });
  }

  unsigned yieldEvery_ = 0;
  bool sweeps_ = true;
  std::unique_ptr<Quor::SlicePolicy> policy_;
};

}  // namespace Tunnel::TunnelTable
