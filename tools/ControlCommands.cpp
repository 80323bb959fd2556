#include "tools/ControlCommands.h"

namespace Tools {

std::shared_ptr<ControlOptions> addControlOptions(const Agent::Command& command) {
  auto options = std::make_shared<ControlOptions>();
  addStateDirectory(command, options->stateDirectory);
  command.flag("--json", options->isJson, "Print JSON");
  command.option("--timeout", options->seconds, "How long the agent has for an answer")
      .word("SECONDS")
      .between(0.01, 3600.0)
      .defaultValue(options->seconds);
  return options;
}

void addControlCommands(const Agent::Command& app, Action& action) {
  addConfig(app, action);
  addTrace(app, action);
  addMetrics(app, action);
  addTop(app, action);
}

}  // namespace Tools
