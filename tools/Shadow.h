// Shadow: an agent in the memory of this process that has read the tables and the configuration of a state directory
// and has nothing left to do. What it decided is what the directory's agent decides from the same tables; what is done
// to it concerns nobody else.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "agent/AgentHost.h"
#include "agent/ScenarioPlayer.h"
#include "runtime/Quor/TimeSlicePolicy.h"
#include "tools/StateReading.h"

namespace Tools {

class Shadow {
 public:
  // RIBs with the numbers and configuration that are published; without any: the system RIB with all tables.
  // Raises runtime_error for a file that cannot be read. Time and memory as of an agent that starts over these tables.
  explicit Shadow(StateReading& reading) : Shadow(reading, reading.state()) {}
  // Over the tables of another state, such as those of a shadow before it is changed.
  Shadow(StateReading& reading, const Agent::AgentState& tables);

  Agent::AgentHost& host() { return host_; }
  const Agent::AgentHost& host() const { return host_; }
  // Decided about in settle(). Raises InputError.
  void apply(const Agent::ScenarioLine& line) { player_.apply(line); }
  void settle() { player_.settle(); }

 private:
  void readTables(const Agent::AgentState& state);
  void readConfiguration(StateReading& reading);

  Quor::SimulatedTimeSource time_;
  Quor::TimeSlicePolicy slicePolicy_{time_};  // no time passes: tasks run to their end
  Agent::AgentHost host_{time_, slicePolicy_, Zol::make<Statehub::EntityManager>()};
  Agent::ScenarioPlayer player_{host_, time_};
};

// By file name the number of changes that each table of the directory has seen, and that of its present writer.
using Sequences = std::map<std::string, std::pair<std::uint64_t, std::uint64_t>>;
Sequences sequencesOf(StateReading& reading);

}  // namespace Tools
