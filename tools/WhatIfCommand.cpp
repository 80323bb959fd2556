// "what-if": what RIBs and FIB would become.

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>

#include "agent/Columns.h"
#include "agent/InputError.h"
#include "agent/ScenarioReader.h"
#include "tools/ShadowCommands.h"
#include "tools/StateComparison.h"
#include "tools/WhatIf.h"

namespace Tools {
namespace {

struct WhatIfOptions : ShadowOptions {
  std::vector<std::string> scenarios;
  std::vector<std::string> intfs;
  std::vector<std::string> tunnels;
  std::string each;
};

void play(Shadow& shadow, const std::string& path) {
  std::ifstream file;
  if (path != "-") {
    file.open(path);
    if (!file) {
      throw Agent::ScenarioError(path, std::string("cannot be opened: ") + std::strerror(errno));
    }
  }
  Agent::ScenarioReader reader(path == "-" ? std::cin : file, path == "-" ? "<stdin>" : path);
  while (const std::optional<Agent::ScenarioLine> line = reader.next()) {
    reader.naming([&] { shadow.apply(*line); });
  }
}

// Raises InputError for what would change nothing.
void change(Shadow& shadow, const WhatIfOptions& options) {
  const Agent::ProtocolTables& tables = shadow.host().tables();
  for (const std::string& path : options.scenarios) {
    play(shadow, path);
  }
  std::size_t entries = 0;
  for (const std::string& intf : options.intfs) {
    failIntf(tables, Ipkit::IntfId::fromText(intf), entries);
    if (entries == 0) {
      throw Agent::InputError("--fail-intf", "no table entry leaves through " + intf);
    }
  }
  for (const std::string& tunnel : options.tunnels) {
    failTunnel(tables, Model::TunnelId::fromText(tunnel), entries);
    if (entries == 0) {
      throw Agent::InputError("--fail-tunnel", "no table entry of " + tunnel);
    }
  }
  shadow.settle();
}

std::string words(const Difference& difference) {
  const std::string place = difference.where + " " + difference.key + ": " + difference.what + " ";
  if (!difference.left) {
    return "+ " + place + difference.right->text;
  }
  if (!difference.right) {
    return "- " + place + difference.left->text;
  }
  return "~ " + place + difference.left->text + " becomes " + difference.right->text;
}

// Lists the differences up to the limit and counts them all.
class Report {
 public:
  explicit Report(const WhatIfOptions& options) : options_(options) {}

  void add(const Difference& difference) {
    if (difference.what == "entry") {
      ++(difference.right ? appear_ : disappear_)[difference.where];
    } else if (difference.where == "unprogrammable" && difference.right) {
      ++unprogrammable_;
    } else if (difference.where + difference.key != lastChanged_ && difference.where != "unprogrammable") {
      ++changed_[difference.where];
      lastChanged_ = difference.where + difference.key;
    }
    if (count_++ >= options_.limit) {
      return;
    }
    if (options_.isJson) {
      changes_.push_back(differenceJson(difference, "before", "after"));
    } else {
      std::cout << words(difference) << '\n';
    }
  }

  void end() {
    if (options_.isJson) {
      std::cout << OrderedJson{{"count", count_}, {"summary", summaryJson()}, {"changes", changes_}}.dump(1) << '\n';
      return;
    }
    if (count_ > options_.limit) {
      std::cout << count_ - options_.limit << " more\n";
    }
    if (count_ == 0) {
      std::cout << "nothing changes\n";
    }
    const OrderedJson summary = summaryJson();
    for (const auto& [where, counts] : summary.items()) {
      if (counts.is_object()) {
        std::cout << where << ": " << counts["lost"] << " lost, " << counts["changed"] << " changed, " << counts["new"]
                  << " new\n";
      } else if (counts > 0) {
        std::cout << "become unprogrammable: " << counts << '\n';
      }
    }
  }

 private:
  using Counts = std::map<std::string, std::size_t>;

