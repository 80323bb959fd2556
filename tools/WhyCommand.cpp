// "why" and "dependents": what the decisions about one tunnel or endpoint rest on, and what rests on a tunnel.

#include <iostream>
#include <memory>
#include <optional>
#include <variant>

#include "agent/ExplanationJson.h"
#include "agent/ExplanationText.h"
#include "agent/InputError.h"
#include "agent/StateDocument.h"
#include "agent/Terminal.h"
#include "agent/TextTree.h"
#include "tools/Shadow.h"
#include "tools/ShadowCommands.h"

namespace Tools {
namespace {

using Agent::OrderedJson;
using Agent::TextTree;

struct WhyOptions : ShadowOptions {
  std::string subject;
};

using Subject = std::variant<Model::TunnelId, Ipkit::IpGenPrefix>;

// Raises InputError.
Subject subjectOf(const std::string& text) {
  try {
    return Model::TunnelId::fromText(text);
  } catch (const Zol::Exception&) {
    try {
      return Ipkit::IpGenPrefix::fromText(text);
    } catch (const Zol::Exception&) {
      throw Agent::InputError("TUNNEL|TEP", "'" + Agent::printable(text) +
                                                "' is neither a tunnel, as ldpTunnel/5, nor a prefix, as 10.0.0.5/32");
    }
  }
}

Model::TunnelId tunnelOf(const std::string& text) {
  const Subject subject = subjectOf(text);
  if (const auto* const tunnel = std::get_if<Model::TunnelId>(&subject)) {
    return *tunnel;
  }
  throw Agent::InputError("TUNNEL", "'" + Agent::printable(text) + "' is no tunnel, as ldpTunnel/5");
}

Agent::Explanation explained(const Shadow& shadow, const Model::TunnelId& tunnel) {
  const Agent::AgentHost& host = shadow.host();
  return Agent::explain(*host.fibSm(), *host.ribConfigDirSm(), *host.ribIds(), tunnel, Agent::Follow::causes);
}

// Those that a RIB could take, ascending. O(tables).
std::vector<Model::TunnelId> tunnelsAt(const Agent::AgentState& state, const Ipkit::IpGenPrefix& tep) {
  std::vector<Model::TunnelId> tunnels;
  for (const Agent::TableId id : Agent::ribTables) {
    state.tables().withTable(id, [&](const auto& table) {
      typename std::remove_cvref_t<decltype(table)>::Record record;
      Model::walkSafely(table, true, [&](const auto& hint) {
        if (Model::readSafely(&table, hint.key(), record) && record.tep() == tep) {
          tunnels.push_back(hint.key());
        }
      });
    });
  }
  std::sort(tunnels.begin(), tunnels.end());
  return tunnels;
}

// The endpoint's tunnels as each RIB sees them: those in its entry first.
class EndpointView {
 public:
  EndpointView(const Shadow& shadow, const Ipkit::IpGenPrefix& tep) : tep_(tep) {
    for (const Model::TunnelId& tunnel : tunnelsAt(shadow.host(), tep)) {
      const Agent::Explanation explanation = explained(shadow, tunnel);
      const OrderedJson json = Agent::explanationJson(explanation)["ribs"];
      for (std::size_t i = 0; i < explanation.ribs.size(); ++i) {
        const Agent::ExplainedRib& rib = explanation.ribs[i];
        Rib& seen = ribOf(rib.name);
        const bool isIn = rib.standing == Agent::RibStanding::inEntry;
        OrderedJson row = {{"tunnel", Zol::stringOf(tunnel)}};
        row.update(json[i]);
        for (const char* const shared : {"name", "tep", "tunnels"}) {
          row.erase(shared);
        }
        (isIn ? seen.winners : seen.losers).push_back({Zol::stringOf(tunnel), Agent::ribWords(rib, tunnel), row});
      }
    }
  }

  bool isEmpty() const { return ribs_.empty(); }

  OrderedJson json() const {
    OrderedJson ribs = OrderedJson::array();
    for (const Rib& rib : ribs_) {
      OrderedJson json = {{"name", rib.name}, {"winners", OrderedJson::array()}, {"losers", OrderedJson::array()}};
      for (const auto& [member, rows] : {std::pair("winners", &rib.winners), std::pair("losers", &rib.losers)}) {
        for (const Row& row : *rows) {
          json[member].push_back(row.json);
        }
      }
      ribs.push_back(std::move(json));
    }
    return {{"tep", Zol::stringOf(tep_)}, {"ribs", std::move(ribs)}};
  }

