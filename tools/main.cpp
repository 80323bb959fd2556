// tunnelctl: the operator's program. It reads the tables of a state directory itself, whether or not an agent runs.

#include <algorithm>
#include <csignal>
#include <exception>
#include <iostream>
#include <string_view>

#include "agent/CommandLine.h"
#include "agent/InputError.h"
#include "agent/Terminal.h"
#include "tools/Commands.h"
#include "tools/ControlCommands.h"
#include "tools/ShadowCommands.h"
#include "tools/ValueNames.h"

namespace {

bool isJson = false;

int fail(int status, const std::string& reason) {
  Tools::complain(isJson, status, reason);
  return status;
}

int run(const Tools::Action& action) {
  try {
    const int status = action();
    if (const std::string trouble = Agent::outputTrouble(); !trouble.empty()) {
      return fail(Tools::exitFailed, trouble);
    }
    return status;
  } catch (const Agent::ScenarioError& error) {
    return fail(Tools::exitBadInput, error.what());
  } catch (const Agent::InputError& error) {
    return fail(Tools::exitBadInput, error.what());
  } catch (const std::exception& error) {
    return fail(Tools::exitFailed, error.what());
  }
}

}  // namespace

int main(int argc, char** argv) {
  Agent::openStandardDescriptors();
  std::signal(SIGPIPE, SIG_IGN);
  std::ios::sync_with_stdio(false);
  const Agent::CommandParser parser("Shows and explains the tunnels that a router's tunnel agent has programmed.",
                                    "tunnelctl", Agent::agentVersion);
  const Agent::Command app = parser.top();
  Tools::Action action;
  Tools::addPublish(app, action);
  Tools::addState(app, action);
  Tools::addShow(app, action);
  Tools::addResolve(app, action);
  Tools::addDiff(app, action);
  Tools::addGraph(app, action);
  Tools::addWatch(app, action);
  Tools::addWhy(app, action);
  Tools::addDependents(app, action);
  Tools::addVerify(app, action);
  Tools::addCheck(app, action);
  Tools::addWhatIf(app, action);
  Tools::addControlCommands(app, action);
  if (const auto status = Agent::answerPages(parser, argc, argv, Tools::valueNames)) {
    return *status;
  }
  isJson = std::find(argv, argv + argc, std::string_view("--json")) != argv + argc;
  if (const auto ended = parser.parse(argc, argv)) {
    return ended->refusal.empty() ? Tools::exitDone : fail(Tools::exitBadInput, ended->refusal);
  }
  return run(action);
}
