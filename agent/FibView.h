// The tunnel FIB as people and documents see it: vias with their encapsulations in place of encapsulation ids.
#pragma once

#include <compare>
#include <map>
#include <vector>

#include "agent/JsonText.h"
#include "tunnel/TunnelFib.h"

namespace Agent {

namespace Fib = Tunnel::TunnelFib;

// What the record of an encapsulation id says.
struct Encap {
  Fib::EncapType type = Fib::EncapType::invalid;
  Ipkit::MplsLabelOperation labels;
  Tunnel::TunnelTable::IpsecVtiTunnelInfo info;  // has the fields of all three kinds
  bool isMissing = false;                        // no record under the id

  friend bool operator==(const Encap&, const Encap&) = default;
  friend std::strong_ordering operator<=>(const Encap&, const Encap&) = default;
};

Encap encap(const Fib::TunnelFib& fib, const Fib::EncapId& id);

// The ids that have a record, ascending.
std::vector<Fib::EncapId> sortedEncapIds(const Fib::TunnelFib& fib);

// For each encapsulation id the number of vias, primary and backup, that carry it. O(FIB).
std::map<Fib::EncapId, std::uint32_t> encapRefCounts(const Fib::TunnelFib& fib);

// {"tunnel": ..., "vias": [...], "backupVias": [...]}, each of the two sorted.
OrderedJson fibEntryJson(const Fib::TunnelFib& fib, const Fib::TunnelFibEntry& entry);
// The fields of an encapsulation's record, without its type.
OrderedJson encapFieldsJson(const Encap& encap);

}  // namespace Agent
