#include "tools/Commands.h"

#include <charconv>
#include <iostream>
#include <memory>
#include <sstream>

#include "agent/CommandLine.h"
#include "agent/InputError.h"
#include "agent/JsonText.h"
#include "agent/StateDocument.h"
#include "tools/PublishCommand.h"
#include "tools/StateReading.h"
#include "tunnel/TunnelTableIdentifier.h"

namespace Tools {
namespace {

std::optional<Agent::TableId> tableOf(const std::string& name) {
  for (const Agent::TableId table : Agent::allTables()) {
    if (Zol::stringOf(table) == name) {
      return table;
    }
  }
  return std::nullopt;
}

}  // namespace

void complain(bool isJson, int status, const std::string& reason) {
  std::cout.flush();
  if (isJson) {
    std::cerr << Agent::textOf(Agent::OrderedJson{{"error", {{"status", status}, {"reason", reason}}}}) << '\n';
  } else {
    std::cerr << "tunnelctl: " << reason << '\n';
  }
}

int toldDamage(const std::vector<std::string>& damages, bool isJson) {
  for (const std::string& damage : damages) {
    complain(isJson, exitFailed, Agent::printable(damage, 300));
  }
  return damages.empty() ? exitDone : exitFailed;
}

void addStateDirectory(const Agent::Command& command, std::string& stateDirectory) {
  command.option("--state-dir", stateDirectory, "Where the tables lie")
      .word("DIR")
      .check([](const std::string& path) { return path.empty() ? "no name of a directory" : ""; })
      .defaultValue(Agent::stateDirectoryDefault);
}

void addLimit(const Agent::Command& command, std::optional<std::uint64_t>& limit, const char* help) {
  command.option("--limit", limit, help).word("N").check(isCount());
}

Agent::ValueCheck isCount() {
  return [](const std::string& text) -> std::string {
    std::uint64_t count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    const bool isRight = error == std::errc() && end == text.data() + text.size() && count > 0;
    return isRight ? "" : "'" + Agent::printable(text) + "' must be a positive integer";
  };
}

void tellNote(const std::string& text, bool isJson) {
  std::cerr << (isJson ? Agent::textOf({{"note", text}}) : "tunnelctl: " + text) << std::endl;
}

Agent::TableId tableNamed(const std::string& name) {
  const auto table = tableOf(name);
  if (!table) {
    throw Agent::InputError("NAME", "no table '" + Agent::printable(name) + "'");
  }
  return *table;
}

void addPublish(const Agent::Command& app, Action& action) {
  const Agent::Command command = app.command("publish", "Write the tables of scenarios as the protocols would");
  const auto options = std::make_shared<PublishOptions>();
  const auto table = std::make_shared<std::string>();
  addStateDirectory(command, options->stateDirectory);
  command.option("SCENARIO", options->scenarios, "Files to apply, one after the other; - is standard input");
  command.option("--table", *table, "Publish this table alone; without scenarios: an empty one")
      .word("T")
      .check([](const std::string& name) { return tableOf(name) ? "" : "no table '" + Agent::printable(name) + "'"; });
  command.flag("--hold", options->holds, "Stay the tables' publisher until a signal ends it");
  command.flag("--json", options->isJson, "Print JSON");
  command.flag("--step", options->steps, "Wait for a line on standard input at each settle");
  command.onChosen([=, &action] {
    if (options->scenarios.empty() && table->empty()) {
      Agent::refuseWithout("SCENARIO or --table");
    }
    options->table = tableOf(*table);
    action = [options] {
      PublishCommand(*options).run();
      return exitDone;
    };
  });
}

void addState(const Agent::Command& app, Action& action) {
  const Agent::Command command = app.command("state", "Print the state document of a state directory");
  const auto stateDirectory = std::make_shared<std::string>();
  addStateDirectory(command, *stateDirectory);
  command.onChosen([=, &action] {
    action = [stateDirectory] {
      StateReading reading(*stateDirectory);
      reading.status();
      Agent::writeStateDocument(std::cout, reading.state());
      return toldDamage(reading.damages(), false);
    };
  });
}

}  // namespace Tools
