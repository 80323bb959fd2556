// ScenarioPlayer: does to an agent what the lines of a scenario say. Time is simulated, and moves in settle(), advance
// and checkpoint lines only.
#pragma once

#include "agent/AgentHost.h"
#include "agent/ScenarioLine.h"
#include "runtime/Quor/SimulatedTimeSource.h"

namespace Agent {

class ScenarioPlayer {
 public:
  // time is the host's. Both outlive the player.
  ScenarioPlayer(AgentHost& host, Quor::SimulatedTimeSource& time) : host_(host), time_(time) {}

  // Raises InputError, with nothing of the line applied, for what the agent's state does not allow.
  void apply(const ScenarioLine& line);

  // Runs until no review is waiting.
  void settle();

 private:
  void doApply(const RibLine& line);
  void doApply(const RibDeleteLine& line);
  void doApply(const PutLine& line);
  void doApply(const DeleteLine& line);
  void doApply(const MountLine& line);
  void doApply(const ConvergedLine& line);
  void doApply(const SettleLine&) { settle(); }
  void doApply(const AdvanceLine& line);
  void doApply(const CheckpointLine&) { settle(); }

  AgentHost& host_;
  Quor::SimulatedTimeSource& time_;
};

}  // namespace Agent
