// AgentConfig: which RIBs an agent builds, from a file of "rib" lines as scenarios have them.
#pragma once

#include <istream>
#include <map>
#include <string>

#include "agent/AgentHost.h"
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

// Makes the host's configuration equal; RIBs whose configuration stays are not touched.
void applyConfig(const AgentConfig& config, Model::TunnelRibConfigDir& configs);

}  // namespace Agent
