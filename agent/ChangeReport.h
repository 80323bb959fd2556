// ChangeReport: what has changed since people were told last, in the RIBs and in the FIB.
//
//     + system  10.0.0.5/32     ldpTunnel/5 (55)
//     ~ system  10.0.0.7/32     ldpTunnel/7 (55) -> srTunnel/7 (65)
//     - te      10.0.0.9/32     srTunnel/9 (20)
//     + FIB     ldpTunnel/5     if12 192.0.2.1 [300123]
//     + FIB     srTunnel/9      unprogrammable
#pragma once

#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "agent/AgentHost.h"
#include "agent/StateDocument.h"
#include "agent/TextWatch.h"

namespace Agent {

class ChangeReport {
 public:
  // The host outlives the report. What it holds now counts as told. Narrowed to a RIB or endpoint, the FIB is left out.
  ChangeReport(const AgentHost& host, DocumentFilter filter);

  // Writes the changes below a line that begins with title; nothing when there are none. At most so many lines of RIB
  // and FIB changes, each followed by how many more there are. O(changes), but for RIBs that are new.
  void write(std::ostream& out, const std::string& title, bool isColoured);
  static constexpr std::size_t ribLinesMax = 24;
  static constexpr std::size_t fibLinesMax = 16;

 private:
  struct Change {
    char sign;
    std::string where;
    std::string key;
    std::string words;
  };
  using Changes = std::vector<Change>;
  struct RibWatch {
    RibWatch(Zol::Ptr<Model::TunnelRib> which, TextWatch<Ipkit::IpGenPrefix>::Source source)
        : rib(std::move(which)), watch(std::move(source)) {}
    Zol::Ptr<Model::TunnelRib> rib;
    TextWatch<Ipkit::IpGenPrefix> watch;
  };

  TextWatch<Ipkit::IpGenPrefix>::Source ribSource(const Zol::Ptr<Model::TunnelRib>& rib) const;
  TextWatch<Model::TunnelId>::Source fibSource() const;
  TextWatch<Model::TunnelId>::Source unprogrammableSource() const;
  void followRibs(Changes& changes);
  Changes takeRibChanges();
  Changes takeFibChanges();
  template <class Key>
  static void takeChanges(TextWatch<Key>& watch, const std::string& where, Changes& changes);
  static void write(std::ostream& out, const Changes& changes, std::size_t linesMax, bool isColoured);

  const AgentHost& host_;
  const DocumentFilter filter_;
  std::map<std::string, RibWatch> ribs_;  // by name
  TextWatch<Model::TunnelId> fib_;
  TextWatch<Model::TunnelId> unprogrammable_;
};

// "ldpTunnel/5, ldpTunnel/6 (55)"; of more than four tunnels the first three, in the order of ids, and their number.
std::string summaryOf(const Model::TunnelRibEntry& entry);

}  // namespace Agent
