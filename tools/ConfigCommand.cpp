// "config" and "trace": what the agent has been told to do, and telling it anew.

#include <fstream>
#include <iostream>
#include <sstream>

#include "agent/AgentConfig.h"
#include "agent/Columns.h"
#include "agent/ControlSocket.h"
#include "agent/InputError.h"
#include "agent/Tracing.h"
#include "tools/ControlClient.h"
#include "tools/ControlCommands.h"
#include "tools/StateReading.h"

namespace Tools {
namespace {

using Agent::OrderedJson;

// What the agent last published, of which its successor or a reader knows.
OrderedJson publishedConfig(const std::string& stateDirectory) {
  StateReading reading(stateDirectory);
  const Agent::StatusReader& status = reading.status();
  reading.requireTable(Agent::ribStatusPath);
  OrderedJson ribs = OrderedJson::array();
  for (const auto& [id, line] : status.ribs()) {
    ribs.push_back(Agent::ribJson(line));
  }
  return {{"source", "tables"}, {"ribs", std::move(ribs)}};
}

// The agent's own word; when there is none, what is published.
int showConfig(const ControlOptions& options) {
  OrderedJson config;
  std::string note;
  try {
    config = ControlClient(options.stateDirectory, options.seconds).ask("config.get");
  } catch (const AgentUnreachable& error) {
    config = publishedConfig(options.stateDirectory);
    note = error.what();
  }
  if (options.isJson) {
    if (!note.empty()) {
      config["note"] = note;
    }
    std::cout << config.dump(1) << '\n';
    return exitDone;
  }
  std::cout << "# source: " << Agent::printable(config["source"].get<std::string>(), 300) << '\n';
  if (!note.empty()) {
    std::cout << "# as published last; " << Agent::printable(note, 300) << '\n';
  }
  for (const OrderedJson& rib : config["ribs"]) {
    std::cout << Agent::textOf(rib) << '\n';
  }
  return exitDone;
}

int checkConfig(const ControlOptions& options, const std::string& file) {
  const Agent::AgentConfig config = Agent::readConfigFile(file);
  if (options.isJson) {
    std::cout << OrderedJson{{"valid", true}, {"ribs", config.size()}}.dump() << '\n';
  } else {
    std::cout << Agent::printable(file, 300) << ": valid, " << Agent::counted(config.size(), "RIB") << '\n';
  }
  return exitDone;
}

int applyConfig(const ControlOptions& options, const std::string& file) {
  Agent::readConfigFile(file);
  std::ostringstream text;
  text << std::ifstream(file).rdbuf();
  // Escapes and the request around it take some of the line too; the agent has the last word.
  if (text.str().size() > Agent::ControlSocket::lineBytesMax) {
    throw Agent::ScenarioError(file, std::to_string(text.str().size()) +
                                         " bytes are too many for the control socket (" +
                                         std::to_string(Agent::ControlSocket::lineBytesMax) +
                                         "); start the agent with --config, and send it SIGHUP");
  }
  const OrderedJson result = ControlClient(options.stateDirectory, options.seconds)
                                 .ask("config.apply", {{"config", text.str()}, {"name", file}});
  if (options.isJson) {
    std::cout << result.dump() << '\n';
    return exitDone;
  }
  for (const char* const what : {"added", "changed", "removed"}) {
    for (const OrderedJson& name : result[what]) {
      std::cout << what << ' ' << Agent::printable(name.get<std::string>(), 300) << '\n';
    }
  }
  std::cout << Agent::counted(result["ribs"].get<std::size_t>(), "RIB")
            << " configured, until the agent reads its file again (SIGHUP, restart)\n";
  return exitDone;
}

int writeLevels(const ControlOptions& options, const OrderedJson& levels) {
  if (options.isJson) {
    std::cout << levels.dump(1) << '\n';
    return exitDone;
  }
  Agent::Columns columns;
  columns.row({"source", "level"});
  for (const OrderedJson& each : levels["sources"]) {
    columns.row({Agent::printable(each["source"].get<std::string>()), std::to_string(each["level"].get<unsigned>())});
  }
  columns.write(std::cout, "");
  return exitDone;
}

int setTrace(const ControlOptions& options, const std::vector<std::string>& settings) {
  for (const std::string& setting : settings) {
    try {
      Agent::readTraceSetting(setting);
    } catch (const Zol::Exception& error) {
      throw Agent::InputError("'" + Agent::printable(setting) + "'", error.what());
    }
  }
  const ControlClient client(options.stateDirectory, options.seconds);
  return writeLevels(options, client.ask("trace.set", {{"settings", settings}}));
}

}  // namespace

void addConfig(const Agent::Command& app, Action& action) {
  const Agent::Command config = app.command("config", "The RIBs that the agent is to build");
  config.commandRequired();
  const Agent::Command show = config.command("show", "The current configuration, in the form of a configuration file");
  show.onChosen([&action, options = addControlOptions(show)] { action = [options] { return showConfig(*options); }; });
  const auto addFile = [&](const char* name, const char* help, int (*run)(const ControlOptions&, const std::string&)) {
    const Agent::Command command = config.command(name, help);
    const auto file = std::make_shared<std::string>();
    command.option("FILE", *file, "Lines {\"rib\": NAME, \"tables\": {...}}").required();
    command.onChosen(
        [=, &action, options = addControlOptions(command)] { action = [=] { return run(*options, *file); }; });
  };
  addFile("check", "Whether a configuration file is right; no agent is asked", checkConfig);
  addFile("apply", "Have the running agent take the configuration in a file", applyConfig);
}

void addTrace(const Agent::Command& app, Action& action) {
  const Agent::Command trace = app.command("trace", "Trace levels of the agent");
  trace.commandRequired();
  const Agent::Command show = trace.command("show", "The level of each source");
  show.onChosen([&action, options = addControlOptions(show)] {
    action = [options] {
      const ControlClient client(options->stateDirectory, options->seconds);
      return writeLevels(*options, client.ask("trace.get"));
    };
  });
  const Agent::Command set = trace.command("set", "Set levels, from left to right");
  const auto settings = std::make_shared<std::vector<std::string>>();
  set.option("SOURCE=LEVEL", *settings, "A source, or * for all; 0 is off, 9 is everything").required();
  set.onChosen(
      [=, &action, options = addControlOptions(set)] { action = [=] { return setTrace(*options, *settings); }; });
}

}  // namespace Tools
