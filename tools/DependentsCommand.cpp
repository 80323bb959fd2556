// "dependents": what rests on a tunnel.

#include <algorithm>
#include <iostream>
#include <memory>

#include "agent/InputError.h"
#include "agent/StateDocument.h"
#include "agent/Terminal.h"
#include "agent/TextTree.h"
#include "tools/EntryFilter.h"
#include "tools/Shadow.h"
#include "tools/ShadowCommands.h"
#include "tools/TableWalk.h"

namespace Tools {
namespace {

using Agent::OrderedJson;
using Agent::TextTree;

struct DependentsOptions : ShadowOptions {
  std::string tunnel;
};

// [n]: those whose shortest way to the tunnel has n + 1 steps, ascending.
std::vector<std::vector<Model::TunnelId>> dependantsByDepth(const Model::TunnelFibDependencies& dependencies,
                                                            const Model::TunnelId& tunnel) {
  std::vector<std::vector<Model::TunnelId>> levels;
  Zol::HashCollection<Model::TunnelId> seen;
  seen.insert(tunnel);
  std::vector<Model::TunnelId> level = {tunnel};
  while (!level.empty()) {
    std::vector<Model::TunnelId> next;
    for (const Model::TunnelId& each : level) {
      for (const Model::TunnelId& dependant : dependencies.directlyDependentTunnels(each)) {
        if (seen.insert(dependant).second) {
          next.push_back(dependant);
        }
      }
    }
    std::sort(next.begin(), next.end());
    level = next;
    if (!next.empty()) {
      levels.push_back(std::move(next));
    }
  }
  return levels;
}

int runDependents(const DependentsOptions& options) {
  const auto tunnel = optionValue<Model::TunnelId>("TUNNEL", options.tunnel);
  StateReading reading(options.stateDirectory);
  const Shadow shadow(reading);
  const auto levels = dependantsByDepth(shadow.host().fibSm()->dependencies(), tunnel);
  std::size_t total = 0;
  OrderedJson depths = OrderedJson::array();
  TextTree tree(Zol::stringOf(tunnel), TextTree::Tone::title);
  for (const std::vector<Model::TunnelId>& level : levels) {
    total += level.size();
    const std::size_t shown = std::min<std::size_t>(level.size(), options.shown());
    OrderedJson ids = OrderedJson::array();
    for (std::size_t i = 0; i < shown; ++i) {
      ids.push_back(Zol::stringOf(level[i]));
    }
    depths.push_back({{"depth", depths.size() + 1}, {"count", level.size()}, {"tunnels", std::move(ids)}});
    tree.children.emplace_back("depth " + std::to_string(depths.size()) + ", " +
                               Agent::counted(level.size(), "tunnel") +
                               (shown == 0 ? "" : ": " + Agent::listOf(level, std::max<std::size_t>(shown, 2))));
  }
  const bool isKnown = total > 0 || visitEntry(shadow.host().tables(), tunnel, [](const auto&) {});
  if (options.isJson) {
    std::cout << OrderedJson{{"tunnel", Zol::stringOf(tunnel)}, {"total", total}, {"depths", depths}}.dump(1) << '\n';
  } else {
    tree.text += ": " + Agent::counted(total, "tunnel resolves", "tunnels resolve") + " through it" +
                 (isKnown ? "" : ", no table has it");
    tree.write(std::cout, Agent::isOutputColoured());
  }
  return std::max(toldDamage(reading.damages(), options.isJson), isKnown ? exitDone : exitFailed);
}

}  // namespace

void addDependents(const Agent::Command& app, Action& action) {
  const Agent::Command command = app.command("dependents", "List the tunnels that resolve through a tunnel, by depth");
  const auto options = std::make_shared<DependentsOptions>();
  addShadowOptions(command, *options);
  addLimit(command, *options, 10);
  command.option("TUNNEL", options->tunnel, "A tunnel, as ldpTunnel/5").required();
  command.onChosen([=, &action] { action = [=] { return runDependents(*options); }; });
}

}  // namespace Tools
