// The command "tunnel-agent run": applies scenario files to an agent in simulated time, tells people what changes, and
// writes documents of the state.
#pragma once

#include <istream>
#include <memory>
#include <stdexcept>
#include <string>

#include "agent/AgentHost.h"
#include "agent/ChangeReport.h"
#include "agent/CommandLine.h"
#include "agent/ScenarioPlayer.h"
#include "agent/ScenarioReader.h"
#include "runtime/Quor/SimulatedTimeSource.h"
#include "runtime/Quor/SlicePolicy.h"

namespace Agent {

// A file that was asked for cannot be written.
class OutputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class RunCommand {
 public:
  explicit RunCommand(RunOptions options);

  // Raises ScenarioError, OutputError, or InputError for an option that does not fit the state.
  void run();

 private:
  void playFile(const std::string& path);
  void play(std::istream& in, const std::string& name, const std::string& stem, std::uint64_t size);
  void handleApplied(const ScenarioLine& line, const ScenarioReader& reader, const std::string& stem);
  void tellChanges(const std::string& title);
  void writeCheckpoint(const std::string& name);
  void writeResult();
  void refuseAbsent() const;
  void writeExplanations() const;

  const RunOptions options_;
  const bool talks_;  // to people, on standard output
  const bool isColoured_;
  Quor::SimulatedTimeSource time_;
  const std::unique_ptr<Quor::SlicePolicy> slicePolicy_;
  AgentHost host_;
  ScenarioPlayer player_;
  std::unique_ptr<ChangeReport> changes_;  // null when nobody is talked to
};

}  // namespace Agent
