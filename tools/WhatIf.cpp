#include "tools/WhatIf.h"

#include <algorithm>
#include <set>
#include <tuple>

#include "tunnel/TunnelFib.h"

namespace Tools {
namespace {

// f(table) for each table, by its own class.
template <class F>
void forEachTable(const Agent::ProtocolTables& tables, F&& f) {
  Agent::forEachNamedTable([&](auto named) { f(*tables.table<typename decltype(named)::Table>()); });
}

template <class Table, class F>
void forEachRecord(const Table& table, F&& f) {
  Model::walkSafely(table, true, [&](const auto& hint) {
    typename Table::Record record;
    if (Model::readSafely(&table, hint.key(), record)) {
      f(record);
    }
  });
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

template <class Record>
Record without(const Record& record, Ipkit::IntfId intf) {
  Record kept = record;
  if constexpr (requires { record.via(); }) {
    kept.viaIs(viasWithout(record.via(), intf));
  }
  if constexpr (requires { record.backupVia(); }) {
    kept.backupViaIs(viasWithout(record.backupVia(), intf));
  }
  return kept;
}

template <class Record>
bool hasVias(const Record& record) {
  if constexpr (requires { record.via(); }) {
    return record.via().size() > 0;
  }
  return true;
}

Undo together(std::vector<Undo> undos, std::size_t& count) {
  count = undos.size();
  return [undos = std::move(undos)] {
    for (const Undo& undo : undos) {
      undo();
    }
  };
}

// The keys of one collection that changed, each once.
template <class Key>
class ChangedKeys final : private Zol::Listener<Key> {
 public:
  explicit ChangedKeys(Zol::Channel<Key>& channel) { this->channelIs(&channel); }
  const std::set<Key>& keys() const { return keys_; }

 private:
  void onKey(const Key& key) override { keys_.insert(key); }
  std::set<Key> keys_;
};

// What is gone of the keys that changed.
template <class Map, class Key>
std::size_t goneOf(const Map& map, const std::set<Key>& changed) {
  return static_cast<std::size_t>(
      std::count_if(changed.begin(), changed.end(), [&](const Key& key) { return !map.has(key); }));
}

}  // namespace

Undo failIntf(const Agent::ProtocolTables& tables, Ipkit::IntfId intf, std::size_t& entries) {
  std::vector<Undo> undos;
  forEachTable(tables, [&](auto& table) {
    using Record = typename std::remove_cvref_t<decltype(table)>::Record;
    std::vector<Record> touched;
    forEachRecord(table, [&](const Record& record) {
      if (!(without(record, intf) == record)) {
        touched.push_back(record);
      }
    });
    for (const Record& record : touched) {
      const Record kept = without(record, intf);
      hasVias(kept) ? table.entryIs(kept) : table.entryDel(record.tunnelId());
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
  std::set<Ipkit::IntfId> intfs;
  const auto add = [&intfs](const auto& vias) {
    for (const auto& via : vias) {
      if (!Model::DynamicTunnelIntfId::isDynamicTunnelIntfId(via.intf())) {
        intfs.insert(via.intf());
      }
    }
  };
  forEachTable(tables, [&](auto& table) {
    forEachRecord(table, [&](const auto& record) {
      if constexpr (requires { record.via(); }) {
        add(record.via());
      }
      if constexpr (requires { record.backupVia(); }) {
        add(record.backupVia());
      }
    });
  });
  return {intfs.begin(), intfs.end()};
}

std::vector<IntfCost> intfCosts(Shadow& shadow) {
  const Agent::AgentHost& host = shadow.host();
  std::vector<IntfCost> costs;
  for (const Ipkit::IntfId intf : intfsOf(host.tables())) {
    IntfCost cost{.intf = intf};
    const ChangedKeys<Model::TunnelId> tunnels(host.fib()->entryChannel());
    const ChangedKeys<Ipkit::IpGenPrefix> endpoints(host.rib(0)->entryChannel());
    const Undo undo = failIntf(host.tables(), intf, cost.entries);
    shadow.settle();
    cost.lost = goneOf(host.fib()->entry(), tunnels.keys());
    cost.changed = tunnels.keys().size() - cost.lost;
    cost.endpointsLost = goneOf(*host.rib(0), endpoints.keys());
    undo();
    shadow.settle();
    costs.push_back(cost);
  }
  std::stable_sort(costs.begin(), costs.end(), [](const IntfCost& a, const IntfCost& b) {
    return std::tie(a.lost, a.changed) > std::tie(b.lost, b.changed);
  });
  return costs;
}

}  // namespace Tools
