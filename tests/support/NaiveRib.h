// The judge of tunnel RIBs: says from the tables alone what a RIB must hold, without backlog, candidate store or
// history.
#pragma once

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "tunnel/TunnelIdColl.h"
#include "tunnel/TunnelRibConfig.h"
#include "tunnel/TunnelTable.h"

namespace Tunnel::TunnelTable {

// A tunnel as its table has it, as far as RIBs care.
struct NaiveTunnel {
  TunnelId id;
  Ipkit::IpGenPrefix tep;
  unsigned pref = 0;
  bool contributes = true;
  TunnelMetrics metrics;
};

struct NaiveRibEntry {
  unsigned pref = 0;
  TunnelMetrics metrics;
  std::set<TunnelId> tunnels;
  friend bool operator==(const NaiveRibEntry&, const NaiveRibEntry&) = default;
};
using NaiveRib = std::map<Ipkit::IpGenPrefix, NaiveRibEntry>;

inline std::ostream& operator<<(std::ostream& out, const NaiveRibEntry& entry) {
  out << "pref " << entry.pref << ' ' << entry.metrics;
  for (const TunnelId& id : entry.tunnels) {
    out << ' ' << id;
  }
  return out;
}

// Which tables feed a RIB, each with the preference configured for it, and whether the RIB looks at those.
struct NaiveConfig {
  std::map<TunnelTableIdentifier, std::optional<TunnelEntryPref>> tables;
  bool remaps = false;
};

inline NaiveConfig naiveConfig(const TunnelRibConfig& config) {
  NaiveConfig naive;
  naive.remaps = config.name() != TunnelRibNameIdMap::systemTunnelRibName;
  for (auto it = config.entry().begin(); it; ++it) {
    naive.tables[it.key()] = it.value()->prefMapping();
  }
  return naive;
}

// The contents of the five tables that feed RIBs.
class NaiveTunnels {
 public:
  template <class Table>
  void read(TunnelTableIdentifier id, const Table& table) {
    std::vector<NaiveTunnel>& tunnels = tables_[id];
    typename Table::Hint hint;
    for (bool more = table.first(hint); more; more = table.next(hint)) {
      const auto record = hint.record(table);
      NaiveTunnel tunnel{record.tunnelId(), record.tep(), record.pref(), true, {}};
      if constexpr (requires { record.metrics(); }) {
        tunnel.metrics = record.metrics();
      }
      if constexpr (requires { record.contribution(); }) {
        tunnel.contributes = record.contribution() == Contribution::contributing;
      }
      tunnels.push_back(tunnel);
    }
  }
  // A table that is not mounted feeds nothing.
  void withdraw(TunnelTableIdentifier id) { tables_.erase(id); }

  NaiveRib rib(const NaiveConfig& config, const std::set<TunnelId>& unprogrammable) const {
    using Rank = std::tuple<unsigned, unsigned>;  // preference, default preference of the type
    std::map<Ipkit::IpGenPrefix, std::map<Rank, std::map<TunnelId, NaiveTunnel>>> candidates;
    for (const auto& [table, pref] : config.tables) {
      const auto tunnels = tables_.find(table);
      if (tunnels == tables_.end()) {
        continue;
      }
      for (const NaiveTunnel& tunnel : tunnels->second) {
        if (tunnel.contributes && !!tunnel.tep && !unprogrammable.contains(tunnel.id)) {
          const unsigned effective = config.remaps && pref ? *pref : tunnel.pref;
          candidates[tunnel.tep][{effective, getDefaultPrefForType(tunnel.id.tunnelType())}][tunnel.id] = tunnel;
        }
      }
    }
    NaiveRib rib;
    for (const auto& [tep, ranks] : candidates) {
      const auto& [rank, tunnels] = *ranks.begin();
      NaiveRibEntry& entry = rib[tep];
      entry.pref = std::get<0>(rank);
      entry.metrics = tunnels.begin()->second.metrics;
      for (const auto& [id, tunnel] : tunnels) {
        entry.tunnels.insert(id);
      }
    }
    return rib;
  }

  // The tunnels of one type at their teps, as a per-protocol RIB lists them.
  std::map<Ipkit::IpGenPrefix, std::set<TunnelId>> protocolRib(TunnelType type, const NaiveConfig& config,
                                                               const std::set<TunnelId>& unprogrammable) const {
    std::map<Ipkit::IpGenPrefix, std::set<TunnelId>> rib;
    for (const auto& [table, tunnels] : tables_) {
      for (const NaiveTunnel& tunnel : tunnels) {
        if (config.tables.contains(table) && tunnel.id.tunnelType() == type && tunnel.contributes && !!tunnel.tep &&
            !unprogrammable.contains(tunnel.id)) {
          rib[tunnel.tep].insert(tunnel.id);
        }
      }
    }
    return rib;
  }

 private:
  std::map<TunnelTableIdentifier, std::vector<NaiveTunnel>> tables_;
};

// What a RIB does hold, in the judge's form.
inline NaiveRib contentsOf(const TunnelRib& rib) {
  NaiveRib contents;
  TunnelRib::Hint hint;
  for (bool more = rib.first(hint); more; more = rib.next(hint)) {
    const TunnelRibEntry entry = hint.record(rib);
    contents[entry.tep()] = {entry.pref(), entry.metrics(), {entry.tunnelId().begin(), entry.tunnelId().end()}};
  }
  return contents;
}
inline std::map<Ipkit::IpGenPrefix, std::set<TunnelId>> tunnelsOf(const TunnelRib& rib) {
  std::map<Ipkit::IpGenPrefix, std::set<TunnelId>> tunnels;
  for (const auto& [tep, entry] : contentsOf(rib)) {
    tunnels[tep] = entry.tunnels;
  }
  return tunnels;
}

}  // namespace Tunnel::TunnelTable
