// TunnelTablesMountSm: mounts the protocol tables that one RIB draws from.
//
//     tunnelTableInfoColl    which tables can be mounted, and how ─┐
//                                                                  ├─ both: mounted, published in tunnelTableEntities
//     tableTypeFilter        which tables the RIB wants ───────────┘
//
// A table that is no longer described or no longer wanted is withdrawn. A description that changes publishes the table
// again, so that whoever watches it starts afresh.
#pragma once

#include <string>

#include "runtime/Statehub/EntityManager.h"
#include "runtime/Zol/Reactor.h"
#include "tunnel/TunnelTableInfo.h"
#include "tunnel_table_sm/TunnelTableEntities.h"

namespace Tunnel::TunnelTable {

class TunnelTablesMountSm final : public Zol::Reactor {
 public:
  TunnelTablesMountSm(Zol::PtrConst<TunnelTableInfoCollection> tunnelTableInfoColl,
                      Zol::PtrConst<TunnelTableTypeFilter> tableTypeFilter,
                      Zol::Ptr<Statehub::EntityManager> entityManager,
                      Zol::Ptr<TunnelTableEntities> tunnelTableEntities);

  const Zol::PtrConst<TunnelTableInfoCollection>& tunnelTableInfoColl() const { return infos_.notifier(); }
  const Zol::PtrConst<TunnelTableTypeFilter>& tableTypeFilter() const { return filter_.notifier(); }
  const Zol::Ptr<TunnelTableEntities>& tunnelTableEntities() const { return tunnelTableEntities_; }

  // Replace a watched input; the new one is applied as a whole.
  void tunnelTableInfoCollIs(Zol::PtrConst<TunnelTableInfoCollection> infos) { infos_.notifierIs(std::move(infos)); }
  void tableTypeFilterIs(Zol::PtrConst<TunnelTableTypeFilter> filter) { filter_.notifierIs(std::move(filter)); }

  // Withdraws every table, then publishes those described and wanted.
  void handleTunnelTable();
  void handleTunnelTable(const std::string& name);
  void handleTableTypeFilterTable();
  void handleTableTypeFilterTable(const std::string& name);

 private:
  Zol::Notifiee<TunnelTablesMountSm, TunnelTableInfoCollection, std::string> infos_;
  Zol::Notifiee<TunnelTablesMountSm, TunnelTableTypeFilter, std::string> filter_;
  const Zol::Ptr<Statehub::EntityManager> entityManager_;
  const Zol::Ptr<TunnelTableEntities> tunnelTableEntities_;
};

// Publishes one table, or with an empty reference withdraws it.
void setTableEntity(const Zol::Ptr<TunnelTableEntities>& tunnelTableEntities, const std::string& name,
                    const Zol::PtrConst<TunnelTableBase>& table);

inline constexpr Zol::Factory<TunnelTablesMountSm> tunnelTablesMountSmFactory;

}  // namespace Tunnel::TunnelTable
