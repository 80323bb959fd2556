#include "agent/ExplanationJson.h"

#include <iterator>

namespace Agent {
namespace {

using Finding = Model::TunnelFibFinding;

OrderedJson idsJson(const std::vector<Model::TunnelId>& ids) {
  OrderedJson json = OrderedJson::array();
  for (const Model::TunnelId& id : ids) {
    json.push_back(Zol::stringOf(id));
  }
  return json;
}

OrderedJson viaJson(const Model::Via& via, const Ipkit::MplsLabelOperation& labelOp) {
  return {
      {"nextHop", Zol::stringOf(via.nextHop())}, {"intf", Zol::stringOf(via.intf())}, {"labels", topFirst(labelOp)}};
}

OrderedJson foundViaJson(const Finding::FoundVia& via) {
  OrderedJson json = viaJson(via.via, via.via.labelOp());
  if (via.nextLevel) {
    json["through"] = Zol::stringOf(*via.nextLevel);
  }
  json["flags"] = OrderedJson::array();
  for (unsigned bit = 0; bit < std::size(Model::TunnelFibViaCalcResult::flagNames); ++bit) {
    if (via.result.flag(bit)) {
      json["flags"].push_back(Model::TunnelFibViaCalcResult::flagNames[bit]);
    }
  }
  json["skipped"] = via.isSkipped;
  json["refused"] = OrderedJson::array();
  for (const Finding::RefusedVia& each : via.refused) {
    OrderedJson refused = viaJson(each.via.via, each.via.labelOp);
    refused["encap"] = Fib::stringValue(each.via.encapType);
    refused["reason"] = stringValue(each.obstacle);
    json["refused"].push_back(std::move(refused));
  }
  return json;
}

OrderedJson tunnelJson(const Model::TunnelId& tunnel, const ExplainedTunnel& explained) {
  OrderedJson resolution = OrderedJson::array();
  for (const Finding::FoundVia& via : explained.finding.vias) {
    resolution.push_back(foundViaJson(via));
  }
  return {
      {"tunnel", Zol::stringOf(tunnel)},
      {"state", stringValue(explained.standing)},
      {"tep", !explained.finding.head.tep() ? OrderedJson() : OrderedJson(Zol::stringOf(explained.finding.head.tep()))},
      {"vias", viasJson(explained.vias)},
      {"backupVias", viasJson(explained.backupVias)},
      {"resolution", std::move(resolution)},
      {"cycle", idsJson(explained.finding.cycle)}};
}

OrderedJson ribJson(const ExplainedRib& rib) {
  OrderedJson json = {{"name", rib.name}, {"state", stringValue(rib.standing)}};
  if (!rib.tunnels.empty()) {
    json["tep"] = Zol::stringOf(rib.tep);
    json["pref"] = rib.pref;
    json["tunnels"] = idsJson(rib.tunnels);
  }
  if (rib.rival) {
    const bool isExisting = rib.standing == RibStanding::inEntry;
    json["rival"] = {{"tunnel", Zol::stringOf(*rib.rival)},
                     {"pref", rib.rivalPref},
                     {"decidedBy", stringValue(rib.comparison.by)},
                     {"own", isExisting ? rib.comparison.existing : rib.comparison.candidate},
                     {"other", isExisting ? rib.comparison.candidate : rib.comparison.existing}};
  }
  return json;
}

}  // namespace

OrderedJson explanationJson(const Explanation& explanation) {
  OrderedJson tunnels = OrderedJson::array();
  for (const auto& [tunnel, explained] : explanation.tunnels) {
    tunnels.push_back(tunnelJson(tunnel, explained));
  }
  OrderedJson ribs = OrderedJson::array();
  for (const ExplainedRib& rib : explanation.ribs) {
    ribs.push_back(ribJson(rib));
  }
  return {{"tunnel", Zol::stringOf(explanation.tunnel)}, {"tunnels", std::move(tunnels)}, {"ribs", std::move(ribs)}};
}

}  // namespace Agent
