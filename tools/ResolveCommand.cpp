// The command "tunnelctl resolve": where packets to an address go.

#include <iostream>
#include <memory>

#include "agent/ExplanationJson.h"
#include "agent/ExplanationText.h"
#include "agent/StateDocument.h"
#include "agent/Terminal.h"
#include "tools/Commands.h"
#include "tools/EntryFilter.h"
#include "tools/StateReading.h"
#include "tools/TableExplanation.h"
#include "tools/TableWalk.h"

namespace Tools {
namespace {

struct ResolveOptions {
  std::string stateDirectory;
  std::string address;
  std::string rib = Model::TunnelRibNameIdMap::systemTunnelRibName;
  bool isJson = false;
};

int resolve(const ResolveOptions& options) {
  const auto address = optionValue<Ipkit::IpGenAddr>("ADDRESS", options.address);
  StateReading reading(options.stateDirectory);
  const auto rib = reading.rib(options.rib);
  reading.status();
  Model::TunnelRibEntry entry;
  if (!longestMatch(*rib, address, entry)) {
    toldDamage(reading.damages(), options.isJson);
    throw std::runtime_error(options.address + ": no entry of RIB " + Agent::printable(options.rib) +
                             " has this address");
  }
  const std::vector<Model::TunnelId> tunnels = Agent::sortedTunnelIds(entry);
  const Agent::Explanation explanation = explainFromTables(reading.state(), tunnels);
  if (options.isJson) {
    Agent::OrderedJson json = {{"address", options.address}, {"rib", options.rib}};
    json.update(Agent::ribEntryJson(entry));
    json["resolution"] = explanationJson(explanation)["tunnels"];
    std::cout << Agent::textOf(json) << '\n';
    return toldDamage(reading.damages(), true);
  }
  writeWays(std::cout, tunnels,
            options.address + ": " + Zol::stringOf(entry.tep()) + " in RIB " + Agent::printable(options.rib) +
                ", preference " + std::to_string(entry.pref()),
            explanation, Agent::isOutputColoured());
  return toldDamage(reading.damages(), false);
}

}  // namespace

void addResolve(const Agent::Command& app, Action& action) {
  const Agent::Command command = app.command("resolve", "Show where packets to an address go, down to the next hops");
  const auto options = std::make_shared<ResolveOptions>();
  addStateDirectory(command, options->stateDirectory);
  command.option("ADDRESS", options->address, "An IPv4 or IPv6 address").required();
  command.option("--rib", options->rib, "A RIB, or the tunnel type of a per-protocol one")
      .word("NAME")
      .defaultValue(options->rib);
  command.flag("--json", options->isJson, "Print one JSON document");
  command.onChosen([=, &action] { action = [options] { return resolve(*options); }; });
}

}  // namespace Tools
