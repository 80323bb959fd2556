// tunnelctl: the operator's program. It reads the tables of a state directory itself, whether or not an agent runs.

#include <csignal>
#include <exception>
#include <iostream>

#include "agent/CommandLine.h"
#include "agent/InputError.h"
#include "agent/Terminal.h"
#include "tools/Commands.h"

namespace {

int fail(int status, const std::string& reason) {
  std::cout.flush();
  std::cerr << "tunnelctl: " << reason << '\n';
  return status;
}

int run(const Tools::Action& action) {
  try {
    const int status = action();
    if (!std::cout.flush() && !Agent::isOutputReaderGone()) {
      return fail(Tools::exitFailed, "standard output: cannot be written");
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
  CLI::App app("Shows and explains what a router's tunnel agent has programmed.", "tunnelctl");
  app.set_version_flag("--version", std::string("tunnelctl ") + Agent::agentVersion);
  app.require_subcommand(1);
  Tools::Action action;
  Tools::addPublish(app, action);
  Tools::addState(app, action);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? Tools::exitDone : Tools::exitBadInput;
  }
  return run(action);
}