  OrderedJson summaryJson() {
    std::map<std::string, int> places;
    for (const Counts* const counts : {&appear_, &disappear_, &changed_}) {
      for (const auto& [where, count] : *counts) {
        places[where];
      }
    }
    OrderedJson json = {{"becomeUnprogrammable", unprogrammable_}};
    for (const auto& [where, none] : places) {
      json[where] = {{"lost", disappear_[where]}, {"changed", changed_[where]}, {"new", appear_[where]}};
    }
    return json;
  }

  const WhatIfOptions& options_;
  std::size_t count_ = 0;
  Counts appear_, disappear_, changed_;
  std::size_t unprogrammable_ = 0;
  std::string lastChanged_;
  OrderedJson changes_ = OrderedJson::array();
};

int runEach(const WhatIfOptions& options) {
  StateReading reading(options.stateDirectory);
  Shadow shadow(reading);
  const std::vector<IntfCost> costs = intfCosts(shadow);
  OrderedJson list = OrderedJson::array();
  Agent::Columns columns;
  columns.row({"interface", "lost", "changed", "endpoints lost", "table entries"});
  for (std::size_t i = 0; i < costs.size() && i < options.limit; ++i) {
    const IntfCost& cost = costs[i];
    list.push_back({{"intf", Zol::stringOf(cost.intf)},
                    {"lost", cost.lost},
                    {"changed", cost.changed},
                    {"endpointsLost", cost.endpointsLost},
                    {"tableEntries", cost.entries}});
    columns.row({Zol::stringOf(cost.intf), std::to_string(cost.lost), std::to_string(cost.changed),
                 std::to_string(cost.endpointsLost), std::to_string(cost.entries)});
  }
  if (options.isJson) {
    std::cout << OrderedJson{{"count", costs.size()}, {"interfaces", list}}.dump(1) << '\n';
  } else {
    columns.write(std::cout, "");
  }
  return exitDone;
}

int runWhatIf(const WhatIfOptions& options) {
  StateReading reading(options.stateDirectory);
  Shadow after(reading);
  change(after, options);
  Report report(options);
  compareStates(reading.state(), after.host(), [&](const Difference& each) { report.add(each); });
  report.end();
  return exitDone;
}

template <class Value>
CLI::Validator textOf(const char* word) {
  return CLI::Validator(
      [](const std::string& text) -> std::string {
        try {
          Value::fromText(text);
          return {};
        } catch (const Zol::Exception& error) {
          return error.what();
        }
      },
      word);
}

}  // namespace

void addWhatIf(CLI::App& app, Action& action) {
  CLI::App& command = *app.add_subcommand("what-if", "Show what RIBs and FIB would become; nothing is changed");
  const auto options = std::make_shared<WhatIfOptions>();
  addShadowOptions(command, *options);
  addLimit(command, *options, 1000);
  command.add_option("SCENARIO", options->scenarios, "Lines to apply; - is standard input");
  command.add_option("--fail-intf", options->intfs, "The interface fails, with all vias over it")
      ->type_size(1)
      ->allow_extra_args(false)
      ->check(textOf<Ipkit::IntfId>("INTF"));
  command.add_option("--fail-tunnel", options->tunnels, "The tunnel's table entry goes")
      ->type_size(1)
      ->allow_extra_args(false)
      ->check(textOf<Model::TunnelId>("ID"));
  command.add_option("--each", options->each, "Fail each interface by itself, and rank them by the tunnels lost")
      ->check(CLI::IsMember({"intf"}));
  command.callback([=, &action] {
    const bool changes = !options->scenarios.empty() || !options->intfs.empty() || !options->tunnels.empty();
    if (changes != options->each.empty()) {
      throw CLI::ValidationError("what-if", "one of: SCENARIO and --fail options, or --each intf");
    }
    action = [=] { return options->each.empty() ? runWhatIf(*options) : runEach(*options); };
  });
}

}  // namespace Tools
