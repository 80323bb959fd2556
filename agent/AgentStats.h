// What an agent measures of itself, as the control socket tells it. Collected when asked; until then it is a few
// integers that the code beneath counts anyway.
#pragma once

#include <string>
#include <vector>

#include "agent/AgentHost.h"
#include "agent/ControlSocket.h"
#include "agent/JsonText.h"
#include "agent/PublishLatency.h"
#include "runtime/Quor/EventLoop.h"
#include "tunnel_table_sm/TableScrubber.h"

namespace Agent {

struct StatsSources {
  const AgentHost& host;
  const Quor::EventLoop& loop;
  const PublishLatency& latency;
  const ControlSocket* control;  // null: the agent has none
  double startedAt;              // in the scheduler's time
  std::string state;             // "waiting", "starting", "ready", "degraded"
  std::vector<std::string> waitingFor;
  std::vector<std::string> degraded;
  Model::TableScrubber::Counters scrub;
};

// The document that docs/control.md describes. O(RIBs).
OrderedJson statsJson(const StatsSources& sources);

}  // namespace Agent
