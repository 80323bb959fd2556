// WhatIf: failures played to a shadow, and taken back.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tools/Shadow.h"

namespace Tools {

// Puts everything back as it was.
using Undo = std::function<void()>;

// The interface fails: its vias, primary and backup, go from every table entry, and with the last of both the entry; so
// do entries of its nexthop group. Returns how to take that back; entries is the number of table entries that it
// concerned. O(tables).
Undo failIntf(const Agent::ProtocolTables& tables, Ipkit::IntfId intf, std::size_t& entries);

// The tunnel's entry goes; of an interface tunnel those of all its tables. entries 0: there is none.
Undo failTunnel(const Agent::ProtocolTables& tables, const Model::TunnelId& tunnel, std::size_t& entries);

// The ordinary interfaces that table entries leave through, those of the fewest vias first. O(tables).
std::vector<Ipkit::IntfId> intfsOf(const Agent::ProtocolTables& tables);

// What the failure of one interface costs.
struct IntfCost {
  Ipkit::IntfId intf;
  std::size_t entries = 0;        // table entries with a via over it
  std::size_t lost = 0;           // FIB entries that go
  std::size_t changed = 0;        // FIB entries that lose or change vias
  std::size_t endpointsLost = 0;  // of the system RIB
};

// Each interface by itself, the most tunnels lost first, then the most changed. Of the shadow nothing more may be
// asked: the interface that costs most to take back stays failed.
std::vector<IntfCost> intfCosts(Shadow& shadow);

}  // namespace Tools
