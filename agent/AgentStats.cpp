#include "agent/AgentStats.h"

#include <unistd.h>

#include <fstream>

#include "agent/CommandLine.h"
#include "tunnel/TunnelTableInfo.h"

namespace Agent {
namespace {

std::uint64_t residentBytes() {
  std::ifstream file("/proc/self/statm");
  std::uint64_t virtualPages = 0;
  std::uint64_t pages = 0;
  file >> virtualPages >> pages;
  return pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

// Buckets count all that took at most so many seconds; the whole count includes what was longer than the last.
OrderedJson histogramJson(const Quor::Histogram& histogram) {
  OrderedJson buckets = OrderedJson::array();
  std::uint64_t count = 0;
  for (std::size_t i = 0; i < Quor::Histogram::bounds; ++i) {
    count += histogram.count(i);
    buckets.push_back({{"seconds", Quor::Histogram::bound(i)}, {"count", count}});
  }
  return {{"count", histogram.count()},
          {"sum", histogram.sum()},
          {"longest", histogram.longest()},
          {"buckets", std::move(buckets)}};
}

// Changes in the protocols' tables that the agent has not been told of yet.
std::uint64_t unreadChanges(const AgentHost& host) {
  std::uint64_t unread = 0;
  for (const TableId table : allTables()) {
    const Memtab::MirrorStore* const mirror = host.entityManager()->mirror(Model::tunnelTableInfo(table).path);
    const std::uint64_t told = host.tables().table(table).collectionControl().sequence();
    if (mirror != nullptr && mirror->isBound() && mirror->reader().sequence() > told) {
      unread += mirror->reader().sequence() - told;
    }
  }
  return unread;
}

OrderedJson backlogJson(const AgentHost& host) {
  OrderedJson ribs = OrderedJson::object();
  if (host.ribConfigDirSm() != nullptr) {
    for (const auto& [name, id] : host.ribIds()->tunnelRibNames()) {
      if (const auto* const sm = host.ribConfigDirSm()->tunnelRibSm().find(id)) {
        const auto& builder = (*sm)->tunnelRibBuilderSm();
        ribs[name] = builder == nullptr ? 0 : builder->tunnelForReview().size();
      }
    }
  }
  const auto& fib = host.fibSm();
  return {{"unreadChanges", unreadChanges(host)},
          {"fib", fib == nullptr ? 0 : fib->tunnelForReviews()},
          {"fibDeferred", fib == nullptr ? 0 : fib->deferredTunnels()},
          {"heldUp", host.heldUp()},
          {"ribs", std::move(ribs)}};
}

// lastPassAge -1: no pass has ended.
OrderedJson scrubJson(const Model::TableScrubber::Counters& scrub, double now) {
  return {{"found", scrub.found},
          {"repaired", scrub.repaired},
          {"passes", scrub.passes},
          {"visited", scrub.visited},
          {"lastPassAge", scrub.passes == 0 ? -1.0 : now - scrub.lastPassAt},
          {"lastPassSeconds", scrub.lastPassSeconds}};
}

OrderedJson controlJson(const ControlSocket* control) {
  if (control == nullptr) {
    return nullptr;
  }
  const ControlSocket::Counters& counters = control->counters();
  return {{"clients", control->clients()},
          {"connections", counters.connections},
          {"requests", counters.requests},
          {"refused", counters.refused},
          {"dropped", counters.dropped}};
}

}  // namespace

OrderedJson statsJson(const StatsSources& sources) {
  const AgentHost& host = sources.host;
  return {{"pid", getpid()},
          {"version", agentVersion},
          {"uptime", host.scheduler()->now() - sources.startedAt},
          {"state", sources.state},
          {"waitingFor", sources.waitingFor},
          {"degraded", sources.degraded},
          {"residentBytes", residentBytes()},
          {"reviews", host.scheduler()->counters().units},  // nothing else counts its work
          {"backlog", backlogJson(host)},
          {"scrub", scrubJson(sources.scrub, host.scheduler()->now())},
          {"slices", histogramJson(sources.loop.slices())},
          {"publishToFib", histogramJson(sources.latency.histogram())},
          {"control", controlJson(sources.control)}};
}

}  // namespace Agent
