#include <algorithm>
#include <iostream>
#include <set>

#include "tools/Commands.h"
#include "tools/EntryJson.h"
#include "tools/Shadow.h"
#include "tools/ShowCommand.h"
#include "tools/StateReading.h"
#include "tools/TableWalk.h"
#include "tunnel/TunnelTableInfo.h"

namespace Tools {
namespace {

template <class Key>
std::optional<Key> keyAfter(const ListOptions& options) {
  return options.after ? std::optional<Key>(optionValue<Key>("--after", *options.after)) : std::nullopt;
}

// The end of a list of the map's records.
int finish(Rows& rows, const Memtab::MapBase& map, const std::string& path, bool isJson) {
  rows.end();
  std::vector<std::string> damages;
  if (map.corruptions() > 0) {
    damages.push_back(path + ": damaged; what cannot be read is left out");
  }
  return toldDamage(damages, isJson);
}

std::string fullPath(const ListOptions& options, const std::string& path) {
  return options.stateDirectory + "/" + path;
}

using Ribs = std::vector<Zol::Ptr<Model::TunnelRib>>;

// The tunnels that any of the RIBs has at the endpoint.
std::vector<Model::TunnelId> tunnelsAt(const Ribs& ribs, const Ipkit::IpGenPrefix& tep) {
  std::set<Model::TunnelId> tunnels;
  for (const auto& rib : ribs) {
    Model::TunnelRibEntry entry;
    if (Model::readSafely(rib.get(), tep, entry)) {
      tunnels.insert(entry.tunnelId().begin(), entry.tunnelId().end());
    }
  }
  return {tunnels.begin(), tunnels.end()};
}

std::optional<std::vector<Model::TunnelId>> askedTunnels(const Ribs& ribs, const EntryFilter& filter) {
  if (filter.tunnel()) {
    return std::vector{*filter.tunnel()};
  }
  return filter.tep() ? std::optional(tunnelsAt(ribs, *filter.tep())) : std::nullopt;
}

}  // namespace

int showFib(const ListOptions& options) {
  const auto after = keyAfter<Model::TunnelId>(options);
  StateReading reading(options.stateDirectory);
  reading.requireTable(Agent::fibPath);
  const Fib::TunnelFib& fib = *reading.state().fib();
  const auto rib = options.rib.empty() ? nullptr : reading.rib(options.rib);
  const Ribs ribs = rib == nullptr ? reading.ribs() : Ribs{rib};
  const EntryFilter filter = options.filter.among(ribs);
  const auto isInRib = [&](const Model::TunnelId& tunnel) {
    return rib == nullptr || hasTunnel(*rib, tepOf(reading.state(), tunnel), tunnel);
  };
  Rows rows(std::cout, options.isJson, "fib", {"tunnel", "vias"}, options.limit);
  // With both, the tunnel is looked up and must be at the endpoint.
  const bool isElsewhere = filter.tunnel() && filter.tep() && tepOf(reading.state(), *filter.tunnel()) != *filter.tep();
  auto keys = askedTunnels(ribs, filter);
  if (isElsewhere) {
    keys->clear();
  }
  walk(fib.entry(), {keys, after}, [&](const Fib::TunnelFibEntry& entry) {
    return !filter.doesFit(entry.tunnelId()) || !filter.doViasFit(fib, entry) || !isInRib(entry.tunnelId()) ||
           rows.add(
               entry.tunnelId(),
               [&] {
                 return Cells{Zol::stringOf(entry.tunnelId()), Agent::summaryOf(fib, entry)};
               },
               [&] { return Agent::fibEntryJson(fib, entry); });
  });
  return finish(rows, fib.entry(), fullPath(options, Agent::fibPath), options.isJson);
}

int showRib(const ListOptions& options, const std::string& name) {
  const auto after = keyAfter<Ipkit::IpGenPrefix>(options);
  StateReading reading(options.stateDirectory);
  const auto rib = reading.rib(name);
  const EntryFilter filter = options.filter.among({rib});
  const Fib::TunnelFib& fib = *reading.state().fib();
  std::optional<std::vector<Ipkit::IpGenPrefix>> keys;
  if (filter.tep() || filter.tunnel()) {
    keys = {filter.tep() ? *filter.tep() : tepOf(reading.state(), *filter.tunnel())};
  }
  const bool hasChoice = !reading.isProtocolRib(name);
  Rows rows(std::cout, options.isJson, "entries", {"tep", hasChoice ? "tunnels (preference)" : "tunnels"},
            options.limit, {{"name", name}});
  walk(*rib, {keys, after}, [&](const Model::TunnelRibEntry& entry) {
    return !filter.doesFitRibEntry(fib, entry) ||
           rows.add(
               entry.tep(),
               [&] {
                 return Cells{Zol::stringOf(entry.tep()), ribEntryWords(entry, hasChoice)};
               },
               [&] { return ribEntryJson(entry, hasChoice); });
  });
  return finish(rows, *rib, options.stateDirectory + ": RIB " + name, options.isJson);
}

int showTable(const ListOptions& options, Agent::TableId table) {
  const auto after = keyAfter<Model::TunnelId>(options);
  StateReading reading(options.stateDirectory);
  const std::string path = Model::tunnelTableInfo(table).path;
  reading.requireTable(path);
  int status = exitDone;
  const auto rib = options.rib.empty() ? nullptr : reading.rib(options.rib);
  std::optional<Shadow> shadow;
  if (!options.reason.empty()) {
    shadow.emplace(reading);
  }
  Rows rows(std::cout, options.isJson, "entries", {"tunnel", "tep", "pref", "vias"}, options.limit,
            {{"table", Zol::stringOf(table)}});
  reading.state().tables().withTable(table, [&](const auto& each) {
    using Entry = typename std::remove_cvref_t<decltype(each)>::Record;
    const EntryFilter filter = options.filter.amongEntries(each);
    std::optional<std::vector<Model::TunnelId>> keys;
    if (filter.tunnel()) {
      keys = {*filter.tunnel()};
    }
    const auto isFitting = [&](const Entry& entry) {
      return filter.doesFitEntry(entry) && (!rib || hasTunnel(*rib, entry.tep(), entry.tunnelId())) &&
             (!shadow || hasReason(reasonsOf(*shadow, entry.tunnelId()), options.reason));
    };
    walk(each, {keys, after}, [&](const Entry& entry) {
      const auto cells = [&] {
        return Cells{Zol::stringOf(entry.tunnelId()), !entry.tep() ? "-" : Zol::stringOf(entry.tep()),
                     std::to_string(entry.pref()), entryWords(entry)};
      };
      return !isFitting(entry) || rows.add(entry.tunnelId(), cells, [&] { return entryJson(entry); });
    });
    status = finish(rows, each, fullPath(options, path), options.isJson);
  });
  return status;
}

}  // namespace Tools
