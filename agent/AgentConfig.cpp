#include "agent/AgentConfig.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <vector>

#include "agent/AgentStatus.h"
#include "agent/ScenarioReader.h"

namespace Agent {
namespace {

constexpr const char* systemName = Model::TunnelRibNameIdMap::systemTunnelRibName;

RibLine defaultSystemLine() {
  RibLine line{systemName, {}};
  for (const TableId table : ribTables) {
    line.tables[table];
  }
  return line;
}

void addLine(AgentConfig& config, const ScenarioLine& line) {
  const auto* const rib = std::get_if<RibLine>(&line);
  if (rib == nullptr) {
    throw InputError("line", "a configuration has rib lines only");
  }
  if (!config.emplace(rib->name, *rib).second) {
    throw InputError("rib", "'" + printable(rib->name) + "' is configured twice");
  }
}

}  // namespace

AgentConfig readConfig(std::istream& in, const std::string& name) {
  AgentConfig config;
  ScenarioReader reader(in, name);
  while (const std::optional<ScenarioLine> line = reader.next()) {
    reader.naming([&] { addLine(config, *line); });
  }
  config.emplace(systemName, defaultSystemLine());
  return config;
}

AgentConfig readConfigFile(const std::string& path) {
  std::ifstream in(path);
  if (!in) {
    throw ScenarioError(path, std::string("cannot be opened: ") + std::strerror(errno));
  }
  return readConfig(in, path);
}

void applyConfig(const AgentConfig& config, Model::TunnelRibConfigDir& configs) {
  std::vector<std::string> gone;
  for (auto it = configs.config().begin(); it; ++it) {
    if (!config.contains(it.key())) {
      gone.push_back(it.key());
    }
  }
  for (const std::string& name : gone) {
    configs.configDel(name);
  }
  for (const auto& [name, line] : config) {
    const auto wanted = ribConfig(name, line.tables);
    const auto standing = configs.config(name);
    if (!standing || ribLineText(*standing) != ribLineText(*wanted)) {
      configs.configIs(wanted);
    }
  }
}

}  // namespace Agent
