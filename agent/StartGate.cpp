#include "agent/StartGate.h"

#include <algorithm>

#include "tunnel/TunnelTableInfo.h"

namespace Agent {
namespace {

using Counts = std::map<Model::TunnelType, std::size_t>;

void countRib(const Model::TunnelRib& rib, Counts& counts) {
  Model::walkSafely(rib, true, [&](const auto& hint) {
    Model::TunnelRibEntry entry;
    if (Model::readSafely(&rib, hint.key(), entry) && entry.tunnelIds() > 0) {
      ++counts[entry.tunnelId(0).tunnelType()];
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
  Model::walkSafely(state.fib()->entry(), true, [this](const auto& hint) { ++held_[hint.key().tunnelType()]; });
  for (const auto& [type, count] : ribs) {
    held_[type] = std::max(held_[type], count);
  }
}

std::vector<std::string> StartGate::waitingFor() const {
  std::vector<std::string> lines;
  for (const TableId table : allTables()) {
    const auto held = held_.find(state_.tables().table(table).tunnelType());
    const std::string trouble = held == held_.end() ? "" : this->trouble(table);
    if (!trouble.empty()) {
      lines.push_back("table " + Zol::stringOf(table) + " " + trouble + ", " + std::to_string(held->second) +
                      " entries came from it");
    }
  }
  return lines;
}

// Why the table cannot be taken for complete; empty: it can.
std::string StartGate::trouble(TableId table) const {
  const Memtab::MirrorStore* const mirror = state_.entityManager()->mirror(Model::tunnelTableInfo(table).path);
  if (mirror == nullptr || (mirror->isBound() && state_.tables().table(table).collectionReady())) {
    return "";
  }
  if (!mirror->trouble().empty()) {
    return "cannot be read (" + mirror->trouble() + ")";
  }
  return mirror->isBound() ? "is not complete" : "is absent";
}

}  // namespace Agent
