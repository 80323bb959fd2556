#include "tools/ControlCommands.h"

#include "agent/NumberRange.h"

namespace Tools {

std::shared_ptr<ControlOptions> addControlOptions(CLI::App& command) {
  auto options = std::make_shared<ControlOptions>();
  addStateDirectory(command, options->stateDirectory);
  command.add_flag("--json", options->isJson, "Print JSON");
  command.add_option("--timeout", options->seconds, "How long the agent has for an answer")
      ->type_name("SECONDS")
      ->check(Agent::numberBetween(0.01, 3600.0))
      ->default_val(options->seconds);
  return options;
}

void addControlCommands(CLI::App& app, Action& action) {
  addConfig(app, action);
  addTrace(app, action);
  addMetrics(app, action);
  addTop(app, action);
}

}  // namespace Tools
