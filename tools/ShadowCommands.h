// The commands that put their question to a shadow of the agent.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "tools/Commands.h"

namespace Tools {

// What nearly all of them take.
struct ShadowOptions {
  std::string stateDirectory;
  bool isJson = false;
  std::optional<std::uint64_t> limit;
  std::uint64_t textLimit = 0;  // where none is given

  // Lines of each list that are shown. JSON has all unless a limit is given.
  std::uint64_t shown() const { return limit.value_or(isJson ? std::numeric_limits<std::uint64_t>::max() : textLimit); }
};
void addShadowOptions(const Agent::Command& command, ShadowOptions& options);
void addLimit(const Agent::Command& command, ShadowOptions& options, std::uint64_t textLimit);

void addWhy(const Agent::Command& app, Action& action);
void addDependents(const Agent::Command& app, Action& action);
void addVerify(const Agent::Command& app, Action& action);
void addCheck(const Agent::Command& app, Action& action);
void addWhatIf(const Agent::Command& app, Action& action);

}  // namespace Tools
