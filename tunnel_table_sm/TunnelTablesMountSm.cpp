#include "tunnel_table_sm/TunnelTablesMountSm.h"

#include "runtime/Fastlog/TraceHelper.h"

FASTLOG_DEFAULT_HANDLE("TunnelTablesMountSm")

namespace Tunnel::TunnelTable {
namespace {

constexpr auto handleTableSignature =
    "void Tunnel::TunnelTable::TunnelTablesMountSm::handleTunnelTable(const Zol::String&)";
constexpr auto handleAllTablesSignature = "void Tunnel::TunnelTable::TunnelTablesMountSm::handleTunnelTable()";
constexpr auto handleAllFilterSignature = "void Tunnel::TunnelTable::TunnelTablesMountSm::handleTableTypeFilterTable()";
constexpr auto handleFilterSignature =
    "void Tunnel::TunnelTable::TunnelTablesMountSm::handleTableTypeFilterTable(const Zol::String&)";

}  // namespace

TunnelTablesMountSm::TunnelTablesMountSm(Zol::PtrConst<TunnelTableInfoCollection> tunnelTableInfoColl,
                                         Zol::PtrConst<TunnelTableTypeFilter> tableTypeFilter,
                                         Zol::Ptr<Statehub::EntityManager> entityManager,
                                         Zol::Ptr<TunnelTableEntities> tunnelTableEntities)
    : infos_(*this, std::move(tunnelTableInfoColl), &TunnelTableInfoCollection::tunnelTableInfoChannel,
             {.onKey = &TunnelTablesMountSm::handleTunnelTable,
              .onAll = nullptr,
              .onNotifier = &TunnelTablesMountSm::handleTunnelTable}),
      filter_(*this, std::move(tableTypeFilter), &TunnelTableTypeFilter::tableChannel,
              {.onKey = &TunnelTablesMountSm::handleTableTypeFilterTable,
               .onAll = nullptr,
               .onNotifier = &TunnelTablesMountSm::handleTableTypeFilterTable}),
      entityManager_(std::move(entityManager)),
      tunnelTableEntities_(std::move(tunnelTableEntities)) {
  handleTunnelTable();
}

void TunnelTablesMountSm::handleTunnelTable() {
  FASTLOG_TRACE(8, handleAllTablesSignature);
  tunnelTableEntities_->tunnelTableDelAll();
  if (!infos_) {
    return;
  }
  for (auto it = infos_->tunnelTableInfo().begin(); it; ++it) {
    handleTunnelTable(it.key());
  }
}

void TunnelTablesMountSm::handleTunnelTable(const std::string& name) {
  FASTLOG_TRACE(8, handleTableSignature << " for Tunnel Table " << name);
  const TunnelTableInfo info = infos_ ? infos_->tunnelTableInfo().value(name) : TunnelTableInfo();
  if (info == TunnelTableInfo()) {
    FASTLOG_TRACE(8, handleTableSignature << " Tunnel Table " << name << " has been removed");
    setTableEntity(tunnelTableEntities_, name, nullptr);
    return;
  }
  const Zol::PtrConst<TunnelTableBase> table = TunnelTableMounter(entityManager_).readMountTable(info);
  if (filter_ && filter_->tableHas(name)) {
    setTableEntity(tunnelTableEntities_, name, table);
  } else {
    // A table published already stays: withdrawing what is no longer wanted is the filter handler's job.
    FASTLOG_TRACE(8, handleTableSignature << " not interested in this table");
  }
}

void TunnelTablesMountSm::handleTableTypeFilterTable() {
  FASTLOG_TRACE(8, handleAllFilterSignature);
  for (auto it = filter_->table().begin(); it; ++it) {
    handleTableTypeFilterTable(it.key());
  }
}

void TunnelTablesMountSm::handleTableTypeFilterTable(const std::string& name) {
  FASTLOG_TRACE(8, handleFilterSignature << " for Tunnel Table " << name);
  if (filter_->tableHas(name)) {
    handleTunnelTable(name);
  } else {
    setTableEntity(tunnelTableEntities_, name, nullptr);
  }
}

void setTableEntity(const Zol::Ptr<TunnelTableEntities>& tunnelTableEntities, const std::string& name,
                    const Zol::PtrConst<TunnelTableBase>& table) {
  if (table) {
    FASTLOG_TRACE(8, "setTableEntity"
                         << " Adding tunnel entity");
    tunnelTableEntities->tunnelTableIs(name, table);
  } else {
    FASTLOG_TRACE(8, "setTableEntity"
                         << " Deleting tunnel entity");
    tunnelTableEntities->tunnelTableDel(name);
  }
}

}  // namespace Tunnel::TunnelTable
