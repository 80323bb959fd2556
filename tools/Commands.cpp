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

void addStateDirectory(CLI::App& command, std::string& stateDirectory) {
  command.add_option("--state-dir", stateDirectory, "Where the tables lie")
      ->type_name("DIR")
      ->check([](const std::string& path) { return path.empty() ? "no name of a directory" : ""; })
      ->default_val(Agent::stateDirectoryDefault);
}

void addLimit(CLI::App& command, std::optional<std::uint64_t>& limit, const char* help) {
  command.add_option("--limit", limit, help)->type_name("N")->check(isCount());
}

CLI::Validator isCount() {
  return CLI::Validator(
      [](const std::string& text) -> std::string {
        std::uint64_t count = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
        const bool isRight = error == std::errc() && end == text.data() + text.size() && count > 0;
        return isRight ? "" : "'" + Agent::printable(text) + "' is not a number from 1 on";
      },
      "");
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

void addPublish(CLI::App& app, Action& action) {
  CLI::App* const command = app.add_subcommand("publish", "Write the tables of scenarios as the protocols would");
  const auto options = std::make_shared<PublishOptions>();
  const auto table = std::make_shared<std::string>();
  addStateDirectory(*command, options->stateDirectory);
  command->add_option("SCENARIO", options->scenarios, "Files to apply, one after the other; - is standard input");
  command->add_option("--table", *table, "Publish this table alone; without scenarios: an empty one")
      ->type_name("T")
      ->check([](const std::string& name) { return tableOf(name) ? "" : "no table '" + Agent::printable(name) + "'"; });
  command->add_flag("--hold", options->holds, "Stay the tables' publisher until a signal ends it");
  command->add_flag("--json", options->isJson, "Print JSON");
  command->add_flag("--step", options->steps, "Wait for a line on standard input at each settle");
  command->callback([=, &action] {
    if (options->scenarios.empty() && table->empty()) {
      throw CLI::RequiredError("SCENARIO or --table");
    }
    options->table = tableOf(*table);
    action = [options] {
      PublishCommand(*options).run();
      return exitDone;
    };
  });
}

void addState(CLI::App& app, Action& action) {
  CLI::App* const command = app.add_subcommand("state", "Print the state document of a state directory");
  const auto stateDirectory = std::make_shared<std::string>();
  addStateDirectory(*command, *stateDirectory);
  command->callback([=, &action] {
    action = [stateDirectory] {
      StateReading reading(*stateDirectory);
      reading.status();
      Agent::writeStateDocument(std::cout, reading.state());
      return toldDamage(reading.damages(), false);
    };
  });
}

}  // namespace Tools
