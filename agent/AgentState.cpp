#include "agent/AgentState.h"

#include <utility>

#include "tunnel/TunnelTableInfo.h"
#include "tunnel_table_sm/TunnelRibConfigDirSm.h"

namespace Agent {
namespace {

template <class T>
Zol::Ptr<T> mounted(Statehub::EntityManager& entityManager, const std::string& path, Statehub::Access access) {
  entityManager.doMount(path, T::entityTypeName, Model::sharedTable(access));
  const auto entity = Zol::dynamicPtrCast<T>(entityManager.getEntity(path));
  ZOL_ASSERT(entity != nullptr);
  return entity;
}

}  // namespace

AgentState::AgentState(Zol::Ptr<Statehub::EntityManager> entityManager, Statehub::Access access)
    : entityManager_(std::move(entityManager)),
      tables_(*entityManager_),
      ribIds_(below<Model::TunnelRibNameIdMap>("ribIds")),
      tunnelConvergence_(below<Model::TunnelConvergence>("convergence")),
      systemRib_(mounted<Model::TunnelRib>(*entityManager_, systemRibPath, access)),
      protocolRibs_(below<Model::ProtocolTunnelRibCollection>("protocolRibs")),
      unprogrammable_(below<Model::TunnelIdColl>("unprogrammable")),
      fib_(mounted<Tunnel::TunnelFib::TunnelFib>(*entityManager_, fibPath, access)) {
  for (const TableId table : ribTables) {
    tables_.withTable(table, [&](const auto& each) {
      const Model::TunnelType type = each.tunnelType();
      protocolRibs_->protocolTunnelRibIs(type)->tunnelRibIs(mounted<Model::TunnelRib>(
          *entityManager_, protocolRibPathPrefix + std::string(Model::stringValue(type)), access));
    });
  }
}

Zol::Ptr<Model::TunnelRib> AgentState::rib(Model::TunnelRibId id) const {
  return id == 0 ? systemRib_
                 : Zol::dynamicPtrCast<Model::TunnelRib>(
                       entityManager_->getEntity(Model::tunnelRibStatusPathPrefix + std::to_string(id)));
}

}  // namespace Agent
