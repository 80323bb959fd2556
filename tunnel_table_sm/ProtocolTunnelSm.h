// From tables to entries: TableEntrySm turns every change in any mounted table into one call of its own
// handleTunnelTableEntry(tunnelId, tableId, isDeletion). Whoever consumes table entries derives from it.
//
//   TunnelTableEntities ──name──▶ TableEntrySm ──tableToSm──▶ one watcher a mounted table
//                                     ▲                              │ id added, changed, removed
//                                     └───── handleTunnelTableEntry ─┘
//
// A watcher remembers the ids that it has reported present, so that all can be reported deleted when their table is
// withdrawn. A table replaced under its name is walked again; ids that only the old object held are not reported.
#pragma once

#include <string>

#include "runtime/Zol/Reactor.h"
#include "tunnel/TunnelIdColl.h"
#include "tunnel/TunnelTableIdentifier.h"
#include "tunnel_table_sm/TunnelTableEntities.h"

namespace Tunnel::TunnelTable {

class TableEntrySm;

// The base of the watchers. The owner outlives it.
class ProtocolTunnelSm : public Zol::Reactor {
 public:
  ProtocolTunnelSm(TableEntrySm* owner, Zol::PtrConst<TunnelTableEntities> tunnelTableEntities,
                   Zol::PtrConst<TunnelIdColl> unprogrammableTunnelIds);

  const Zol::HashCollection<TunnelId, TunnelTableIdentifier>& seenTunnelId() const { return seenTunnelId_; }
  void seenTunnelIdIs(const TunnelId& id, TunnelTableIdentifier table) { seenTunnelId_.insertOrAssign(id, table); }
  void seenTunnelIdDel(const TunnelId& id) { seenTunnelId_.erase(id); }
  void seenTunnelIdDelAll() { seenTunnelId_.clear(); }

  // Reports every id seen as deleted; they stay seen.
  void kickSeenIds();

  // Walks the whole table and reports every entry as present.
  virtual void handleTunnelEntry();

 protected:
  TableEntrySm& owner() const { return *owner_; }

 private:
  TableEntrySm* const owner_;
  const Zol::PtrConst<TunnelTableEntities> tunnelTableEntities_;
  const Zol::PtrConst<TunnelIdColl> unprogrammableTunnelIds_;
  Zol::HashCollection<TunnelId, TunnelTableIdentifier> seenTunnelId_;
};

class TableEntrySm : public Zol::Reactor {
 public:
  // Walks nothing yet: the derived class starts with handleTunnelTableEntity() when it is ready for calls. Either
  // input may be null.
  TableEntrySm(Zol::PtrConst<TunnelTableEntities> tunnelTableEntities,
               Zol::PtrConst<TunnelIdColl> unprogrammableTunnelIds);

  const Zol::PtrConst<TunnelTableEntities>& tunnelTableEntities() const { return tunnelTableEntities_.notifier(); }
  const Zol::PtrConst<TunnelIdColl>& unprogrammableTunnelId() const { return unprogrammableTunnelId_.notifier(); }

  // The watcher of a table, null when the table is not mounted.
  Zol::Ptr<ProtocolTunnelSm> tunnelSm(const std::string& name) const { return tunnelSm_.child(name); }
  void tunnelSmIs(const std::string& name, Zol::Ptr<ProtocolTunnelSm> sm) { tunnelSm_.is(name, std::move(sm)); }
  void tunnelSmDel(const std::string& name) { tunnelSm_.del(name); }
  void tunnelSmDelAll() { tunnelSm_.delAll(); }

  // The first walk over all mounted tables.
  void handleTunnelTableEntity();
  // A table was mounted, replaced or withdrawn.
  virtual void handleTunnelTableEntity(const std::string& name);

  // One entry was found, changed (isDeletion false) or is gone.
  virtual void handleTunnelTableEntry(const TunnelId& tunnelId, TunnelTableIdentifier tableId, bool isDeletion);
  // A tunnel entered or left the set of unprogrammable ones.
  virtual void handleUnprogrammableEntry(const TunnelId&) {}

 private:
  Zol::Notifiee<TableEntrySm, TunnelTableEntities, std::string> tunnelTableEntities_;
  Zol::Notifiee<TableEntrySm, TunnelIdColl, TunnelId> unprogrammableTunnelId_;
  Zol::ChildMap<std::string, ProtocolTunnelSm> tunnelSm_;
};

// The watcher for a mounted table, by the table's type and, among interface tables, its name. Asserts that there is
// one.
Zol::Ptr<ProtocolTunnelSm> tableToSm(const std::string& name, const Zol::PtrConst<TunnelTableBase>& table,
                                     const Zol::PtrConst<TunnelIdColl>& unprogrammableTunnelIds,
                                     const Zol::PtrConst<TunnelTableEntities>& tunnelTableEntities,
                                     TableEntrySm* owner);

}  // namespace Tunnel::TunnelTable
