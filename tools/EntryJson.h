// A record of a protocol table as a scenario writes it, an entry of a RIB as the state document has it, and both in
// words.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "agent/FibView.h"
#include "agent/StateDocument.h"
#include "tunnel_table_sm/TunnelFibTableEntry.h"

namespace Tools {

namespace Model = Tunnel::TunnelTable;
using Agent::OrderedJson;

// opShown: the via says its label operation.
inline OrderedJson viaJson(const Model::Via& via) {
  return {{"nextHop", Zol::stringOf(via.nextHop())}, {"intf", Zol::stringOf(via.intf())}};
}
inline OrderedJson viaJson(const Model::MplsVia& via, bool opShown) {
  OrderedJson json = viaJson(via);
  json["labels"] = Agent::topFirst(via.labelOp());
  if (opShown) {
    json["op"] = Zol::stringOf(via.labelOp().op());
  }
  return json;
}

template <class Vias>
OrderedJson viasJson(const Vias& vias, [[maybe_unused]] bool opShown) {
  OrderedJson json = OrderedJson::array();
  for (const auto& via : vias) {
    if constexpr (requires { via.labelOp(); }) {
      json.push_back(viaJson(via, opShown));
    } else {
      json.push_back(viaJson(via));
    }
  }
  return json;
}

// The ENTRY of a "put" line, with every field that the record's table takes.
template <class Entry>
OrderedJson entryJson(const Entry& entry) {
  constexpr bool isStatic = std::same_as<Entry, Model::StaticTunnelTableEntry>;
  OrderedJson json = {{"index", entry.tunnelId().index()}};
  if (!!entry.tep()) {
    json["tep"] = Zol::stringOf(entry.tep());
  }
  json["tieBreaker"] = entry.tieBreaker();
  json["pref"] = entry.pref();
  if constexpr (requires { entry.via(); }) {
    json["vias"] = viasJson(entry.via(), isStatic);
  }
  if constexpr (requires { entry.backupVia(); }) {
    json["backupVias"] = viasJson(entry.backupVia(), isStatic);
  }
  if constexpr (requires { entry.labelOp(); }) {
    json["labels"] = Agent::topFirst(entry.labelOp());
  }
  if constexpr (requires { entry.contribution(); }) {
    json["contribution"] = Zol::stringOf(entry.contribution());
  } else if constexpr (requires { entry.labelOp(); }) {
    json["op"] = Zol::stringOf(entry.labelOp().op());
  }
  if constexpr (requires { entry.metrics(); }) {
    const Model::TunnelMetrics& metrics = entry.metrics();
    json["metrics"] = {metrics.m(), metrics.m2(), metrics.p(), metrics.p2()};
  }
  if constexpr (requires { entry.nexthopGroupId(); }) {
    json["nexthopGroupId"] = entry.nexthopGroupId();
  }
  if constexpr (requires { entry.tunnelInfo(); }) {
    Agent::addWrapping(json, entry.tunnelInfo());
  }
  return json;
}

// The first words, and how many more there are.
inline std::string someOf(const std::vector<std::string>& words) {
  constexpr std::size_t shownMax = 2;
  std::string text;
  for (std::size_t i = 0; i < std::min(words.size(), shownMax); ++i) {
    text += (i == 0 ? "" : ", ") + words[i];
  }
  return words.size() > shownMax ? text + " and " + std::to_string(words.size() - shownMax) + " more" : text;
}

// What follows the tunnel's id: "if12 192.0.2.1 [300123], tunnel:ldpTunnel/5 [17] and 3 more backup if14 pop []",
// "if12 192.0.2.1, 192.0.2.2 -> 192.0.2.3 spi 7", "tunnel:ldpTunnel/5 [17], not contributing".
template <class Entry>
std::string entryWords(const Entry& entry) {
  const auto words = [](const Model::MplsVia& via) {
    return Agent::summaryOf(static_cast<const Model::Via&>(via)) + " " + Agent::summaryOf(via.labelOp());
  };
  std::vector<std::string> vias;
  if constexpr (Model::IsMplsTunnel<Entry>) {
    Model::forEachMplsVia(entry, [&](const Model::MplsVia& via) { vias.push_back(words(via)); });
  } else if constexpr (requires { entry.via(); }) {
    for (const Model::Via& via : entry.via()) {
      vias.push_back(Agent::summaryOf(via));
    }
  } else {
    vias.push_back("nexthopGroup:" + std::to_string(entry.nexthopGroupId()));
  }
  std::string text = vias.empty() ? "no vias" : someOf(vias);
  if constexpr (Model::HoldsBackupVias<Entry>) {
    std::vector<std::string> backups;
    for (const Model::MplsVia& via : entry.backupVia()) {
      backups.push_back(words(via));
    }
    text += backups.empty() ? "" : " backup " + someOf(backups);
  }
  if constexpr (requires { entry.tunnelInfo(); }) {
    text += ", " + Agent::summaryOf(entry.tunnelInfo());
  }
  if constexpr (requires { entry.contribution(); }) {
    text += entry.contribution() == Model::Contribution::contributing ? "" : ", not contributing";
  }
  return text;
}

// An entry of a RIB. Preference and metrics are those of the RIB's choice; a per-protocol RIB makes none.
inline OrderedJson ribEntryJson(const Model::TunnelRibEntry& entry, bool hasChoice) {
  OrderedJson json = Agent::ribEntryJson(entry);
  if (!hasChoice) {
    json.erase("pref");
    json.erase("metrics");
  }
  return json;
}
inline std::string ribEntryWords(const Model::TunnelRibEntry& entry, bool hasChoice) {
  return Agent::listOf(Agent::sortedTunnelIds(entry), 4) + (hasChoice ? " (" + std::to_string(entry.pref()) + ")" : "");
}

}  // namespace Tools
