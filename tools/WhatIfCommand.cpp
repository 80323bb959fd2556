// "what-if": what RIBs and FIB would become.

#include <fstream>
#include <iostream>
#include <memory>

#include "agent/Columns.h"
#include "agent/InputError.h"
#include "agent/ScenarioReader.h"
#include "tools/Lag.h"
#include "tools/ShadowCommands.h"
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
    file = Agent::openedFile(path);
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
  Report(const WhatIfOptions& options, const Lag& lag) : options_(options), lag_(lag) {}

  void add(const Difference& difference) {
    count(difference);
    if (count_++ >= options_.shown()) {
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
      const OrderedJson json = {
          {"published", lagJson(lag_)}, {"count", count_}, {"summary", summaryJson()}, {"changes", changes_}};
      std::cout << json.dump(1) << '\n';
      return;
    }
    if (count_ > options_.shown()) {
      std::cout << count_ - options_.shown() << " more\n";
    }
    if (count_ == 0) {
      std::cout << "nothing changes\n";
      return;
    }
    std::cout << "tunnels touched: " << touched() << ", stacks changed: " << stacks_
              << ", become unprogrammable: " << unprogrammable_ << '\n';
    for (const auto& [where, counts] : places_) {
      std::cout << where << ": " << counts.lost << " lost, " << counts.changed << " changed, " << counts.appeared
                << " new\n";
    }
  }

 private:
  struct Counts {
    std::size_t lost = 0;
    std::size_t changed = 0;
    std::size_t appeared = 0;
    std::string lastChanged;  // key; an entry's differences come one after the other
  };

  void count(const Difference& difference) {
    if (difference.where == "unprogrammable") {
      unprogrammable_ += difference.right ? 1U : 0U;
      return;
    }
    Counts& counts = places_[difference.where];
    if (difference.what == "entry") {
      ++(difference.right ? counts.appeared : counts.lost);
    } else if (difference.key != counts.lastChanged) {
      ++counts.changed;
      counts.lastChanged = difference.key;
    }
    // A via to the same next hop, wrapped in another way.
    stacks_ +=
        difference.where == "fib" && difference.what != "usable" && difference.left && difference.right ? 1U : 0U;
  }

  std::size_t touched() const {
    const auto fib = places_.find("fib");
    return fib == places_.end() ? 0 : fib->second.lost + fib->second.changed + fib->second.appeared;
  }

  OrderedJson summaryJson() const {
    OrderedJson json = {
        {"tunnelsTouched", touched()}, {"stacksChanged", stacks_}, {"becomeUnprogrammable", unprogrammable_}};
    for (const auto& [where, counts] : places_) {
      json[where] = {{"lost", counts.lost}, {"changed", counts.changed}, {"new", counts.appeared}};
    }
    return json;
  }

  const WhatIfOptions& options_;
  const Lag& lag_;
  std::size_t count_ = 0;
  std::map<std::string, Counts> places_;
  std::size_t unprogrammable_ = 0;
  std::size_t stacks_ = 0;
  OrderedJson changes_ = OrderedJson::array();
};

// Whether what is published is what the change starts from. For people it is said here if not.
Lag toldLag(StateReading& reading, const Shadow& shadow, const WhatIfOptions& options) {
  Lag lag = lagOf(reading, shadow, {}, 1);
  if (!lag.differences.empty() && !options.isJson) {
    std::cerr << "tunnelctl: what is published is not what the tables ask for (" << reasonsOf(lag)
              << "); compared is what they ask for, before and after\n";
  }
  return lag;
}

int runEach(const WhatIfOptions& options) {
  StateReading reading(options.stateDirectory);
  Shadow shadow(reading);
  const Lag lag = toldLag(reading, shadow, options);
  const std::vector<IntfCost> costs = intfCosts(shadow);
  OrderedJson list = OrderedJson::array();
  Agent::Columns columns;
  columns.row({"interface", "lost", "changed", "endpoints lost", "table entries"});
  for (std::size_t i = 0; i < costs.size() && i < options.shown(); ++i) {
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
    const OrderedJson json = {{"published", lagJson(lag)}, {"count", costs.size()}, {"interfaces", list}};
    std::cout << json.dump(1) << '\n';
  } else {
    columns.write(std::cout, "");
  }
  return toldDamage(reading.damages(), options.isJson);
}

int runWhatIf(const WhatIfOptions& options) {
  StateReading reading(options.stateDirectory);
  Shadow after(reading);
  const Lag lag = toldLag(reading, after, options);
  std::optional<Shadow> before;  // needed only where what is published is something else
  if (!lag.differences.empty()) {
    before.emplace(reading, after.host());
  }
  change(after, options);
  Report report(options, lag);
  compareStates(before ? before->host() : reading.state(), after.host(),
                {.tunnels = {}, .teps = {}, .withJson = options.isJson}, [&](const Difference& each) {
                  report.add(each);
                  return true;
                });
  report.end();
  return toldDamage(reading.damages(), options.isJson);
}

}  // namespace

void addWhatIf(const Agent::Command& app, Action& action) {
  const Agent::Command command = app.command("what-if", "Show what RIBs and FIB would become; nothing is changed");
  const auto options = std::make_shared<WhatIfOptions>();
  addShadowOptions(command, *options);
  addLimit(command, *options, 1000);
  command.option("SCENARIO", options->scenarios, "Lines to apply; - is standard input");
  command.option("--fail-intf", options->intfs, "The interface fails, with all vias over it")
      .repeatable()
      .word("INTF")
      .check(Agent::parsedBy<Zol::Exception>([](const std::string& text) { Ipkit::IntfId::fromText(text); }));
  command.option("--fail-tunnel", options->tunnels, "The tunnel's table entry goes")
      .repeatable()
      .word("ID")
      .check(Agent::parsedBy<Zol::Exception>([](const std::string& text) { Model::TunnelId::fromText(text); }));
  command.option("--each", options->each, "Fail each interface by itself, and rank them by the tunnels lost")
      .oneOf({"intf"});
  command.onChosen([=, &action] {
    const bool changes = !options->scenarios.empty() || !options->intfs.empty() || !options->tunnels.empty();
    if (changes != options->each.empty()) {
      Agent::refuse("what-if", "one of: SCENARIO and --fail options, or --each intf");
    }
    action = [=] { return options->each.empty() ? runWhatIf(*options) : runEach(*options); };
  });
}

}  // namespace Tools
