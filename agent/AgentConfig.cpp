#include "agent/AgentConfig.h"

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
  std::ifstream in = openedFile(path);
  return readConfig(in, path);
}

std::set<std::string> ribNames(const AgentConfig& config, const Model::TunnelRibConfigDir& configs) {
  std::set<std::string> names;
  for (auto it = configs.config().begin(); it; ++it) {
    names.insert(it.key());
  }
  for (const auto& [name, line] : config) {
    names.insert(name);
  }
  return names;
}

void applyRib(const AgentConfig& config, const std::string& name, Model::TunnelRibConfigDir& configs) {
  const auto line = config.find(name);
  if (line == config.end()) {
    configs.configDel(name);
    return;
  }
  const auto wanted = ribConfig(name, line->second.tables);
  const auto standing = configs.config(name);
  if (!standing || ribLineText(*standing) != ribLineText(*wanted)) {
    configs.configIs(wanted);
  }
}

void applyConfig(const AgentConfig& config, Model::TunnelRibConfigDir& configs) {
  for (const std::string& name : ribNames(config, configs)) {
    applyRib(config, name, configs);
  }
}

OrderedJson ribJson(const RibLine& line) { return OrderedJson::parse(ribLineText(*ribConfig(line.name, line.tables))); }

}  // namespace Agent
