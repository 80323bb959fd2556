// Explanation: why a tunnel is, or is not, in the FIB and in each RIB. Facts only, found by the state machines' own
// calculations; ExplanationText and ExplanationJson say them.
//
// A tunnel that resolves through others stands or falls with them, so they are explained too:
//
//     srTunnel/9 ──via──▶ ldpTunnel/5 ──via──▶ if12
//          └──────via──▶ srTunnel/8 ──via──▶ ldpTunnel/5       each tunnel once, however many ways lead to it
//
// Vias into a cycle are not followed, nor those that were not looked at. What is followed has therefore no cycle.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agent/FibView.h"
#include "tunnel_table_sm/TunnelFibSm.h"
#include "tunnel_table_sm/TunnelRibConfigDirSm.h"

namespace Agent {

namespace Model = Tunnel::TunnelTable;

enum class FibStanding {
  programmed,
  waiting,  // for review: the rest is preliminary
  noTableEntry,
  notContributing,  // BGP says so
  noPush,           // the entry's label operation is another one
  noVias,
  tooManyVias,
  tooManyBackupVias,
};

struct ExplainedTunnel {
  FibStanding standing = FibStanding::programmed;
  Model::TunnelFibFinding finding;
  std::vector<FibVia> vias;  // as the FIB has them
  std::vector<FibVia> backupVias;
};

enum class RibStanding {
  inEntry,
  lost,           // another source has the endpoint's entry
  entryFull,      // waits for one of the entry's tunnels to leave
  waiting,        // for review
  tableNotTaken,  // the RIB's configuration does not name the table
  tableNotMounted,
  otherType,  // tunnels of this type are in no RIB
  noTableEntry,
  noTep,
  notContributing,
  unprogrammable,
};

struct ExplainedRib {
  std::string name;
  RibStanding standing = RibStanding::otherType;
  // What follows is known of a candidate only: inEntry, lost, entryFull.
  Ipkit::IpGenPrefix tep;
  Model::TunnelEntryPref pref = 0;       // what it counts with in this RIB
  std::vector<Model::TunnelId> tunnels;  // of the endpoint's entry, ascending
  // The best tunnel of another source at the endpoint, and the comparison with it: as the candidate when lost, else as
  // the existing one. None: there is no other source.
  std::optional<Model::TunnelId> rival;
  Model::TunnelEntryPref rivalPref = 0;
  Model::SourceComparison comparison;
};

// Which vias lead from an explained tunnel to the next one.
enum class Follow {
  ways,    // all
  causes,  // those that yield nothing because the next level has nothing
};
// The tunnel that the via is followed to, if it is.
std::optional<Model::TunnelId> followed(const Model::TunnelFibFinding::FoundVia& via, Follow follow);

struct Explanation {
  Model::TunnelId tunnel;
  std::map<Model::TunnelId, ExplainedTunnel> tunnels;  // the tunnel and those that it was followed to
  std::vector<ExplainedRib> ribs;                      // by id
};

// Changes nothing. Good for the moment; what waits for review is said to. Costs one review of each explained tunnel.
Explanation explain(const Model::TunnelFibSm& fib, const Model::TunnelRibConfigDirSm& ribs,
                    const Model::TunnelRibNameIdMap& ribIds, const Model::TunnelId& tunnel, Follow follow);

// The tables that can hold tunnels of the type: three share the interface tunnels, some types have none.
std::vector<Model::TunnelTableIdentifier> tablesOf(Model::TunnelType type);

// The words that documents use.
std::string stringValue(FibStanding standing);
std::string stringValue(RibStanding standing);
std::string stringValue(Model::SourceComparison::By by);
std::string stringValue(Model::JoinObstacle obstacle);

}  // namespace Agent
