// tunnel-agent: the program around the state machines.

#include <csignal>
#include <exception>
#include <iostream>
#include <string>
#include <type_traits>

#include "agent/CommandLine.h"
#include "agent/Log.h"
#include "agent/RunCommand.h"
#include "agent/ServeCommand.h"
#include "agent/Terminal.h"
#include "runtime/Fastlog/TraceRegistry.h"

namespace {

// A daemon's last words are lines of its log.
template <class Command>
int fail(int status, const std::string& program, const std::string& reason) {
  std::cout.flush();
  if constexpr (std::is_same_v<Command, Agent::ServeLoop>) {
    Agent::log(Agent::LogLevel::error, reason);
  } else {
    std::cerr << program << reason << '\n';
  }
  return status;
}

// Runs a command over its options.
template <class Command, class Options>
int run(const Options& options) {
  const std::string program = "tunnel-agent: ";
  for (const Fastlog::TraceSetting& trace : options.traces) {
    Fastlog::TraceRegistry::instance().levelIs(trace.source, trace.level);
  }
  try {
    Command(options).run();
    return Agent::exitDone;
  } catch (const Agent::ScenarioError& error) {
    return fail<Command>(Agent::exitBadInput, "", error.what());
  } catch (const Agent::InputError& error) {
    return fail<Command>(Agent::exitBadInput, program, error.what());
  } catch (const Memtab::TableBusy& error) {
    return fail<Command>(Agent::exitCannotWrite, program,
                         std::string("another agent serves this directory: ") + error.what());
  } catch (const std::exception& error) {
    return fail<Command>(Agent::exitCannotWrite, program, error.what());
  }
}

}  // namespace

int main(int argc, char** argv) {
  Agent::openStandardDescriptors();
  std::signal(SIGPIPE, SIG_IGN);  // a reader of our output may leave before its end
  std::ios::sync_with_stdio(false);
  const Agent::CommandLine line = Agent::CommandLine::parse(argc, argv);
  if (line.serve) {
    return run<Agent::ServeLoop>(*line.serve);
  }
  return line.run ? run<Agent::RunCommand>(*line.run) : line.exitStatus;
}