  void write(std::ostream& out, bool isColoured) const {
    TextTree top("why " + Zol::stringOf(tep_), TextTree::Tone::title);
    for (const Rib& rib : ribs_) {
      TextTree tree("RIB " + Agent::printable(rib.name) +
                    (rib.winners.empty() ? ": no entry, none of its tunnels is a candidate" : ""));
      for (const Row& row : rib.winners) {
        tree.children.emplace_back(row.tunnel + ": " + row.words);
      }
      for (const Row& row : rib.losers) {
        tree.children.emplace_back(row.tunnel + ": " + row.words, TextTree::Tone::fault);
      }
      top.children.push_back(std::move(tree));
    }
    if (isEmpty()) {
      top.children.emplace_back("no table has a tunnel to it", TextTree::Tone::fault);
    }
    top.write(out, isColoured);
  }

 private:
  struct Row {
    std::string tunnel;
    std::string words;
    OrderedJson json;
  };
  struct Rib {
    std::string name;
    std::vector<Row> winners;
    std::vector<Row> losers;
  };
  Rib& ribOf(const std::string& name) {
    const auto present = std::find_if(ribs_.begin(), ribs_.end(), [&](const Rib& rib) { return rib.name == name; });
    return present == ribs_.end() ? ribs_.emplace_back(Rib{name, {}, {}}) : *present;
  }

  const Ipkit::IpGenPrefix tep_;
  std::vector<Rib> ribs_;
};

int runWhy(const WhyOptions& options) {
  const Subject subject = subjectOf(options.subject);
  StateReading reading(options.stateDirectory);
  const Shadow shadow(reading);
  if (const auto* const tep = std::get_if<Ipkit::IpGenPrefix>(&subject)) {
    const EndpointView view(shadow, *tep);
    if (options.isJson) {
      std::cout << view.json().dump(1) << '\n';
    } else {
      view.write(std::cout, Agent::isOutputColoured());
    }
    return exitDone;
  }
  const Agent::Explanation explanation = explained(shadow, std::get<Model::TunnelId>(subject));
  if (options.isJson) {
    std::cout << Agent::explanationJson(explanation).dump(1) << '\n';
  } else {
    Agent::writeWhy(std::cout, explanation, Agent::isOutputColoured());
  }
  return exitDone;
}

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

int runDependents(const WhyOptions& options) {
  const Model::TunnelId tunnel = tunnelOf(options.subject);
  StateReading reading(options.stateDirectory);
  const Shadow shadow(reading);
  const auto levels = dependantsByDepth(shadow.host().fibSm()->dependencies(), tunnel);
  std::size_t total = 0;
  OrderedJson depths = OrderedJson::array();
  TextTree tree(Zol::stringOf(tunnel), TextTree::Tone::title);
  for (const std::vector<Model::TunnelId>& level : levels) {
    total += level.size();
    const std::size_t shown = std::min<std::size_t>(level.size(), options.limit);
    OrderedJson ids = OrderedJson::array();
    for (std::size_t i = 0; i < shown; ++i) {
      ids.push_back(Zol::stringOf(level[i]));
    }
    depths.push_back({{"depth", depths.size() + 1}, {"count", level.size()}, {"tunnels", std::move(ids)}});
    tree.children.emplace_back("depth " + std::to_string(depths.size()) + ", " + std::to_string(level.size()) +
                               (level.size() == 1 ? " tunnel" : " tunnels") +
                               (shown == 0 ? "" : ": " + Agent::listOf(level, std::max<std::size_t>(shown, 2))));
  }
  if (options.isJson) {
    std::cout << OrderedJson{{"tunnel", Zol::stringOf(tunnel)}, {"total", total}, {"depths", depths}}.dump(1) << '\n';
  } else {
    tree.text += ": " + std::to_string(total) + (total == 1 ? " tunnel resolves" : " tunnels resolve") + " through it";
    tree.write(std::cout, Agent::isOutputColoured());
  }
  return exitDone;
}

template <class Run>
void addQuestion(CLI::App& command, const char* subject, const char* help, Action& action,
                 const std::shared_ptr<WhyOptions>& options, Run run) {
  addShadowOptions(command, *options);
  command.add_option(subject, options->subject, help)->required();
  command.callback([=, &action] { action = [=] { return run(*options); }; });
}

}  // namespace

void addWhy(CLI::App& app, Action& action) {
  addQuestion(*app.add_subcommand("why", "Say why a tunnel is, or is not, in FIB and RIBs, or who has an endpoint"),
              "TUNNEL|TEP", "A tunnel, as ldpTunnel/5, or an endpoint, as 10.0.0.5/32", action,
              std::make_shared<WhyOptions>(), runWhy);
}

void addDependents(CLI::App& app, Action& action) {
  CLI::App& command = *app.add_subcommand("dependents", "List the tunnels that resolve through a tunnel, by depth");
  const auto options = std::make_shared<WhyOptions>();
  addLimit(command, *options, 10);
  addQuestion(command, "TUNNEL", "A tunnel, as ldpTunnel/5", action, options, runDependents);
}

}  // namespace Tools
