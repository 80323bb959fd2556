#include "tools/EndpointView.h"

#include <algorithm>
#include <utility>

#include "agent/ExplanationJson.h"
#include "agent/ExplanationText.h"
#include "agent/InputError.h"
#include "tools/TableWalk.h"

namespace Tools {
namespace {

using Agent::TextTree;

// Those that a RIB could take, ascending. O(tables).
std::vector<Model::TunnelId> tunnelsAt(const Agent::AgentState& state, const Ipkit::IpGenPrefix& tep) {
  std::vector<Model::TunnelId> tunnels;
  for (const Agent::TableId id : Agent::ribTables) {
    state.tables().withTable(id, [&](const auto& table) {
      walk(table, {}, [&](const auto& entry) {
        if (entry.tep() == tep) {
          tunnels.push_back(entry.tunnelId());
        }
        return true;
      });
    });
  }
  std::sort(tunnels.begin(), tunnels.end());
  return tunnels;
}

OrderedJson rowJson(const Model::TunnelId& tunnel, const OrderedJson& rib) {
  OrderedJson row = {{"tunnel", Zol::stringOf(tunnel)}};
  row.update(rib);
  for (const char* const shared : {"name", "tep", "tunnels"}) {
    row.erase(shared);
  }
  return row;
}

}  // namespace

EndpointView::EndpointView(const Shadow& shadow, const Ipkit::IpGenPrefix& tep) : tep_(tep) {
  for (const Model::TunnelId& tunnel : tunnelsAt(shadow.host(), tep)) {
    add(explained(shadow, tunnel));
  }
}

void EndpointView::add(const Agent::Explanation& explanation) {
  const Model::TunnelId& tunnel = explanation.tunnel;
  const OrderedJson json = Agent::explanationJson(explanation)["ribs"];
  for (std::size_t i = 0; i < explanation.ribs.size(); ++i) {
    const Agent::ExplainedRib& rib = explanation.ribs[i];
    Rib& seen = ribOf(rib.name);
    const bool isIn = rib.standing == Agent::RibStanding::inEntry;
    (isIn ? seen.winners : seen.losers).push_back({tunnel, Agent::ribWords(rib, tunnel), rowJson(tunnel, json[i])});
  }
  if (explanation.tunnels.at(tunnel).standing != Agent::FibStanding::programmed) {
    missing_.push_back(tunnel);
    causes_.tunnels.insert(explanation.tunnels.begin(), explanation.tunnels.end());
  }
}

OrderedJson EndpointView::json() const {
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
  return {{"tep", Zol::stringOf(tep_)},
          {"ribs", std::move(ribs)},
          {"notInFib", Agent::explanationJson(causes_)["tunnels"]}};
}

TextTree EndpointView::tree() const {
  TextTree top("why " + Zol::stringOf(tep_), TextTree::Tone::title);
  for (const Rib& rib : ribs_) {
    TextTree tree("RIB " + Agent::printable(rib.name) +
                  (rib.winners.empty() ? ": no entry, none of its tunnels is a candidate" : ""));
    for (const Row& row : rib.winners) {
      tree.children.emplace_back(Zol::stringOf(row.tunnel) + ": " + row.words);
    }
    for (const Row& row : rib.losers) {
      tree.children.emplace_back(Zol::stringOf(row.tunnel) + ": " + row.words, TextTree::Tone::fault);
    }
    top.children.push_back(std::move(tree));
  }
  if (isEmpty()) {
    top.children.emplace_back("no table has a tunnel to it", TextTree::Tone::fault);
  }
  if (!missing_.empty()) {
    top.children.emplace_back("not in the FIB").children = Agent::causeTrees(missing_, causes_);
  }
  return top;
}

EndpointView::Rib& EndpointView::ribOf(const std::string& name) {
  const auto present = std::find_if(ribs_.begin(), ribs_.end(), [&](const Rib& rib) { return rib.name == name; });
  return present == ribs_.end() ? ribs_.emplace_back(Rib{name, {}, {}}) : *present;
}

Agent::Explanation explained(const Shadow& shadow, const Model::TunnelId& tunnel) {
  const Agent::AgentHost& host = shadow.host();
  return Agent::explain(*host.fibSm(), *host.ribConfigDirSm(), *host.ribIds(), tunnel, Agent::Follow::causes);
}

}  // namespace Tools
