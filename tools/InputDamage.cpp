#include "tools/InputDamage.h"

#include <algorithm>
#include <map>

#include "agent/InputError.h"
#include "tools/TableWalk.h"
#include "tunnel/TunnelTableInfo.h"

namespace Tools {
namespace {

constexpr std::size_t namesMax = 8;

std::string listed(const std::set<std::string>& names) {
  std::string text;
  std::size_t count = 0;
  for (const std::string& name : names) {
    if (count++ == namesMax) {
      return text + " and " + std::to_string(names.size() - namesMax) + " more";
    }
    text += (text.empty() ? "" : ", ") + name;
  }
  return text;
}

// What walks over the table stumble on, each once.
template <class Table>
std::set<std::string> damagesIn(const Table& table) {
  std::set<std::string> found;
  typename Table::Hint hint;
  for (bool isStarted = false, isMore = true; isMore; isStarted = true) {
    try {
      isMore = isStarted ? table.next(hint) : table.first(hint);
      if (isMore) {
        (void)hint.record(table);
      }
    } catch (const Memtab::CorruptionException& damage) {
      const std::string what = damage.what();
      const std::string name = table.fullName() + ": ";
      found.insert(what.starts_with(name) ? what.substr(name.size()) : what);
    }
  }
  return found;
}

template <class Table>
bool isReadable(const Table& table, const Model::TunnelId& tunnel) {
  try {
    (void)table.has(tunnel);
    return true;
  } catch (const Memtab::CorruptionException&) {
    return false;
  }
}

template <class Entry, class F>
void forEachNextLevel(const Entry& entry, F&& f) {
  if constexpr (requires { entry.via(); }) {
    for (const auto& via : entry.via()) {
      if (Model::DynamicTunnelIntfId::isDynamicTunnelIntfId(via.intf())) {
        f(Model::DynamicTunnelIntfId::tunnelId(via.intf()));
      }
    }
  }
}

}  // namespace

InputDamage::InputDamage(StateReading& reading) {
  const std::vector<TableFile> files = reading.files();
  std::set<Model::TunnelId> all;
  for (const Agent::TableId id : Agent::allTables()) {
    const std::string name = Zol::stringOf(id);
    const auto file =
        std::find_if(files.begin(), files.end(), [&](const TableFile& each) { return each.name == name; });
    if (file == files.end()) {
      continue;
    }
    if (!file->mirror->trouble().empty()) {
      lines_.push_back({name, troubleOf(*file) + "; nothing that follows from it can be judged"});
      isWhole_ = true;
      continue;
    }
    reading.state().tables().withTable(id, [&](const auto& table) {
      if (table.corruptions() != 0) {
        if (const std::set<std::string> found = damagesIn(table); !found.empty()) {
          damaged_.push_back({name, "table " + name + " (" + file->path + "): damaged: " + listed(found), {}});
        }
      }
    });
    if (!damaged_.empty() && damaged_.back().name == name) {
      findTunnels(reading, damaged_.back(), id);
      all.insert(damaged_.back().tunnels.begin(), damaged_.back().tunnels.end());
    }
  }
  for (const Damaged& damaged : damaged_) {
    std::set<Model::TunnelId> tunnels = damaged.tunnels;
    addDependants(reading, tunnels);
    std::set<std::string> names = endpointsOf(reading, tunnels);
    for (const Model::TunnelId& tunnel : tunnels) {
      names.insert(Zol::stringOf(tunnel));
    }
    affected_.insert(names.begin(), names.end());
    lines_.push_back({damaged.name, damaged.table + (names.empty() ? "" : "; cannot be judged: " + listed(names))});
  }
}

// Only published tunnels: one that is in no RIB, not in the FIB and not unprogrammable differs in nothing.
void InputDamage::findTunnels(StateReading& reading, Damaged& damaged, Agent::TableId id) {
  reading.state().tables().withTable(id, [&](const auto& table) {
    const auto consider = [&](const Model::TunnelId& tunnel) {
      if (tunnel.tunnelType() == table.tunnelType() && !damaged.tunnels.contains(tunnel) &&
          !isReadable(table, tunnel)) {
        damaged.tunnels.insert(tunnel);
      }
    };
    Model::walkSafely(reading.state().fib()->entry(), [&](const auto& hint) { consider(hint.key()); });
    for (const auto& [tunnel, isThere] : reading.state().unprogrammable()->entry()) {
      consider(tunnel);
    }
    for (const auto& rib : reading.ribs()) {
      walk(*rib, {}, [&](const Model::TunnelRibEntry& entry) {
        std::for_each(entry.tunnelId().begin(), entry.tunnelId().end(), consider);
        return true;
      });
    }
  });
}

void InputDamage::addDependants(StateReading& reading, std::set<Model::TunnelId>& tunnels) const {
  std::map<Model::TunnelId, std::vector<Model::TunnelId>> dependants;
  for (const Agent::TableId id : Agent::allTables()) {
    reading.state().tables().withTable(id, [&](const auto& table) {
      walk(table, {}, [&](const auto& entry) {
        forEachNextLevel(entry, [&](const Model::TunnelId& next) { dependants[next].push_back(entry.tunnelId()); });
        return true;
      });
    });
  }
  std::vector<Model::TunnelId> fresh(tunnels.begin(), tunnels.end());
  while (!fresh.empty()) {
    const Model::TunnelId next = fresh.back();
    fresh.pop_back();
    for (const Model::TunnelId& dependant : dependants[next]) {
      if (tunnels.insert(dependant).second) {
        fresh.push_back(dependant);
      }
    }
  }
}

std::set<std::string> InputDamage::endpointsOf(StateReading& reading, const std::set<Model::TunnelId>& tunnels) const {
  std::set<std::string> endpoints;
  for (const auto& rib : reading.ribs()) {
    walk(*rib, {}, [&](const Model::TunnelRibEntry& entry) {
      if (std::any_of(entry.tunnelId().begin(), entry.tunnelId().end(),
                      [&](const Model::TunnelId& id) { return tunnels.contains(id); })) {
        endpoints.insert(Zol::stringOf(entry.tep()));
      }
      return true;
    });
  }
  return endpoints;
}

std::string InputDamage::lineOf(const Model::TunnelId& tunnel) const {
  for (const Damaged& damaged : damaged_) {
    if (damaged.tunnels.contains(tunnel)) {
      return damaged.table;
    }
  }
  return {};
}

}  // namespace Tools
