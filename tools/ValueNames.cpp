#include "tools/ValueNames.h"

#include "agent/CommandLine.h"
#include "agent/ProtocolTables.h"
#include "tools/ControlClient.h"
#include "tools/ShowCommand.h"
#include "tools/StateReading.h"

namespace Tools {
namespace {

std::vector<std::string> tableNames() {
  std::vector<std::string> names;
  for (const Agent::TableId table : Agent::allTables()) {
    names.push_back(Zol::stringOf(table));
  }
  return names;
}

// suffix: what a tunnel's id has behind its type.
std::vector<std::string> typeNames(const std::string& suffix) {
  std::vector<std::string> names;
  const Agent::ProtocolTables tables(*Zol::make<Statehub::EntityManager>());
  for (const Agent::TableId table : Agent::allTables()) {
    names.push_back(Model::stringValue(tables.table(table).tunnelType()) + suffix);
  }
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

std::vector<std::string> ribNames(const std::string& stateDirectory) {
  std::vector<std::string> names;
  StateReading reading(stateDirectory.empty() ? Agent::stateDirectoryDefault : stateDirectory);
  for (const auto& [id, line] : reading.status().ribs()) {
    names.push_back(line.name);
  }
  for (const auto& [type, wrapper] : reading.state().protocolRibs()->protocolTunnelRib()) {
    names.push_back(Model::stringValue(type));
  }
  return names;
}

// "TunnelFibSm=": the agent knows its sources. Between two keys it has little time to answer.
std::vector<std::string> traceSources(const std::string& stateDirectory) {
  constexpr double seconds = 0.2;
  const ControlClient client(stateDirectory.empty() ? Agent::stateDirectoryDefault : stateDirectory, seconds);
  std::vector<std::string> names;
  const Agent::OrderedJson levels = client.ask("trace.get");
  for (const Agent::OrderedJson& each : levels["sources"]) {
    names.push_back(each["source"].get<std::string>() + "=");
  }
  return names;
}

}  // namespace

std::vector<std::string> valueNames(const Agent::ValuePlace& place) {
  const std::string& named = place.name;
  try {
    if (named == "--rib" || named == "rib") {
      return ribNames(place.stateDirectory);
    }
    if (named == "--table" || named == "table") {
      return tableNames();
    }
    if (named == "--type") {
      return typeNames("");
    }
    if (named == "--reason") {
      return unprogrammableReasons();
    }
    if (named == "--each") {
      return {"intf"};
    }
    if (named == "set") {
      return traceSources(place.stateDirectory);
    }
    if (named == "--tunnel" || named == "--fail-tunnel" || named == "why" || named == "dependents") {
      return typeNames("/");
    }
  } catch (const std::exception&) {  // nobody reads messages between two keys
    return {};
  }
  return {};
}

}  // namespace Tools
