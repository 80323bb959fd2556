// The commands that put their question to the running agent: what it alone knows or does.
#pragma once

#include <memory>
#include <string>

#include "tools/Commands.h"

namespace Tools {

struct ControlOptions {
  std::string stateDirectory;
  bool isJson = false;
  double seconds = 3;  // that the agent has for an answer
};
// --state-dir, --json, --timeout.
std::shared_ptr<ControlOptions> addControlOptions(const Agent::Command& command);

void addConfig(const Agent::Command& app, Action& action);
void addTrace(const Agent::Command& app, Action& action);
void addMetrics(const Agent::Command& app, Action& action);
void addTop(const Agent::Command& app, Action& action);
void addControlCommands(const Agent::Command& app, Action& action);

}  // namespace Tools
