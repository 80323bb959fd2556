#include "tools/WhatIf.h"

#include <algorithm>
#include <map>
#include <tuple>

#include "runtime/Zol/HashCollection.h"
#include "tools/TableWalk.h"
#include "tunnel/TunnelFib.h"

namespace Tools {
namespace {

// f(table) for each table, by its own class.
template <class F>
void forEachTable(const Agent::ProtocolTables& tables, F&& f) {
  Agent::forEachNamedTable([&](auto named) { f(*tables.table<typename decltype(named)::Table>()); });
}

// f(intf) for each that packets of the entry leave through, backup vias included.
template <class Record, class F>
void forEachIntf(const Record& record, F&& f) {
  if constexpr (requires { record.via(); }) {
    for (const auto& via : record.via()) {
      f(via.intf());
    }
  }
  if constexpr (requires { record.backupVia(); }) {
    for (const auto& via : record.backupVia()) {
      f(via.intf());
    }
  }
  if constexpr (requires { record.nexthopGroupId(); }) {
    f(Ipkit::NexthopGroupIntfId::nexthopGroupIdToIntfId(record.nexthopGroupId()));
  }
}

template <class Vias>
Vias viasWithout(const Vias& vias, Ipkit::IntfId intf) {
  Vias kept;
  for (const auto& via : vias) {
    if (via.intf() != intf) {
      kept.append(via);
    }
  }
  return kept;
}

// What the interface leaves of the entry; nothing: no way at all.
template <class Record>
std::optional<Record> without(const Record& record, Ipkit::IntfId intf) {
  Record kept = record;
  if constexpr (requires { record.via(); }) {
    kept.viaIs(viasWithout(record.via(), intf));
  }
  if constexpr (requires { record.backupVia(); }) {
    kept.backupViaIs(viasWithout(record.backupVia(), intf));
  }
  bool hasWay = false;
  forEachIntf(kept, [&](Ipkit::IntfId left) { hasWay = hasWay || left != intf; });
  return hasWay ? std::optional(kept) : std::nullopt;
}

Undo together(std::vector<Undo> undos, std::size_t& count) {
  count = undos.size();
  return [undos = std::move(undos)] {
    for (const Undo& undo : undos) {
      undo();
    }
  };
}

// The keys of one collection that change, each once.
template <class Map>
class ChangedKeys final : private Zol::Listener<typename Map::Key> {
 public:
  explicit ChangedKeys(const Map& map) : map_(map) { this->channelIs(&map.entryChannel()); }
  std::size_t count() const { return keys_.size(); }
  // Those that are not there any more.
  std::size_t gone() const {
    std::size_t count = 0;
    for (auto it = keys_.begin(); it; ++it) {
      count += map_.has(it.key()) ? 0U : 1U;
    }
    return count;
  }

 private:
  void onKey(const typename Map::Key& key) override { keys_.insert(key); }
  const Map& map_;
  Zol::HashCollection<typename Map::Key> keys_;
};

}  // namespace

Undo failIntf(const Agent::ProtocolTables& tables, Ipkit::IntfId intf, std::size_t& entries) {
  std::vector<Undo> undos;
  forEachTable(tables, [&](auto& table) {
    using Record = typename std::remove_cvref_t<decltype(table)>::Record;
    std::vector<Record> touched;
    walk(table, {}, [&](const Record& record) {
      bool isTouched = false;
      forEachIntf(record, [&](Ipkit::IntfId each) { isTouched = isTouched || each == intf; });
      if (isTouched) {
        touched.push_back(record);
      }
      return true;
    });
    for (const Record& record : touched) {
      const std::optional<Record> kept = without(record, intf);
      kept ? table.entryIs(*kept) : table.entryDel(record.tunnelId());
      undos.push_back([&table, record] { table.entryIs(record); });
    }
  });
  return together(std::move(undos), entries);
}

Undo failTunnel(const Agent::ProtocolTables& tables, const Model::TunnelId& tunnel, std::size_t& entries) {
  std::vector<Undo> undos;
  forEachTable(tables, [&](auto& table) {
    typename std::remove_cvref_t<decltype(table)>::Record record;
    if (Model::readSafely(&table, tunnel, record)) {
      table.entryDel(tunnel);
      undos.push_back([&table, record] { table.entryIs(record); });
    }
  });
  return together(std::move(undos), entries);
}

std::vector<Ipkit::IntfId> intfsOf(const Agent::ProtocolTables& tables) {
  std::map<Ipkit::IntfId, std::size_t> vias;
  forEachTable(tables, [&](auto& table) {
    walk(table, {}, [&](const auto& record) {
      forEachIntf(record, [&](Ipkit::IntfId intf) {
        if (intf.is(Ipkit::IntfId::Kind::ordinary)) {
          ++vias[intf];
        }
      });
      return true;
    });
  });
  std::vector<Ipkit::IntfId> intfs;
  for (const auto& [intf, count] : vias) {
    intfs.push_back(intf);
  }
  std::stable_sort(intfs.begin(), intfs.end(), [&](auto a, auto b) { return vias.at(a) < vias.at(b); });
  return intfs;
}

IntfCost costOf(Shadow& shadow, Ipkit::IntfId intf, Undo& undo) {
  const ChangedKeys tunnels(shadow.host().fib()->entry());
  const ChangedKeys endpoints(*shadow.host().rib(0));
  IntfCost cost{.intf = intf};
  undo = failIntf(shadow.host().tables(), intf, cost.entries);
  shadow.settle();
  cost.lost = tunnels.gone();
  cost.changed = tunnels.count() - cost.lost;
  cost.endpointsLost = endpoints.gone();
  return cost;
}

std::vector<IntfCost> intfCosts(Shadow& shadow) {
  std::vector<IntfCost> costs;
  Undo undo;
  for (const Ipkit::IntfId intf : intfsOf(shadow.host().tables())) {
    if (undo) {
      undo();
      shadow.settle();
    }
    costs.push_back(costOf(shadow, intf, undo));
  }
  std::sort(costs.begin(), costs.end(), [](const IntfCost& a, const IntfCost& b) {
    return std::tie(b.lost, b.changed, a.intf) < std::tie(a.lost, a.changed, b.intf);
  });
  return costs;
}

}  // namespace Tools
