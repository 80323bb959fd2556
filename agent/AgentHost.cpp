#include "agent/AgentHost.h"

#include <utility>

#include "tunnel_table_sm/TunnelFibSm.h"
#include "tunnel_table_sm/TunnelRibConfigDirSm.h"
#include "tunnel_table_sm/TunnelTracing.h"

namespace Agent {

AgentHost::AgentHost(const Quor::TimeSource& time, Quor::SlicePolicy& slicePolicy)
    : AgentHost(time, slicePolicy, Zol::make<Statehub::EntityManager>()) {
  ribConfigs_->configIs(defaultSystemConfig());
  start();
}

AgentHost::AgentHost(const Quor::TimeSource& time, Quor::SlicePolicy& slicePolicy,
                     Zol::Ptr<Statehub::EntityManager> entityManager)
    : AgentState(std::move(entityManager), Statehub::Access::write),
      scheduler_(Zol::make<Quor::TaskScheduler>(time, slicePolicy)),
      tableInfos_(below<Model::TunnelTableInfoCollection>("tableInfo")),
      ribConfigs_(below<Model::TunnelRibConfigDir>("ribConfig")),
      bgpLuConvergence_(below<Model::BgpLuConvergence>("bgpLuConvergence")) {
  Tunnel::fastlogDirectoryIs("");  // questions and runs have a trace file if the environment names one
  for (const TableId table : allTables()) {
    isMountedIs(table, true);
  }
}

void AgentHost::stop() {
  fibSm_ = nullptr;
  ribConfigDirSm_ = nullptr;
}

// A new process describes all tables before it looks at any configuration, so that each table that a RIB's
// configuration names is there. What had been withdrawn is withdrawn again afterwards.
void AgentHost::start() {
  std::vector<TableId> withdrawn;
  for (const TableId table : allTables()) {
    if (!isMounted(table)) {
      withdrawn.push_back(table);
      isMountedIs(table, true);
    }
  }
  startReactors();
  for (const TableId table : withdrawn) {
    isMountedIs(table, false);
  }
}

void AgentHost::startReactors() {
  ZOL_ASSERT(ribConfigDirSm_ == nullptr && fibSm_ == nullptr);
  ribConfigDirSm_ =
      Model::tunnelRibConfigDirSmFactory(rib(0), bgpLuConvergence_, tunnelConvergence(), ribConfigs_, tableInfos_,
                                         entityManager(), protocolRibs(), unprogrammable(), ribIds(), scheduler_);
  const ProtocolTables& all = tables();
  fibSm_ = Model::tunnelFibSmFactory(
      fib(), unprogrammable(), all.table<Model::BgpLuTunnelTable>(), all.table<Model::LdpTunnelTable>(),
      all.table<Model::SrTunnelTable>(), all.table<Model::BgpLuPushTunnelTable>(),
      all.table<Model::StaticTunnelTable>(), all.table<Model::SrTeSegmentListTunnelTable>(),
      all.table<Model::RsvpTunnelTable>(), all.table<Model::GreIntfTunnelTable>(),
      all.table<Model::IpsecVtiIntfTunnelTable>(), all.table<Model::IpsecGreIntfTunnelTable>(),
      all.table<Model::NexthopGroupTunnelTable>(), all.table<Model::TiLfaTunnelTable>(), scheduler_);
}

template <class F>
void AgentHost::forEachRibBuilder(F&& f) const {
  for (auto sm = ribConfigDirSm_->tunnelRibSm().begin(); sm; ++sm) {
    if (const auto& builder = sm.value()->tunnelRibBuilderSm()) {
      f(*builder);
    }
  }
}

std::size_t AgentHost::heldUp() const {
  if (ribConfigDirSm_ == nullptr) {
    return 0;
  }
  std::size_t all = fibSm_->heldUp();
  forEachRibBuilder([&all](const auto& builder) { all += builder.heldUp(); });
  return all;
}

bool AgentHost::isDrained() const {
  bool isDrained = fibSm_->tunnelForReviews() == 0;
  forEachRibBuilder([&isDrained](const auto& builder) { isDrained = isDrained && builder.isDrained(); });
  return isDrained;
}

bool AgentHost::isMounted(TableId table) const { return tableInfos_->tunnelTableInfo().has(Zol::stringOf(table)); }

void AgentHost::isMountedIs(TableId table, bool isMounted) {
  const std::string name = Zol::stringOf(table);
  if (isMounted) {
    tableInfos_->tunnelTableInfoIs(name, Model::tunnelTableInfo(table));
  } else {
    tableInfos_->tunnelTableInfoDel(name);
  }
}

Zol::Ptr<Model::TunnelRibConfig> defaultSystemConfig() {
  std::map<TableId, std::optional<Model::TunnelEntryPref>> all;
  for (const TableId table : ribTables) {
    all[table];
  }
  return ribConfig(Model::TunnelRibNameIdMap::systemTunnelRibName, all);
}

Zol::Ptr<Model::TunnelRibConfig> ribConfig(const std::string& name,
                                           const std::map<TableId, std::optional<Model::TunnelEntryPref>>& tables) {
  auto config = Zol::make<Model::TunnelRibConfig>(name);
  for (const auto& [table, pref] : tables) {
    config->entryIs(Zol::make<Model::TunnelRibProtoEntry>(table, pref));
  }
  return config;
}

}  // namespace Agent
