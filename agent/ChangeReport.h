// ChangeReport: what has changed in the RIBs since people were told last.
//
//     + system  10.0.0.5/32  ldpTunnel/5 (55)
//     ~ system  10.0.0.7/32  ldpTunnel/7 (55) -> srTunnel/7 (65)
//     - te      10.0.0.9/32  srTunnel/9 (20)
#pragma once

#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>

#include "agent/AgentHost.h"
#include "agent/StateDocument.h"

namespace Agent {

class ChangeReport {
 public:
  // The host outlives the report. What it holds now counts as told. Narrowed as a document is.
  ChangeReport(const AgentHost& host, DocumentFilter filter);
  ~ChangeReport();

  // Writes the changes below a line that begins with title; nothing when there are none. At most linesMax lines of
  // changes, then how many more there are. O(changes), apart from RIBs that are new.
  void write(std::ostream& out, const std::string& title, bool isColoured);
  static constexpr std::size_t linesMax = 40;

 private:
  class RibWatch;
  struct Change {
    char sign;
    std::string rib;
    std::string tep;
    std::string what;
  };

  std::vector<Change> takeChanges();
  void followRibs(std::vector<Change>& changes);

  const AgentHost& host_;
  const DocumentFilter filter_;
  std::map<std::string, std::unique_ptr<RibWatch>> watches_;  // by RIB name
};

// "ldpTunnel/5, ldpTunnel/6 (55)"; of more than four tunnels the first three, in the order of ids, and their number.
std::string summaryOf(const Model::TunnelRibEntry& entry);

}  // namespace Agent
