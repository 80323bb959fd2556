// TableTroubles: the files of tables that cannot be read, for the log.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "agent/AgentState.h"

namespace Agent {

// Those of the agent's own tables whose bytes are no table of this program, each with the reason. An agent that takes
// the directory over sets them aside. To be asked before that.
std::vector<std::string> misfits(const std::string& stateDirectory);

class TableTroubles {
 public:
  // The state outlives it.
  explicit TableTroubles(const AgentState& state) : state_(state) {}

  // Logs which files of the protocols' tables cannot be read, and which of them are gone, since the last look.
  void look();

 private:
  const AgentState& state_;
  std::map<TableId, std::string> troubles_;  // as logged
};

}  // namespace Agent
