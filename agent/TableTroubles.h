// TableTroubles: the files of tables that cannot be read. Tables with the same cause share one line of the log and one
// reason, since a wrong permission of a directory concerns all of them.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "agent/AgentState.h"
#include "agent/Reasons.h"

namespace Agent {

// Those of the agent's own tables whose bytes are no table of this program, each with the reason. An agent that takes
// the directory over quarantines them. Call it before that.
std::vector<std::string> misfits(const std::string& stateDirectory);

class TableTroubles {
 public:
  // The state outlives it.
  explicit TableTroubles(const AgentState& state) : state_(state) {}

  // Logs which tables of the protocols have become unreadable since the last call, and which are readable again.
  void look();
  // One for each cause. As of the last look().
  const std::vector<Reason>& reasons() const { return reasons_; }
  // Whether every table that was ever there can be read as its publisher left it. As of the entity manager's last scan.
  bool canReadAll() const;

 private:
  struct Trouble {
    std::string path;  // relative to the state directory
    std::string text;  // empty: none
    bool isBound = false;
    bool operator==(const Trouble&) const = default;
  };
  using Troubles = std::map<std::string, Trouble>;  // by table

  Trouble troubleAt(const std::string& path) const;
  std::vector<Reason> reasonsOf(const Troubles& troubles) const;

  const AgentState& state_;
  Troubles troubles_;  // as logged
  std::vector<Reason> reasons_;
};

}  // namespace Agent
