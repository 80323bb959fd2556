// "check": whether the tables are sound in themselves.

#include <iostream>
#include <memory>

#include "agent/InputError.h"
#include "tools/ControlClient.h"
#include "tools/ShadowCommands.h"
#include "tools/StructureCheck.h"

namespace Tools {
namespace {

using Agent::OrderedJson;

// The counters of the agent's scrubber; null: the agent cannot be asked.
OrderedJson scrubbed(const std::string& stateDirectory) {
  try {
    return ControlClient(stateDirectory, 1).ask("stats.get")["scrub"];
  } catch (const std::runtime_error&) {
    return nullptr;
  }
}

void writeScrubbed(const OrderedJson& scrub) {
  if (scrub.is_object() && scrub["found"] != 0) {
    std::cout << "the agent has found " << Agent::counted(scrub["found"].get<std::size_t>(), "damaged place")
              << " in its own tables and repaired " << scrub["repaired"] << '\n';
  }
}

int runCheck(const ShadowOptions& options) {
  const OrderedJson scrub = scrubbed(options.stateDirectory);
  const std::vector<Problem> problems = checkStructure(options.stateDirectory);
  OrderedJson list = OrderedJson::array();
  for (std::size_t i = 0; i < problems.size() && i < options.shown(); ++i) {
    if (options.isJson) {
      list.push_back({{"table", problems[i].table}, {"problem", problems[i].text}});
    } else {
      std::cout << problems[i].table << ": " << Agent::printable(problems[i].text, 300) << '\n';
    }
  }
  if (options.isJson) {
    std::cout << OrderedJson{{"sound", problems.empty()},
                             {"count", problems.size()},
                             {"problems", list},
                             {"scrub", scrub}}
                     .dump(1)
              << '\n';
  } else if (problems.empty()) {
    std::cout << "all tables are sound\n";
  } else {
    std::cout << Agent::counted(problems.size(), "problem") << '\n';
  }
  if (!options.isJson) {
    writeScrubbed(scrub);
  }
  return problems.empty() ? exitDone : exitFailed;
}

}  // namespace

void addCheck(const Agent::Command& app, Action& action) {
  const Agent::Command command =
      app.command("check", "Look for damage, and for what does not fit together, in all tables");
  const auto options = std::make_shared<ShadowOptions>();
  addShadowOptions(command, *options);
  addLimit(command, *options, 100);
  command.onChosen([=, &action] { action = [=] { return runCheck(*options); }; });
}

}  // namespace Tools
