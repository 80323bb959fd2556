// The commands that put their question to a shadow of the agent.
#pragma once

#include <cstdint>
#include <string>

#include "tools/Commands.h"

namespace Tools {

// What nearly all of them take.
struct ShadowOptions {
  std::string stateDirectory;
  bool isJson = false;
  std::uint64_t limit = 0;  // lines of each list that are shown
};
void addShadowOptions(CLI::App& command, ShadowOptions& options);
void addLimit(CLI::App& command, ShadowOptions& options, std::uint64_t standard);

void addWhy(CLI::App& app, Action& action);
void addDependents(CLI::App& app, Action& action);
void addVerify(CLI::App& app, Action& action);
void addCheck(CLI::App& app, Action& action);
void addWhatIf(CLI::App& app, Action& action);

}  // namespace Tools
