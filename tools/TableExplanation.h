// TableExplanation: the ways of tunnels as the tables have them, without the state machines: published vias lead to the
// next levels, the FIB has what came out of it.
#pragma once

#include <vector>

#include "agent/AgentState.h"
#include "agent/Explanation.h"

namespace Tools {

// One tunnel's standing, its published vias and what the FIB has. A via whose next level is not in the FIB is marked as
// yielding nothing. Costs a few look-ups a via.
Agent::ExplainedTunnel explainTunnel(const Agent::AgentState& state, const Tunnel::TunnelTable::TunnelId& tunnel);

// Of these tunnels and of all that they go through; the RIBs are not looked at.
Agent::Explanation explainFromTables(const Agent::AgentState& state,
                                     const std::vector<Tunnel::TunnelTable::TunnelId>& tunnels);

}  // namespace Tools
