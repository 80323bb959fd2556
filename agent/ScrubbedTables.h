// The tables that an agent writes, each with the keeper that knows what its records must say, for a TableScrubber.
#pragma once

#include <vector>

#include "agent/AgentHost.h"
#include "agent/AgentStatus.h"
#include "tunnel_table_sm/TableScrubber.h"

namespace Agent {

// None while the host is stopped. status null: an agent without status tables. Both outlive the keepers.
std::vector<Model::TableScrubber::Table> scrubbedTables(AgentHost& host, StatusWriter* status);

}  // namespace Agent
