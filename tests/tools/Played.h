// What a run of a whole scenario in one process shows at each settle: what publishers and an agent shall reach too.
#pragma once

#include "agent/AgentHost.h"
#include "agent/ScenarioPlayer.h"
#include "agent/ScenarioReader.h"
#include "runtime/Quor/TimeSlicePolicy.h"
#include "tests/tools/Router.h"

namespace Tools {

// Convergence is announced with the RIB's own sequence number, which depends on how reviews fell together. Where RIBs
// come and go in a scenario, their numbers depend on what was configured in between, which publishers know nothing of.
inline OrderedJson comparable(OrderedJson document, bool isConfiguredOnce = false) {
  document.erase("convergence");
  if (isConfiguredOnce) {
    return document;
  }
  for (OrderedJson& rib : document["ribs"]) {
    rib.erase("id");
  }
  return document;
}

struct Played {
  struct Settled {
    OrderedJson document;  // comparable
    std::string config;    // of the RIBs
    bool isWhole;          // no table is withdrawn, which an agent of processes knows nothing of
  };

  explicit Played(const std::string& file)
      : isConfiguredOnce(Support::contentsOf(file).find("ribDelete") == std::string::npos) {
    std::ifstream in(file);
    Agent::ScenarioReader reader(in, file);
    while (const auto line = reader.next()) {
      player.apply(*line);
      if (std::holds_alternative<Agent::SettleLine>(*line) || std::holds_alternative<Agent::CheckpointLine>(*line)) {
        note();
      }
    }
    player.settle();
    note();
  }
  const Settled& end() const { return settled.back(); }

  const bool isConfiguredOnce;
  Quor::SimulatedTimeSource time;
  Quor::TimeSlicePolicy slicePolicy{time};
  Agent::AgentHost host{time, slicePolicy};
  Agent::ScenarioPlayer player{host, time};
  std::vector<Settled> settled;  // each settle and checkpoint, and the end

 private:
  void note() {
    std::string config;
    for (auto it = host.ribConfigs()->config().begin(); it; ++it) {
      config += Agent::ribLineText(*it.value()) + "\n";
    }
    const auto& tables = Agent::allTables();
    settled.push_back(
        {comparable(withoutEncapIndexes(Agent::stateDocument(host)), isConfiguredOnce), config,
         std::all_of(tables.begin(), tables.end(), [this](auto table) { return host.isMounted(table); })});
  }
};

}  // namespace Tools
