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

void TableTroubles::look(const std::string& ofDirectory) {
  for (const TableId table : allTables()) {
    const Memtab::MirrorStore* const mirror = state_.entityManager()->mirror(Model::tunnelTableInfo(table).path);
    const std::string trouble = mirror == nullptr ? "" : mirror->trouble();
    std::string& known = troubles_[table];
    if (trouble == known) {
      continue;
    }
    known = trouble;
    const std::string name = "table " + Zol::stringOf(table);
    if (trouble.empty()) {
      log(LogLevel::notice, name + ": what could not be read is gone");
    } else {
      log(LogLevel::warning, name + " cannot be read, " +
                                 (mirror->isBound() ? "and stays as it was read last" : "and is as if absent") + ": " +
                                 trouble);
    }
  }
  if (ofDirectory != ofDirectory_) {
    ofDirectory_ = ofDirectory;
    log(ofDirectory.empty() ? LogLevel::notice : LogLevel::warning,
        "state directory: " + (ofDirectory.empty() ? "all is well again" : ofDirectory));
  }
}

bool TableTroubles::canReadAll() const {
  return std::all_of(allTables().begin(), allTables().end(), [this](TableId table) {
    const Memtab::MirrorStore* const mirror = state_.entityManager()->mirror(Model::tunnelTableInfo(table).path);
    return mirror == nullptr || mirror->isCurrent() || (!mirror->isBound() && mirror->trouble().empty());
  });
}

}  // namespace Agent
