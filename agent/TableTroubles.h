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
  // The same for whatever else is not as it should be, a line each.
  void othersAre(std::vector<std::string> others);
  const std::vector<std::string>& others() const { return others_; }
  // Whether every table that was ever there can be read as its publisher left it. As of the entity manager's last look.
  bool canReadAll() const;

 private:
  void lookAt(const std::string& name, const std::string& path);

  const AgentState& state_;
  std::map<std::string, std::string> troubles_;  // by path, as logged
  std::vector<std::string> others_;
};

}  // namespace Agent
