#include "agent/ProtocolTables.h"

#include <algorithm>

#include "tunnel/TunnelTableInfo.h"

namespace Agent {

const std::vector<TableId>& allTables() {
  static const std::vector<TableId> all = [] {
    std::vector<TableId> ids;
    forEachNamedTable([&ids](auto named) { ids.push_back(named.id); });
    return ids;
  }();
  return all;
}

bool isRibTable(TableId table) {
  return std::find(std::begin(ribTables), std::end(ribTables), table) != std::end(ribTables);
}

ProtocolTables::ProtocolTables(Statehub::EntityManager& entityManager)
    : ProtocolTables(entityManager, {allTables().begin(), allTables().end()}, Statehub::Access::read) {}

ProtocolTables::ProtocolTables(Statehub::EntityManager& entityManager, const std::set<TableId>& mounted,
                               Statehub::Access access) {
  forEachNamedTable([&](auto named) {
    using Table = typename decltype(named)::Table;
    if (!mounted.contains(named.id)) {
      return;
    }
    const Model::TunnelTableInfo info = Model::tunnelTableInfo(named.id);
    entityManager.doMount(info.path, info.typeName, Model::sharedTable(access));
    auto& table = std::get<Zol::Ptr<Table>>(tables_);
    table = Zol::dynamicPtrCast<Table>(entityManager.getEntity(info.path));
    ZOL_ASSERT(table != nullptr);
  });
}

const Model::TunnelTableBase& ProtocolTables::table(TableId id) const {
  const Model::TunnelTableBase* found = nullptr;
  withTable(id, [&found](const Model::TunnelTableBase& table) { found = &table; });
  return *found;
}

}  // namespace Agent
