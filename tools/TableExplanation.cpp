#include "tools/TableExplanation.h"

#include "tools/TableWalk.h"
#include "tunnel_table_sm/TunnelFibTableEntry.h"

namespace Tools {
namespace {

namespace Model = Tunnel::TunnelTable;

Model::TunnelFibFinding::FoundVia foundVia(const Agent::AgentState& state, const Model::MplsVia& via) {
  Model::TunnelFibFinding::FoundVia found;
  found.via = via;
  if (Model::DynamicTunnelIntfId::isDynamicTunnelIntfId(via.intf()) && via.intf().isLegal()) {
    found.nextLevel = Model::DynamicTunnelIntfId::tunnelId(via.intf());
    Model::TunnelFibEntry next;
    if (Model::readSafely(&state.fib()->entry(), *found.nextLevel, next)) {
      found.nextLevelVias = next.tunnelVias();
    } else {
      const bool isPublished = visitEntry(state.tables(), *found.nextLevel, [](const auto&) {});
      found.result.recTunUnprogrammableIs(isPublished);
      found.result.recTunMissingIs(!isPublished);
    }
  }
  return found;
}

// Why a tunnel that is in a table is not in the FIB.
template <class Entry>
Agent::FibStanding whyNotInFib(const Agent::AgentState& state, const Entry& entry) {
  if (!Model::contributesToTunnelFib(entry)) {
    return Agent::FibStanding::notContributing;
  }
  if (!Model::doesPushOnly(entry)) {
    return Agent::FibStanding::noPush;
  }
  return state.unprogrammable()->has(entry.tunnelId()) ? Agent::FibStanding::noVias : Agent::FibStanding::waiting;
}

}  // namespace

Agent::ExplainedTunnel explainTunnel(const Agent::AgentState& state, const Model::TunnelId& tunnel) {
  Agent::ExplainedTunnel explained;
  explained.standing = Agent::FibStanding::noTableEntry;
  visitEntry(state.tables(), tunnel, [&]<class Entry>(const Entry& entry) {
    explained.finding.head = entry;
    if constexpr (Model::IsMplsTunnel<Entry>) {
      Model::forEachMplsVia(entry,
                            [&](const Model::MplsVia& via) { explained.finding.vias.push_back(foundVia(state, via)); });
    }
    explained.standing = whyNotInFib(state, entry);
  });
  Model::TunnelFibEntry entry;
  if (Model::readSafely(&state.fib()->entry(), tunnel, entry)) {
    explained.standing = Agent::FibStanding::programmed;
    explained.vias = Agent::sortedVias(*state.fib(), entry.tunnelVia());
    explained.backupVias = Agent::sortedVias(*state.fib(), entry.backupTunnelVia());
  }
  return explained;
}

Agent::Explanation explainFromTables(const Agent::AgentState& state, const std::vector<Model::TunnelId>& tunnels) {
  Agent::Explanation result;
  std::vector<Model::TunnelId> waiting = tunnels;
  while (!waiting.empty()) {
    const Model::TunnelId next = waiting.back();
    waiting.pop_back();
    const auto [at, isNew] = result.tunnels.try_emplace(next);
    if (!isNew) {
      continue;
    }
    at->second = explainTunnel(state, next);
    for (const auto& via : at->second.finding.vias) {
      if (const auto to = followed(via, Agent::Follow::ways)) {
        waiting.push_back(*to);
      }
    }
  }
  return result;
}

}  // namespace Tools
