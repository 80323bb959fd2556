#include "agent/Explanation.h"

#include "agent/ProtocolTables.h"
#include "agent/StateDocument.h"

namespace Agent {
namespace {

FibStanding standingOf(const Model::TunnelFibFinding& finding) {
  if (finding.result.tunnelTableEntryDeleted()) {
    return FibStanding::noTableEntry;
  }
  if (!finding.result.tunnelContributing()) {
    return FibStanding::notContributing;
  }
  if (finding.isWaiting) {
    return FibStanding::waiting;
  }
  if (!finding.pushesOnly) {
    return FibStanding::noPush;
  }
  if (finding.obstacles.noVias) {
    return FibStanding::noVias;
  }
  if (finding.obstacles.tooManyVias) {
    return FibStanding::tooManyVias;
  }
  return finding.obstacles.tooManyBackupVias ? FibStanding::tooManyBackupVias : FibStanding::programmed;
}

ExplainedTunnel explainTunnel(const Model::TunnelFibSm& sm, const Model::TunnelId& tunnel) {
  ExplainedTunnel result;
  result.finding = sm.finding(tunnel);
  result.standing = standingOf(result.finding);
  const Fib::TunnelFib& fib = *sm.tunnelFib();
  Fib::TunnelFibEntry entry;
  if (Model::readSafely(&fib.entry(), tunnel, entry)) {
    result.vias = sortedVias(fib, entry.tunnelVia());
    result.backupVias = sortedVias(fib, entry.backupTunnelVia());
  }
  return result;
}

// Why the RIB's tables have no such tunnel.
RibStanding whyNoTableEntry(const Model::TunnelRibBaseSm& sm, const Model::TunnelId& tunnel) {
  for (const TableId table : tablesOf(tunnel.tunnelType())) {
    if (!sm.tunnelRibConfig()->entry(table)) {
      return RibStanding::tableNotTaken;
    }
    if (!sm.tunnelTableEntities()->tunnelTableHas(Zol::stringOf(table))) {
      return RibStanding::tableNotMounted;
    }
  }
  return RibStanding::noTableEntry;
}

RibStanding standingOf(Model::RibAdmission admission) {
  switch (admission) {
    case Model::RibAdmission::otherType:
      return RibStanding::otherType;
    case Model::RibAdmission::noTableEntry:
      return RibStanding::noTableEntry;
    case Model::RibAdmission::noTep:
      return RibStanding::noTep;
    case Model::RibAdmission::notContributing:
      return RibStanding::notContributing;
    case Model::RibAdmission::unprogrammable:
      return RibStanding::unprogrammable;
    case Model::RibAdmission::admitted:
      break;
  }
  return RibStanding::waiting;
}

// The best candidate of another source, if there is one, for a tunnel that is in the endpoint's entry.
void compareWithNext(const Model::TunnelRibBuilderSm& builder, const Model::TunnelId& tunnel, ExplainedRib& rib) {
  const auto candidates = builder.internalTunnelRib()->entry(rib.tep);
  if (!candidates) {
    return;
  }
  for (auto it = candidates->entry().begin(); it; ++it) {
    const Model::TunnelId& other = it.key().tunnelId();
    const auto comparison = Model::compareSources(tunnel.tunnelType(), rib.pref, other.tunnelType(), it.key().pref());
    if (comparison.by != Model::SourceComparison::By::sideBySide) {
      rib.rival = other;
      rib.rivalPref = it.key().pref();
      rib.comparison = comparison;
      return;
    }
  }
}

void compareWithEntry(const Model::TunnelRibEntry& entry, const Model::TunnelId& tunnel, ExplainedRib& rib) {
  const Model::TunnelId winner = entry.smallestTunnelId();
  const auto comparison = Model::compareSources(winner.tunnelType(), entry.pref(), tunnel.tunnelType(), rib.pref);
  if (comparison.by == Model::SourceComparison::By::sideBySide) {
    rib.standing = entry.isFull() ? RibStanding::entryFull : RibStanding::waiting;
    return;
  }
  rib.standing = comparison.doesCandidateWin() ? RibStanding::waiting : RibStanding::lost;
  rib.rival = winner;
  rib.rivalPref = entry.pref();
  rib.comparison = comparison;
}

ExplainedRib explainRib(const std::string& name, const Model::TunnelRibBaseSm& sm, const Model::TunnelId& tunnel) {
  const Model::TunnelRibBuilderSm& builder = *sm.tunnelRibBuilderSm();
  ExplainedRib rib;
  rib.name = name;
  const auto entry = Model::EncapsulatedTableEntry::getEntry(tunnel, *builder.tunnelTableEntities());
  rib.standing = standingOf(builder.admission(entry));
  if (rib.standing == RibStanding::noTableEntry) {
    rib.standing = whyNoTableEntry(sm, tunnel);
  }
  if (rib.standing != RibStanding::waiting || builder.tunnelForReview().has(tunnel)) {
    return rib;
  }
  rib.tep = entry.entry().tep();
  rib.pref = builder.getPreference(entry.entry());
  Model::TunnelRibEntry ribEntry;
  if (!Model::readSafely(builder.tunnelRib().get(), rib.tep, ribEntry)) {
    return rib;
  }
  rib.tunnels = sortedTunnelIds(ribEntry);
  if (ribEntry.hasTunnelId(tunnel)) {
    rib.standing = RibStanding::inEntry;
    compareWithNext(builder, tunnel, rib);
  } else {
    compareWithEntry(ribEntry, tunnel, rib);
  }
  return rib;
}

// The word at the place of value.
template <class Enum, std::size_t count>
std::string wordOf(Enum value, const char* const (&words)[count]) {
  const auto place = static_cast<std::size_t>(value);
  ZOL_ASSERT(place < count);
  return words[place];
}

}  // namespace

Explanation explain(const Model::TunnelFibSm& fib, const Model::TunnelRibConfigDirSm& ribs,
                    const Model::TunnelRibNameIdMap& ribIds, const Model::TunnelId& tunnel, Follow follow) {
  Explanation result;
  result.tunnel = tunnel;
  std::vector<Model::TunnelId> waiting{tunnel};
  while (!waiting.empty()) {
    const Model::TunnelId next = waiting.back();
    waiting.pop_back();
    const auto [at, isNew] = result.tunnels.try_emplace(next);
    if (isNew) {
      at->second = explainTunnel(fib, next);
      for (const auto& via : at->second.finding.vias) {
        if (const auto to = followed(via, follow)) {
          waiting.push_back(*to);
        }
      }
    }
  }
  std::map<Model::TunnelRibId, std::string> names;
  for (const auto& [name, id] : ribIds.tunnelRibNames()) {
    names[id] = name;
  }
  for (const auto& [id, name] : names) {
    const Zol::Ptr<Model::TunnelRibBaseSm>* const sm = ribs.tunnelRibSm().find(id);
    if (sm != nullptr && (*sm)->tunnelRibBuilderSm()) {
      result.ribs.push_back(explainRib(name, **sm, tunnel));
    }
  }
  return result;
}

std::optional<Model::TunnelId> followed(const Model::TunnelFibFinding::FoundVia& via, Follow follow) {
  const bool isEnd = via.isSkipped || via.result.recTunCycle() || (follow == Follow::causes && via.nextLevelVias > 0);
  return isEnd ? std::nullopt : via.nextLevel;
}

std::vector<TableId> tablesOf(Model::TunnelType type) {
  std::vector<TableId> tables;
  forEachNamedTable([&](auto named) {
    if (decltype(named)::Table::tableTunnelType == type) {
      tables.push_back(named.id);
    }
  });
  return tables;
}

std::string stringValue(FibStanding standing) {
  return wordOf(standing, {"programmed", "waiting", "noTableEntry", "notContributing", "noPush", "noVias",
                           "tooManyVias", "tooManyBackupVias"});
}

std::string stringValue(RibStanding standing) {
  return wordOf(standing, {"inEntry", "lost", "entryFull", "waiting", "tableNotTaken", "tableNotMounted", "otherType",
                           "noTableEntry", "noTep", "notContributing", "unprogrammable"});
}

std::string stringValue(Model::SourceComparison::By by) {
  return wordOf(by, {"sideBySide", "preference", "defaultPreference"});
}

std::string stringValue(Model::JoinObstacle obstacle) {
  return wordOf(obstacle, {"none", "labelStackTooLarge", "noLabelStack"});
}

}  // namespace Agent
