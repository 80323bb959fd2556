// TunnelFibFinding: what a review of one tunnel would find now, with the reason for every via. A review keeps the union
// of the reasons only; a finding is for whoever asks why.
#pragma once

#include <optional>
#include <vector>

#include "tunnel/TunnelFibCalcResult.h"
#include "tunnel_table_sm/TunnelFibViaCalc.h"

namespace Tunnel::TunnelTable {

// What stands against writing a computed entry; nothing: it can be written.
struct FibEntryObstacles {
  bool noVias = false;
  bool tooManyVias = false;
  bool tooManyBackupVias = false;

  bool any() const { return noVias || tooManyVias || tooManyBackupVias; }
};
FibEntryObstacles fibEntryObstacles(const ConsolidatedTunnelFibEntry& consFibEntry);

struct TunnelFibFinding {
  // A via of the next level that could not be joined.
  struct RefusedVia {
    TunnelFibReview::JoinableVia via;
    JoinObstacle obstacle = JoinObstacle::none;
  };
  // An MPLS via of the table entry.
  struct FoundVia {
    MplsVia via;
    std::optional<TunnelId> nextLevel;  // none: leaves directly, or the interface stands for no tunnel that can be
    TunnelFibViaCalcResult result;
    // Not looked at: the vias before it are too many already, or the next level is as an earlier run left it.
    bool isSkipped = false;
    std::size_t nextLevelVias = 0;  // how many the next level has to offer
    std::vector<RefusedVia> refused;
  };

  TunnelTableEntry head;  // of the table entry; empty when there is none
  TunnelFibCalcResult result;
  bool pushesOnly = true;            // false: the label operation is another one, and no via is used
  std::vector<FoundVia> vias;        // in the entry's order; none for interface tunnels and nexthop groups
  std::vector<TunnelId> cycle;       // the tunnels on a cycle with this one, itself included: ascending
  ConsolidatedTunnelFibEntry entry;  // what would be written
  FibEntryObstacles obstacles;
  bool isWaiting = false;  // for its review, or for that of a next level
};

}  // namespace Tunnel::TunnelTable
