// The state of an agent in a few lines for people.
#pragma once

#include <ostream>

#include "agent/AgentHost.h"

namespace Agent {

void writeSummary(std::ostream& out, const AgentHost& host, bool isColoured);

}  // namespace Agent
