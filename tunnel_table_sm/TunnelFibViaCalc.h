// The vias of one tunnel. Those that leave through another tunnel are replaced by the vias of that tunnel's FIB entry,
// with the label stacks joined, so that every written via leaves through a real next hop.
#pragma once

#include <vector>

#include "tunnel/ConsolidatedTunnelFibEntry.h"
#include "tunnel/TunnelFibViaCalcResult.h"
#include "tunnel_table_sm/TunnelFibDependencies.h"

namespace Tunnel::TunnelTable {

class TunnelFibSm;

// What one review collects; made once and used for every review.
struct TunnelFibReview {
  // A via of a next level, ready to be joined.
  struct JoinableVia {
    Via via;
    Ipkit::MplsLabelOperation labelOp;
    EncapType encapType = EncapType::invalid;
  };

  ConsolidatedTunnelFibEntry consFibEntry;
  std::vector<TunnelId> nextLevels;  // direct ones: ascending, without doubles
  std::vector<TunnelId> joined;      // those of them that vias were joined from
  TunnelFibDependencies::Component component = TunnelFibDependencies::noComponent;  // of the reviewed tunnel
  bool hasMoved = false;                 // the direct next levels are not those of the last review
  bool metQueued = false;                // a direct next level was queued for review when this one began
  std::vector<TunnelId> unreviewed;      // next levels whose FIB entry is not what their own review would make of it
  std::vector<TunnelId> unprogrammable;  // next levels known to be so
  TunnelId nextLevel;                    // whose vias are below
  bool isNextLevelRead = false;
  bool isNextLevelAsked = false;  // the last via's was, for its vias
  std::vector<JoinableVia> nextLevelVias;

  void reset(const TunnelId& tunnelId);
  // Whether the tunnel is on a cycle with the reviewed one, which may be itself.
  bool isCyclic(const TunnelFibDependencies& dependencies, const TunnelId& tunnel) const {
    return tunnel == consFibEntry.tunnelId() ||
           (component != TunnelFibDependencies::noComponent && dependencies.component(tunnel) == component);
  }
};

// What stands against putting labels below those of a next level's via.
enum class JoinObstacle { none, labelStackTooLarge, noLabelStack };
JoinObstacle joinObstacle(const Ipkit::MplsLabelOperation& own, const TunnelFibReview::JoinableVia& nextVia);

// Adds what one MPLS via of the reviewed tunnel yields to the review's entry; says what went wrong. The tunnel's direct
// next levels have been recorded before, so that a change of theirs brings it back whatever happens here.
TunnelFibViaCalcResult calculateTunnelFibEntryMplsVia(const TunnelFibSm& sm, TunnelFibReview& review,
                                                      const MplsVia& via);
// Backup vias are taken as they are, never through other tunnels.
void calculateTunnelFibEntryBackupMplsVia(TunnelFibReview& review, const MplsVia& via);

// Whether the interface stands for a tunnel whose id exists. Damaged memory may hold others.
bool isLegalNextLevel(Ipkit::IntfId intf);

}  // namespace Tunnel::TunnelTable
