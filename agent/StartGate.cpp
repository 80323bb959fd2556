#include "agent/StartGate.h"

#include <algorithm>

#include "agent/Explanation.h"
#include "agent/InputError.h"
#include "tunnel/TunnelTableInfo.h"

namespace Agent {
namespace {

using Counts = std::map<TableId, std::size_t>;

// The table of an interface tunnel is told by what wraps its packets; without any it is one of three.
std::vector<TableId> sourcesOf(const Model::TunnelFibEntry& entry) {
  const auto encap = entry.tunnelVias() == 0 ? Fib::EncapType::invalid : entry.tunnelVia(0).encapId().encapType();
  if (entry.tunnelId().tunnelType() == Model::TunnelType::l3IntfTunnel) {
    switch (encap) {
      case Fib::EncapType::gre:
        return {TableId::greTunnelInterface};
      case Fib::EncapType::ipsecVti:
        return {TableId::ipsecVtiTunnelInterface};
      case Fib::EncapType::ipsecGre:
        return {TableId::ipsecGreTunnelInterface};
      case Fib::EncapType::labelStack:
      case Fib::EncapType::invalid:
        break;
    }
  }
  return tablesOf(entry.tunnelId().tunnelType());
}

void countRib(const Model::TunnelRib& rib, Counts& counts) {
  Model::walkSafely(rib, [&](const auto& hint) {
    Model::TunnelRibEntry entry;
    if (Model::readSafely(&rib, hint.key(), entry) && entry.tunnelIds() > 0) {
      for (const TableId table : tablesOf(entry.tunnelId(0).tunnelType())) {
        ++counts[table];
      }
    }
  });
}

}  // namespace

StartGate::StartGate(const AgentState& state) : state_(state) {
  Counts ribs;
  for (const auto& [name, id] : state.ribIds()->tunnelRibNames()) {
    if (const auto rib = state.rib(id)) {
      countRib(*rib, ribs);
    }
  }
  if (state.ribIds()->tunnelRibNames().empty()) {
    countRib(*state.rib(0), ribs);
  }
  Model::walkSafely(state.fib()->entry(), [&](const auto& hint) {
    Model::TunnelFibEntry entry(hint.key());
    Model::readSafely(&state.fib()->entry(), hint.key(), entry);
    for (const TableId table : sourcesOf(entry)) {
      ++held_[table];
    }
  });
  for (const auto& [table, count] : ribs) {
    held_[table] = std::max(held_[table], count);
  }
}

std::vector<std::string> StartGate::waitingFor() const {
  std::vector<std::string> lines;
  for (const TableId table : allTables()) {
    const auto held = held_.find(table);
    const std::string trouble = held == held_.end() ? "" : this->trouble(table);
    if (!trouble.empty()) {
      lines.push_back("table " + Zol::stringOf(table) + " " + trouble + ", " +
                      counted(held->second, "entry", "entries") + " came from it");
    }
  }
  return lines;
}

// Why the table cannot be taken for complete; empty: it can.
std::string StartGate::trouble(TableId table) const {
  const Memtab::MirrorStore* const mirror = state_.entityManager()->mirror(Model::tunnelTableInfo(table).path);
  if (mirror == nullptr || (mirror->isCurrent() && state_.tables().table(table).collectionReady())) {
    return "";
  }
  if (!mirror->trouble().empty()) {
    return "cannot be read (" + mirror->trouble() + ")";
  }
  return mirror->isBound() ? "is not complete" : "is absent";
}

}  // namespace Agent
