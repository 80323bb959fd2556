// InputDamage: tunnels and endpoints that depend on unreadable records of the protocols' tables. A running agent keeps
// what came from such a record, and a shadow lacks it: they differ, and neither is wrong.
//
//   records that cannot be read ──▶ their tunnels ──▶ tunnels that resolve through them ──▶ endpoints of all of them
#pragma once

#include <set>
#include <string>
#include <vector>

#include "tools/StateComparison.h"
#include "tools/StateReading.h"

namespace Tools {

class InputDamage {
 public:
  // O(tables) where a table is damaged, else O(1): the tables must have been walked before.
  explicit InputDamage(StateReading& reading);

  bool any() const { return !lines_.empty(); }
  // Whether a whole part of a table cannot be read: then nothing can be judged.
  bool isWhole() const { return isWhole_; }
  struct Line {
    std::string table;
    std::string text;
  };
  // "table ldp (/run/.../ldp): damaged: checksum differs; cannot be judged: ldpTunnel/5, srTunnel/9, 10.0.0.5/32"
  const std::vector<Line>& lines() const { return lines_; }
  // The same of the table whose record of the tunnel cannot be read; empty: it can be read, or there is none.
  std::string lineOf(const Model::TunnelId& tunnel) const;
  bool affects(const Difference& difference) const { return affected_.contains(difference.key); }
  bool affects(const std::string& tunnelOrEndpoint) const { return affected_.contains(tunnelOrEndpoint); }

 private:
  struct Damaged {
    std::string name;
    std::string table;  // "table ldp (/run/.../ldp): damaged: checksum differs"
    std::set<Model::TunnelId> tunnels;
  };
  void findTunnels(StateReading& reading, Damaged& damaged, Agent::TableId id);
  void addDependants(StateReading& reading, std::set<Model::TunnelId>& tunnels) const;
  std::set<std::string> endpointsOf(StateReading& reading, const std::set<Model::TunnelId>& tunnels) const;

  std::vector<Damaged> damaged_;
  std::vector<Line> lines_;
  std::set<std::string> affected_;  // tunnels and endpoints
  bool isWhole_ = false;
};

}  // namespace Tools
