#include "agent/PublishLatency.h"

namespace Agent {

PublishLatency::PublishLatency(const AgentHost& host) : host_(host) {
  forEachNamedTable([this](auto named) {
    watches_.emplace_back(*this, &PublishLatency::handleTableEntry,
                          host_.tables().table<typename decltype(named)::Table>()->entryChannel());
  });
  watches_.emplace_back(*this, &PublishLatency::handleFibEntry, host_.fib()->entryChannel());
}

PublishLatency::Probe& PublishLatency::placeOf(const Model::TunnelId& id) {
  return probes_[id.hash() >> (32 - placesLog2)];
}

void PublishLatency::handleTableEntry(const Model::TunnelId& id) {
  Probe& probe = placeOf(id);
  if (!probe.id && host_.fibSm() != nullptr) {
    probe = {id, host_.scheduler()->now()};
    ++taken_;
  }
}

void PublishLatency::handleFibEntry(const Model::TunnelId& id) {
  if (taken_ == 0) {
    return;
  }
  Probe& probe = placeOf(id);
  if (probe.id == id) {
    histogram_.add(host_.scheduler()->now() - probe.since);
    giveUp(probe);
  }
}

void PublishLatency::giveUp(Probe& probe) {
  probe = {};
  --taken_;
}

void PublishLatency::look() {
  if (taken_ == 0) {
    return;
  }
  for (Probe& probe : probes_) {
    if (!!probe.id && (host_.fibSm() == nullptr || !host_.fibSm()->isWaiting(probe.id))) {
      giveUp(probe);
    }
  }
}

}  // namespace Agent
