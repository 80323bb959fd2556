// The judge of tunnel RIBs: says from the tables alone what a RIB must hold, without backlog, candidate store or
// history. It shares only record types with the code that it judges.
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

// An entry has at most 512 tunnels. Which ones is a matter of their arrival: those that are shown.
inline constexpr std::size_t naiveTunnelsMax = 512;
inline std::set<TunnelId> naiveChoice(const std::set<TunnelId>& due, const std::set<TunnelId>& shown) {
  const bool isChoice = due.size() > naiveTunnelsMax && shown.size() == naiveTunnelsMax &&
                        std::includes(due.begin(), due.end(), shown.begin(), shown.end());
  return isChoice ? shown : due;
}

inline unsigned naiveDefaultPref(TunnelType type) {
  static const std::map<TunnelType, unsigned> prefs = {{TunnelType::staticTunnel, 15},
                                                       {TunnelType::nexthopGroupTunnel, 25},
                                                       {TunnelType::ldpTunnel, 55},
                                                       {TunnelType::srTunnel, 65},
                                                       {TunnelType::bgpLuTunnel, 85}};
  return prefs.at(type);
}

// Which tables feed a RIB, each with the preference configured for it, and whether the RIB looks at those.
struct NaiveConfig {
  std::map<TunnelTableIdentifier, std::optional<TunnelEntryPref>> tables;
  bool remaps = false;
};

inline NaiveConfig naiveConfig(const TunnelRibConfig& config) {
  NaiveConfig naive;
  naive.remaps = config.name() != "system";
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
      NaiveTunnel tunnel{record.tunnelId(), record.tep(), record.pref(), record.tep().length() != 0, {}};
      if constexpr (requires { record.metrics(); }) {
        tunnel.metrics = record.metrics();
      }
      if constexpr (requires { record.contribution(); }) {
        tunnel.contributes = tunnel.contributes && record.contribution() == Contribution::contributing;
      }
      tunnels.push_back(tunnel);
    }
  }
  // As before, of a table that cannot be read now.
  void readAgain(TunnelTableIdentifier id, const NaiveTunnels& before) { tables_[id] = before.tables_.at(id); }

  // shown: the present contents of the RIB, which choose among more than 512 tunnels.
  NaiveRib rib(const NaiveConfig& config, const std::set<TunnelId>& unprogrammable, const NaiveRib& shown = {}) const {
    using Rank = std::tuple<unsigned, unsigned>;  // preference, default preference of the type
    std::map<Ipkit::IpGenPrefix, std::map<Rank, std::map<TunnelId, NaiveTunnel>>> candidates;
    for (const auto& [table, pref] : config.tables) {
      const auto tunnels = tables_.find(table);
      if (tunnels == tables_.end()) {
        continue;
      }
      for (const NaiveTunnel& tunnel : tunnels->second) {
        if (tunnel.contributes && !unprogrammable.contains(tunnel.id)) {
          const unsigned effective = config.remaps && pref ? *pref : tunnel.pref;
          candidates[tunnel.tep][{effective, naiveDefaultPref(tunnel.id.tunnelType())}][tunnel.id] = tunnel;
        }
      }
    }
    NaiveRib rib;
    for (const auto& [tep, ranks] : candidates) {
      const auto& [rank, tunnels] = *ranks.begin();
      NaiveRibEntry& entry = rib[tep];
      entry.pref = std::get<0>(rank);
      for (const auto& [id, tunnel] : tunnels) {
        entry.tunnels.insert(id);
      }
      if (const auto at = shown.find(tep); at != shown.end()) {
        entry.tunnels = naiveChoice(entry.tunnels, at->second.tunnels);
      }
      entry.metrics = tunnels.at(*entry.tunnels.begin()).metrics;
    }
    return rib;
  }

  // The tunnels of one type at their teps, as a per-protocol RIB lists them.
  using ProtocolRib = std::map<Ipkit::IpGenPrefix, std::set<TunnelId>>;
  ProtocolRib protocolRib(TunnelType type, const NaiveConfig& config, const std::set<TunnelId>& unprogrammable,
                          const ProtocolRib& shown = {}) const {
    ProtocolRib rib;
    for (const auto& [table, tunnels] : tables_) {
      for (const NaiveTunnel& tunnel : tunnels) {
        if (config.tables.contains(table) && tunnel.id.tunnelType() == type && tunnel.contributes &&
            !unprogrammable.contains(tunnel.id)) {
          rib[tunnel.tep].insert(tunnel.id);
        }
      }
    }
    for (const auto& [tep, ids] : shown) {
      if (const auto at = rib.find(tep); at != rib.end()) {
        at->second = naiveChoice(at->second, ids);
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
