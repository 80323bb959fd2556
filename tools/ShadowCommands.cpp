#include "tools/ShadowCommands.h"

namespace Tools {

void addShadowOptions(const Agent::Command& command, ShadowOptions& options) {
  addStateDirectory(command, options.stateDirectory);
  command.flag("--json", options.isJson, "Print JSON");
}

void addLimit(const Agent::Command& command, ShadowOptions& options, std::uint64_t textLimit) {
  options.textLimit = textLimit;
  const std::string help =
      "Show at most N lines; everything counts. Without it " + std::to_string(textLimit) + ", or with --json all";
  addLimit(command, options.limit, help.c_str());
}

}  // namespace Tools
