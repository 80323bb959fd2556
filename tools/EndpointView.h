// EndpointView: the tunnels of one endpoint as each RIB of a shadow sees them, those in its entry first, and what keeps
// the others out of the FIB, down to the causes.
#pragma once

#include <string>
#include <vector>

#include "agent/Explanation.h"
#include "agent/JsonText.h"
#include "agent/TextTree.h"
#include "tools/Shadow.h"

namespace Tools {

using Agent::OrderedJson;

class EndpointView {
 public:
  // O(tables).
  EndpointView(const Shadow& shadow, const Ipkit::IpGenPrefix& tep);

  // No table has a tunnel to it.
  bool isEmpty() const { return ribs_.empty(); }
  OrderedJson json() const;
  Agent::TextTree tree() const;

 private:
  struct Row {
    Model::TunnelId tunnel;
    std::string words;
    OrderedJson json;
  };
  struct Rib {
    std::string name;
    std::vector<Row> winners;
    std::vector<Row> losers;
  };
  void add(const Agent::Explanation& explanation);
  Rib& ribOf(const std::string& name);

  const Ipkit::IpGenPrefix tep_;
  std::vector<Rib> ribs_;
  std::vector<Model::TunnelId> missing_;  // not in the FIB
  Agent::Explanation causes_;             // of these
};

// The explanation of a tunnel by the shadow, followed to the causes of what is missing.
Agent::Explanation explained(const Shadow& shadow, const Model::TunnelId& tunnel);

}  // namespace Tools
