// "show encaps": encapsulations, all or those that FIB vias of certain tunnels, endpoints and next hops carry.

#include <iostream>
#include <set>
#include <utility>

#include "tools/Commands.h"
#include "tools/ShowCommand.h"
#include "tools/StateReading.h"
#include "tools/TableWalk.h"

namespace Tools {
namespace {

// Of the vias that fit. O(FIB).
std::set<Fib::EncapId> encapsOf(StateReading& reading, const ListOptions& options) {
  const Fib::TunnelFib& fib = *reading.state().fib();
  const EntryFilter filter = options.filter.tepAddress() ? options.filter.among(reading.ribs()) : options.filter;
  const auto rib = options.rib.empty() ? nullptr : reading.rib(options.rib);
  std::set<Fib::EncapId> encaps;
  walk(fib.entry(), {}, [&](const Fib::TunnelFibEntry& entry) {
    const Model::TunnelId tunnel = entry.tunnelId();
    const Ipkit::IpGenPrefix tep = filter.tep() || rib ? tepOf(reading.state(), tunnel) : Ipkit::IpGenPrefix();
    if (filter.doesFit(tunnel) && filter.doesFit(tep) && (!rib || hasTunnel(*rib, tep, tunnel))) {
      for (const Fib::TunnelViaArray* const vias : {&entry.tunnelVia(), &entry.backupTunnelVia()}) {
        for (const Fib::TunnelVia& via : *vias) {
          if (filter.doesViaFit(fib, via)) {
            encaps.insert(via.encapId());
          }
        }
      }
    }
    return true;
  });
  return encaps;
}

}  // namespace

int showEncaps(const ListOptions& options) {
  auto after = options.after ? std::optional(optionValue<Fib::EncapId>("--after", *options.after)) : std::nullopt;
  StateReading reading(options.stateDirectory);
  reading.requireTable(Agent::fibPath);
  const Fib::TunnelFib& fib = *reading.state().fib();
  const auto counts = Agent::encapRefCounts(fib);
  const bool isNarrowed = !options.filter.isEmpty() || !options.rib.empty();
  const std::set<Fib::EncapId> asked = isNarrowed ? encapsOf(reading, options) : std::set<Fib::EncapId>();
  Rows rows(std::cout, options.isJson, "encaps", {"encapsulation", "vias", "fields"}, options.limit);
  bool isOver = false;
  Model::forEachEncapKind([&](auto kind) {
    if (isOver || (after && after->encapType() != kind.type)) {
      return;
    }
    walk(kind.encaps(fib), {std::nullopt, std::exchange(after, std::nullopt)}, [&](const auto& record) {
      if (isNarrowed && !asked.contains(record.encapId())) {
        return true;
      }
      const auto count = counts.find(record.encapId());
      const auto vias = count == counts.end() ? 0U : count->second;
      const auto json = [&] { return Agent::encapJson(fib, record.encapId(), vias); };
      const auto cells = [&] {
        OrderedJson fields = json();
        fields.erase("id");
        fields.erase("refCount");
        return Cells{Zol::stringOf(record.encapId()), std::to_string(vias), Agent::textOf(fields)};
      };
      isOver = !rows.add(record.encapId(), cells, json);
      return !isOver;
    });
  });
  rows.end();
  return toldDamage(reading.damages(), options.isJson);
}

}  // namespace Tools
