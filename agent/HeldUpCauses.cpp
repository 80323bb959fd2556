#include "agent/HeldUpCauses.h"

#include <algorithm>
#include <map>
#include <set>

#include "agent/AgentState.h"
#include "agent/Log.h"
#include "runtime/Memtab/NoSpaceWitness.h"
#include "tunnel_table_sm/TunnelRibConfigDirSm.h"

namespace Agent {
namespace {

constexpr std::size_t linesMax = 10000;
constexpr std::size_t tablesMax = 100;
constexpr double hour = 3600;

struct Causes {
  std::map<std::string, std::string> fullFiles;  // by path, the system's error
  std::set<std::string> damagedTables;
};

Causes& causes() {
  static Causes all;
  return all;
}

void handleNoSpace(const std::string& path, const std::string& error) { causes().fullFiles[path] = error; }

// The same damage is met again and again until it is repaired; one line is enough, and a file describes it too.
void handleDamage(const std::string& table, const std::string& message) {
  static std::set<std::string> logged;
  if (causes().damagedTables.size() < tablesMax) {
    causes().damagedTables.insert(table);
  }
  const std::string cause = "damage in table " + table;
  const std::string line = cause + ": " + message;
  if (logged.size() < linesMax && logged.insert(line).second) {
    logBounded(LogLevel::error, cause, line, hour);
  }
}

// "FIB", "RIB system", or the table's path below the state directory.
std::string tableName(const std::string& path) {
  const std::string protocolRib = protocolRibPathPrefix;
  const std::string customRib = Model::tunnelRibStatusPathPrefix;
  return path == fibPath                 ? "FIB"
         : path == systemRibPath         ? "RIB system"
         : path.starts_with(protocolRib) ? "per-protocol RIB " + path.substr(protocolRib.size())
         : path.starts_with(customRib)   ? "RIB number " + path.substr(customRib.size())
                                         : path;
}

}  // namespace

void heldUpCausesAreWatched() {
  Memtab::MapBase::damageWitnessIs(handleDamage);
  Memtab::noSpaceWitnessIs(handleNoSpace);
}

std::vector<Reason> heldUpReasons(const std::string& stateDirectory, bool isWaiting) {
  if (!isWaiting) {
    causes() = {};
    return {};
  }
  std::vector<Reason> reasons;
  for (const auto& [path, error] : causes().fullFiles) {
    const std::string name = tableName(path.substr(std::min(path.size(), stateDirectory.size() + 1)));
    reasons.push_back({name, "no space: " + path + ": cannot grow: " + error,
                       "tunnels that do not fit wait; they are tried every second"});
  }
  std::string tables;
  for (const std::string& table : causes().damagedTables) {
    tables += (tables.empty() ? "held up by damage in " : ", ") + table;
  }
  if (!tables.empty() || reasons.empty()) {
    reasons.push_back({"tunnels", tables.empty() ? "held up by tables that cannot be read" : tables,
                       "their entries stay; they are tried every second"});
  }
  return reasons;
}

}  // namespace Agent
