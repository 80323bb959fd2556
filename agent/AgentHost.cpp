#include "agent/AgentHost.h"

#include <utility>

#include "tunnel_table_sm/TunnelFibSm.h"
#include "tunnel_table_sm/TunnelRibConfigDirSm.h"

namespace Agent {
namespace {

// An entity of that name in the tree below root.
template <class T, class... Args>
Zol::Ptr<T> below(const Zol::Ptr<Zol::Entity>& root, Args&&... args) {
  Zol::Ptr<T> entity = Zol::make<T>(std::forward<Args>(args)...);
  entity->parentIs(root.get());
  return entity;
}

}  // namespace

AgentHost::AgentHost(const Quor::TimeSource& time, Quor::SlicePolicy& slicePolicy)
    : scheduler_(Zol::make<Quor::TaskScheduler>(time, slicePolicy)),
      entityManager_(Zol::make<Statehub::EntityManager>()),
      tables_(*entityManager_),
      tableInfos_(below<Model::TunnelTableInfoCollection>(root_, "tableInfo")),
      ribConfigs_(below<Model::TunnelRibConfigDir>(root_, "ribConfig")),
      bgpLuConvergence_(below<Model::BgpLuConvergence>(root_, "bgpLuConvergence")),
      ribIds_(below<Model::TunnelRibNameIdMap>(root_, "ribIds")),
      tunnelConvergence_(below<Model::TunnelConvergence>(root_, "convergence")),
      systemRib_(below<Model::TunnelRib>(root_, "systemRib")),
      protocolRibs_(below<Model::ProtocolTunnelRibCollection>(root_, "protocolRibs")),
      unprogrammable_(below<Model::TunnelIdColl>(root_, "unprogrammable")),
      fib_(below<Tunnel::TunnelFib::TunnelFib>(root_, "fib")) {
  for (const TableId table : allTables()) {
    isMountedIs(table, true);
  }
  std::map<TableId, std::optional<Model::TunnelEntryPref>> all;
  for (const TableId table : ribTables) {
    all[table];
    tables_.withTable(table, [&](const auto& each) {
      const Model::TunnelType type = each.tunnelType();
      const auto rib = Zol::make<Model::TunnelRib>(Model::stringValue(type));
      rib->parentIs(protocolRibs_.get());
      protocolRibs_->protocolTunnelRibIs(type)->tunnelRibIs(rib);
    });
  }
  ribConfigs_->configIs(ribConfig(Model::TunnelRibNameIdMap::systemTunnelRibName, all));
  start();
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
      Model::tunnelRibConfigDirSmFactory(systemRib_, bgpLuConvergence_, tunnelConvergence_, ribConfigs_, tableInfos_,
                                         entityManager_, protocolRibs_, unprogrammable_, ribIds_, scheduler_);
  fibSm_ = Model::tunnelFibSmFactory(
      fib_, unprogrammable_, tables_.table<Model::BgpLuTunnelTable>(), tables_.table<Model::LdpTunnelTable>(),
      tables_.table<Model::SrTunnelTable>(), tables_.table<Model::BgpLuPushTunnelTable>(),
      tables_.table<Model::StaticTunnelTable>(), tables_.table<Model::SrTeSegmentListTunnelTable>(),
      tables_.table<Model::RsvpTunnelTable>(), tables_.table<Model::GreIntfTunnelTable>(),
      tables_.table<Model::IpsecVtiIntfTunnelTable>(), tables_.table<Model::IpsecGreIntfTunnelTable>(),
      tables_.table<Model::NexthopGroupTunnelTable>(), tables_.table<Model::TiLfaTunnelTable>(), scheduler_);
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

Zol::Ptr<Model::TunnelRib> AgentHost::rib(Model::TunnelRibId id) const {
  return id == 0 ? systemRib_
                 : Zol::dynamicPtrCast<Model::TunnelRib>(
                       entityManager_->getEntity("tunnel/tunnelRibs/status/" + std::to_string(id)));
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
