// StartGate: whether an agent that starts may take its tables for what they say.
//
// A table that cannot be read, is absent, or whose publisher has not called it complete is no empty table while RIBs or
// FIB hold entries that came from it: taking it for one would withdraw tunnels that still carry packets. Until it is
// complete nothing is reviewed, since a tunnel of another table may go through one of its tunnels. A table of which
// nothing is held keeps nobody waiting.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "agent/AgentState.h"

namespace Agent {

class StartGate {
 public:
  // Counts what RIBs and FIB hold. O(their entries).
  explicit StartGate(const AgentState& state);

  // A line for each table that is waited for: its name, what is the matter, and how much hangs on it. Empty: go.
  std::vector<std::string> waitingFor() const;

 private:
  std::string trouble(TableId table) const;

  const AgentState& state_;
  std::map<TableId, std::size_t> held_;  // FIB entries, or RIB entries where there are more
};

}  // namespace Agent
