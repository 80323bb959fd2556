#include "agent/TableTroubles.h"

#include <algorithm>
#include <utility>

#include "agent/AgentStatus.h"
#include "agent/Log.h"
#include "tunnel/TunnelTableInfo.h"
#include "tunnel_table_sm/TunnelRibConfigDirSm.h"

namespace Agent {
std::vector<std::string> misfits(const std::string& stateDirectory) {
  AgentState state(Zol::make<Statehub::EntityManager>(stateDirectory), Statehub::Access::read);
  const StatusReader status(state);
  std::vector<std::string> paths = {systemRibPath, fibPath, ribStatusPath, unprogrammablePath, convergencePath};
  for (const auto& [type, wrapper] : state.protocolRibs()->protocolTunnelRib()) {
    paths.push_back(protocolRibPathPrefix + std::string(Model::stringValue(type)));
  }
  for (const auto& [id, line] : status.ribs()) {
    if (id != 0) {
      paths.push_back(Model::tunnelRibStatusPathPrefix + std::to_string(id));
    }
  }
  std::vector<std::string> lines;
  for (const std::string& path : paths) {
    if (const std::string& trouble = state.entityManager()->mirror(path)->trouble(); !trouble.empty()) {
      lines.push_back(trouble);
    }
  }
  return lines;
}

// One line for each cause, however many tables it concerns.
void TableTroubles::look() {
  Troubles now;
  const auto add = [&](const std::string& table, const std::string& path) {
    if (Trouble trouble = troubleAt(path); !trouble.text.empty()) {
      now[table] = std::move(trouble);
    }
  };
  for (const TableId table : allTables()) {
    add(Zol::stringOf(table), Model::tunnelTableInfo(table).path);
  }
  add("bgpLuConvergence", bgpLuDeclarationPath);
  Troubles changed = now;
  std::erase_if(changed, [this](const auto& each) {
    const auto known = troubles_.find(each.first);
    return known != troubles_.end() && known->second == each.second;
  });
  for (const Reason& reason : reasonsOf(changed)) {
    logBounded(LogLevel::warning, "unreadable tables", reason.text());
  }
  std::vector<std::string> readable;
  for (const auto& [table, trouble] : troubles_) {
    if (!now.contains(table)) {
      readable.push_back(table);
    }
  }
  if (!readable.empty()) {
    logBounded(LogLevel::notice, "unreadable tables", tablesText(readable) + ": readable again");
  }
  troubles_ = std::move(now);
  reasons_ = reasonsOf(troubles_);
}

auto TableTroubles::troubleAt(const std::string& path) const -> Trouble {
  const Memtab::MirrorStore* const mirror = state_.entityManager()->mirror(path);
  return mirror == nullptr ? Trouble() : Trouble{path, mirror->trouble(), mirror->isBound()};
}

// A text names the table's file, a directory above it, or neither. The file is no part of the cause.
std::vector<Reason> TableTroubles::reasonsOf(const Troubles& troubles) const {
  struct Group {
    std::string place;
    std::vector<std::string> tables;
  };
  const std::string& directory = state_.entityManager()->stateDirectory();
  std::map<std::pair<std::string, bool>, Group> groups;  // by cause, and whether there are contents
  for (const auto& [table, trouble] : troubles) {
    const std::string file = directory + "/" + trouble.path;
    const bool isOfFile = trouble.text.starts_with(file + ": ");
    const bool hasPlace = isOfFile || !trouble.text.starts_with(directory);
    Group& group = groups[{isOfFile ? trouble.text.substr(file.size() + 2) : trouble.text, trouble.isBound}];
    group.place = !hasPlace ? "" : group.place.empty() ? file : group.place;
    group.tables.push_back(table);
  }
  std::vector<Reason> reasons;
  for (const auto& [cause, group] : groups) {
    const std::string others =
        group.tables.size() == 1 ? "" : " and " + std::to_string(group.tables.size() - 1) + " more";
    const std::string place = group.place.empty() ? "" : group.place + others + ": ";
    reasons.push_back({tablesText(group.tables), "cannot be read: " + place + cause.first,
                       cause.second ? "the contents read last stay in use" : "treated as absent", true});
  }
  return reasons;
}

bool TableTroubles::canReadAll() const {
  return std::all_of(allTables().begin(), allTables().end(), [this](TableId table) {
    const Memtab::MirrorStore* const mirror = state_.entityManager()->mirror(Model::tunnelTableInfo(table).path);
    return mirror == nullptr || mirror->isCurrent() || (!mirror->isBound() && mirror->trouble().empty());
  });
}

}  // namespace Agent
