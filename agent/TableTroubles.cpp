#include "agent/TableTroubles.h"

#include <algorithm>

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

void TableTroubles::look() {
  for (const TableId table : allTables()) {
    lookAt("table " + Zol::stringOf(table), Model::tunnelTableInfo(table).path);
  }
  lookAt("the declaration of BGP", bgpLuDeclarationPath);
}

void TableTroubles::lookAt(const std::string& name, const std::string& path) {
  const Memtab::MirrorStore* const mirror = state_.entityManager()->mirror(path);
  const std::string trouble = mirror == nullptr ? "" : mirror->trouble();
  std::string& known = troubles_[path];
  if (trouble == known) {
    return;
  }
  known = trouble;
  if (trouble.empty()) {
    log(LogLevel::notice, name + ": what could not be read is gone");
  } else {
    log(LogLevel::warning, name + " cannot be read, " +
                               (mirror->isBound() ? "and stays as it was read last" : "and is as if absent") + ": " +
                               trouble);
  }
}

void TableTroubles::othersAre(std::vector<std::string> others) {
  const auto logNew = [](LogLevel level, const char* prefix, const auto& now, const auto& before) {
    for (const std::string& line : now) {
      if (std::find(before.begin(), before.end(), line) == before.end()) {
        log(level, prefix + line);
      }
    }
  };
  logNew(LogLevel::warning, "", others, others_);
  logNew(LogLevel::notice, "no longer so: ", others_, others);
  others_ = std::move(others);
}

bool TableTroubles::canReadAll() const {
  return std::all_of(allTables().begin(), allTables().end(), [this](TableId table) {
    const Memtab::MirrorStore* const mirror = state_.entityManager()->mirror(Model::tunnelTableInfo(table).path);
    return mirror == nullptr || mirror->isCurrent() || (!mirror->isBound() && mirror->trouble().empty());
  });
}

}  // namespace Agent
