// AgentSample: how an agent and its tables are at one moment. The tables are read from their files; what the agent
// alone knows it is asked, and its silence is part of the sample.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/ControlCommands.h"
#include "tools/StateReading.h"

namespace Tools {

struct TableSample {
  std::string name;
  std::string standing;  // "complete", "incomplete", "absent", or why it cannot be read
  std::uint64_t entries = 0;
  std::uint64_t sequence = 0;
  bool isWriterAlive = false;
};

struct AgentSample {
  // Raises runtime_error when there is no such state directory.
  explicit AgentSample(const ControlOptions& options);

  std::chrono::steady_clock::time_point time;
  Agent::OrderedJson stats;         // as stats.get has them; null: the agent cannot be asked
  std::string trouble;              // why not
  std::vector<TableSample> tables;  // the absent ones too
  std::vector<std::string> damages;

  bool isUp() const { return stats.is_object(); }
};

}  // namespace Tools
