#include "tools/ShadowCommands.h"

namespace Tools {

void addShadowOptions(CLI::App& command, ShadowOptions& options) {
  addStateDirectory(command, options.stateDirectory);
  command.add_flag("--json", options.isJson, "Print JSON");
}

void addLimit(CLI::App& command, ShadowOptions& options, std::uint64_t standard) {
  command.add_option("--limit", options.limit, "Show at most N lines; everything counts")
      ->type_name("N")
      ->check(isCount())
      ->default_val(standard);
}

}  // namespace Tools
