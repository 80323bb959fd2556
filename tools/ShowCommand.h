// The commands "tunnelctl show ...": what the tables of a state directory hold, and how they are.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/ProtocolTables.h"
#include "tools/EntryFilter.h"
#include "tools/Rows.h"

namespace Tools {

class Shadow;

struct ListOptions {
  std::string stateDirectory;
  bool isJson = false;
  std::optional<std::uint64_t> limit;
  std::optional<std::string> after;  // the key behind which a list begins; without: at its begin
  EntryFilter filter;
  std::string rib;     // of FIB, table and encapsulations: what is of this RIB's tunnels; empty: all
  std::string reason;  // of unprogrammable tunnels and table entries: one of unprogrammableReasons(); empty: none
};

// Each writes to standard output and returns the exit status: 1 when damaged records had to be left out. They raise
// runtime_error for what is not there or cannot be read, and InputError for options.
//
// Lists of entries come in the tables' own order. O(entries), but O(1) where the filter names the tunnel or endpoint.
// Reasons are those of a shadow.
int showFib(const ListOptions& options);
int showRib(const ListOptions& options, const std::string& name);
int showTable(const ListOptions& options, Agent::TableId table);
int showEncaps(const ListOptions& options);
int showUnprogrammable(const ListOptions& options);

// Flags of vias, where none has one how the tunnel stands, and "any".
std::vector<std::string> unprogrammableReasons();
// The flags of the tunnel's vias; without any, how it stands. Costs a review of it.
std::vector<std::string> reasonsOf(const Shadow& shadow, const Model::TunnelId& tunnel);
// Whether the reason is among them; any: something keeps the tunnel, or a via of it, out of the FIB.
bool hasReason(const std::vector<std::string>& reasons, const std::string& reason);

// What these cost does not depend on the sizes of tables, RIBs and FIB.
int showTables(const ListOptions& options);
int showRibs(const ListOptions& options);
int showConvergence(const ListOptions& options);
int showProcesses(const ListOptions& options);

}  // namespace Tools
