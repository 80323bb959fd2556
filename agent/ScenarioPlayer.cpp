#include "agent/ScenarioPlayer.h"

#include "agent/InputError.h"
#include "runtime/Quor/SimulatedLoop.h"

namespace Agent {
namespace {

constexpr const char* systemName = Model::TunnelRibNameIdMap::systemTunnelRibName;

}  // namespace

void ScenarioPlayer::apply(const ScenarioLine& line) {
  std::visit([this](const auto& each) { doApply(each); }, line);
}

void ScenarioPlayer::settle() { Quor::settle(*host_.scheduler(), time_); }

void ScenarioPlayer::doApply(const RibLine& line) {
  if (line.name != systemName) {
    // The mapper of a custom RIB's preferences relies on it.
    for (const auto& [table, pref] : line.tables) {
      if (!host_.isMounted(table)) {
        throw InputError("tables." + Zol::stringOf(table), "not mounted");
      }
    }
  }
  host_.ribConfigs()->configIs(ribConfig(line.name, line.tables));
}

void ScenarioPlayer::doApply(const RibDeleteLine& line) {
  if (line.name == systemName) {
    throw InputError("ribDelete", "the system RIB cannot be removed");
  }
  if (!host_.ribConfigs()->config().has(line.name)) {
    throw InputError("ribDelete", "no RIB '" + printable(line.name) + "' is configured");
  }
  host_.ribConfigs()->configDel(line.name);
}

void ScenarioPlayer::doApply(const PutLine& line) {
  try {
    putEntry(host_.tables(), line.table, line.entry);
  } catch (const Zol::RangeException& refused) {
    throw InputError("put", printable(refused.what(), 200));
  }
}

void ScenarioPlayer::doApply(const DeleteLine& line) {
  if (!hasEntry(host_.tables(), line.table, line.index)) {
    throw InputError("delete", Zol::stringOf(line.table) + " has no entry " + std::to_string(line.index));
  }
  deleteEntry(host_.tables(), line.table, line.index);
}

void ScenarioPlayer::doApply(const MountLine& line) { host_.isMountedIs(line.table, line.isMounted); }

void ScenarioPlayer::doApply(const ConvergedLine& line) {
  const auto& bgpLu = host_.tables().table(TableId::bgpLu);
  host_.bgpLuConvergence()->bgpLuConvergedIs(line.isConverged,
                                             line.seqno.value_or(bgpLu.collectionControl().sequence()));
}

void ScenarioPlayer::doApply(const AdvanceLine& line) { Quor::advance(*host_.scheduler(), time_, line.seconds); }

}  // namespace Agent
