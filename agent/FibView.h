// The tunnel FIB as people and documents see it: vias with their encapsulations in place of encapsulation ids.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "agent/JsonText.h"
#include "tunnel/EncapKind.h"

namespace Agent {

namespace Fib = Tunnel::TunnelFib;

// What a via of the FIB stands for. A via whose encapsulation has no record has its type only.
struct FibVia {
  Tunnel::TunnelTable::ViaAndTunnelInfo via;
  Fib::EncapId encapId;
  bool isEncapMissing = false;
};

// The labels as documents show them.
std::vector<Ipkit::MplsLabelOperation::Label> topFirst(const Ipkit::MplsLabelOperation& operation);

// By interface, next hop, encapsulation type, labels from the top, and what else wraps the packets.
std::vector<FibVia> sortedVias(const Fib::TunnelFib& fib, const Fib::TunnelViaArray& vias);

// The ids that have a record, ascending.
std::vector<Fib::EncapId> sortedEncapIds(const Fib::TunnelFib& fib);

// For each encapsulation id the number of vias, primary and backup, that carry it. O(FIB).
std::map<Fib::EncapId, std::uint32_t> encapRefCounts(const Fib::TunnelFib& fib);

// [{"nextHop": ..., "intf": ..., "encap": {...}}, ...].
OrderedJson viasJson(const std::vector<FibVia>& vias);
// {"tunnel": ..., "vias": [...], "backupVias": [...]}, each of the two sorted.
OrderedJson fibEntryJson(const Fib::TunnelFib& fib, const Fib::TunnelFibEntry& entry);
// {"id": ..., "refCount": ..., then the fields of the record}.
OrderedJson encapJson(const Fib::TunnelFib& fib, const Fib::EncapId& id, std::uint32_t refCount);

// "[300123, 17]", the top of the stack first; with another operation than a push "swap [17]", "pop []".
std::string summaryOf(const Ipkit::MplsLabelOperation& labels);
// "192.0.2.2 -> 192.0.2.3", with "spi 7" behind it where there is one.
template <class Info>
std::string summaryOf(const Info& wrapped) requires requires {
  wrapped.destination();
}
{
  std::string words = Zol::stringOf(wrapped.source()) + " -> " + Zol::stringOf(wrapped.destination());
  if constexpr (requires { wrapped.spi(); }) {
    words += " spi " + std::to_string(wrapped.spi());
  }
  return words;
}
// Adds the same as "source", "destination", "tos", "ttl", and "spi" where there is one.
template <class Info>
void addWrapping(OrderedJson& json, const Info& wrapped) {
  json["source"] = Zol::stringOf(wrapped.source());
  json["destination"] = Zol::stringOf(wrapped.destination());
  json["tos"] = wrapped.tos();
  json["ttl"] = wrapped.ttl();
  if constexpr (requires { wrapped.spi(); }) {
    json["spi"] = wrapped.spi();
  }
}
// "if12 192.0.2.1", without the address where there is none; with the encapsulation behind it: "[300123]",
// "gre 192.0.2.2 -> 192.0.2.3".
std::string summaryOf(const Tunnel::TunnelTable::Via& via);
std::string summaryOf(const FibVia& via);
// "if12 192.0.2.1 [300123], if13 192.0.2.5 [300123] backup if14 192.0.2.9 []"; of many vias the first and their number.
std::string summaryOf(const Fib::TunnelFib& fib, const Fib::TunnelFibEntry& entry);

}  // namespace Agent
