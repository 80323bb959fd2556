// A record of a protocol table as a scenario writes it, and in words.
#pragma once

#include <string>

#include "agent/FibView.h"
#include "agent/JsonText.h"
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
    const auto& info = entry.tunnelInfo();
    json["source"] = Zol::stringOf(info.source());
    json["destination"] = Zol::stringOf(info.destination());
    json["tos"] = info.tos();
    json["ttl"] = info.ttl();
    if constexpr (requires { info.spi(); }) {
      json["spi"] = info.spi();
    }
  }
  return json;
}

// "if12 192.0.2.1 [300123], tunnel:ldpTunnel/5 [17] and 3 more"
template <class Entry>
std::string viaWords(const Entry& entry) {
  constexpr std::size_t shownMax = 2;
  std::size_t count = 0;
  std::string words;
  const auto add = [&](const std::string& via) { words += ++count > shownMax ? "" : (count == 1 ? "" : ", ") + via; };
  if constexpr (Model::IsMplsTunnel<Entry>) {
    Model::forEachMplsVia(entry, [&](const Model::MplsVia& via) {
      add(Agent::summaryOf(static_cast<const Model::Via&>(via)) + " " + Agent::textOf(Agent::topFirst(via.labelOp())));
    });
  } else if constexpr (requires { entry.via(); }) {
    for (const Model::Via& via : entry.via()) {
      add(Agent::summaryOf(via));
    }
  } else {
    add("nexthopGroup:" + std::to_string(entry.nexthopGroupId()));
  }
  words += count > shownMax ? " and " + std::to_string(count - shownMax) + " more" : "";
  return words.empty() ? "no vias" : words;
}

}  // namespace Tools
