// AgentConfig: which RIBs an agent builds, from a file of "rib" lines as scenarios have them.
#pragma once

#include <istream>
#include <map>
#include <set>
#include <string>

#include "agent/AgentHost.h"
#include "agent/JsonText.h"
#include "agent/ScenarioLine.h"

namespace Agent {

// By RIB name. The system RIB is always among them.
using AgentConfig = std::map<std::string, RibLine>;

// The configuration in a file of lines {"rib": NAME, "tables": {...}}; blank lines and comments are skipped. A file
// without the system RIB leaves it at all tables. Raises ScenarioError with the place: for other lines and a RIB given
// twice too.
AgentConfig readConfig(std::istream& in, const std::string& name);
// The same of the file at path.
AgentConfig readConfigFile(const std::string& path);

// Names of the RIBs that are configured or wanted.
std::set<std::string> ribNames(const AgentConfig& config, const Model::TunnelRibConfigDir& configs);
// Makes the configuration of the RIB of that name as config wants it, which may be: none. One that is right already is
// not touched.
void applyRib(const AgentConfig& config, const std::string& name, Model::TunnelRibConfigDir& configs);
// All of them.
void applyConfig(const AgentConfig& config, Model::TunnelRibConfigDir& configs);

// A RIB as its line: {"rib": NAME, "tables": {...}}.
OrderedJson ribJson(const RibLine& line);

}  // namespace Agent
