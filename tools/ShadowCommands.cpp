#include "tools/ShadowCommands.h"

namespace Tools {

void addShadowOptions(CLI::App& command, ShadowOptions& options) {
  addStateDirectory(command, options.stateDirectory);
  command.add_flag("--json", options.isJson, "Print JSON");
}

void addLimit(CLI::App& command, ShadowOptions& options, std::uint64_t textLimit) {
  options.textLimit = textLimit;
  const std::string help =
      "Show at most N lines; everything counts. Without it " + std::to_string(textLimit) + ", or with --json all";
  addLimit(command, options.limit, help.c_str());
}

}  // namespace Tools
