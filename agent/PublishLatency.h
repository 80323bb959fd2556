// PublishLatency: how long published changes take to reach the FIB. Measured is the time from the moment when the agent
// is told that a tunnel's table entry has changed until that tunnel's FIB entry is written or deleted. It does not
// contain how long the change lay in the shared table before the agent looked (the backlog of unread changes is counted
// by itself), nor what follows for tunnels that resolve through this one.
//
// A sample is measured: a small table of probes has one place for each value of a few bits of the id's hash, and a
// change whose place is taken is not measured. So a flood of changes costs a look at one place each, and one change at
// a time is always measured. A probe whose tunnel was reviewed without a change of its FIB entry is given up.
#pragma once

#include <array>
#include <cstddef>
#include <deque>

#include "agent/AgentHost.h"
#include "runtime/Quor/Histogram.h"
#include "runtime/Zol/Channel.h"

namespace Agent {

class PublishLatency {
 public:
  // Watches the tables and the FIB of the host, which outlives this.
  explicit PublishLatency(const AgentHost& host);

  const Quor::Histogram& histogram() const { return histogram_; }
  // Gives up probes that have become useless; once a turn of the loop.
  void look();

 private:
  static constexpr unsigned placesLog2 = 8;

  struct Watch final : Zol::Listener<Model::TunnelId> {
    using Handler = void (PublishLatency::*)(const Model::TunnelId& id);
    Watch(PublishLatency& owner, Handler doHandle, Zol::Channel<Model::TunnelId>& channel)
        : latency(owner), handler(doHandle) {
      channelIs(&channel);
    }
    void onKey(const Model::TunnelId& id) override { (latency.*handler)(id); }
    PublishLatency& latency;
    const Handler handler;
  };
  struct Probe {
    Model::TunnelId id;  // zero: the place is free
    double since = 0;
  };

  void handleTableEntry(const Model::TunnelId& id);
  void handleFibEntry(const Model::TunnelId& id);
  Probe& placeOf(const Model::TunnelId& id);
  void giveUp(Probe& probe);

  const AgentHost& host_;
  std::array<Probe, 1U << placesLog2> probes_;
  std::size_t taken_ = 0;
  Quor::Histogram histogram_;
  std::deque<Watch> watches_;
};

}  // namespace Agent
