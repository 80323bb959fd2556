// PreferenceMapperSm: gives the tunnels of a custom RIB the preferences that its configuration says.
//
//   a table entry, or a table's configured preference, changes  ──▶  tableEntryFilter.preference[tunnel]
//
// Every tunnel of every configured table has a row there: the configured preference of its table or else the one that
// its protocol published. A tunnel without a row is not admitted to the RIB. Five tables can be remapped; configuration
// that names another one, or one that is not mounted, is a fault of whoever let it in, and stops the process.
#pragma once

#include "tunnel/TunnelRibConfig.h"
#include "tunnel_table_sm/ProtocolTunnelSm.h"

namespace Tunnel::TunnelTable {

class PreferenceMapperSm final : public TableEntrySm {
 public:
  PreferenceMapperSm(Zol::PtrConst<TunnelTableEntities> tunnelTableEntities,
                     Zol::PtrConst<TunnelIdColl> unprogrammableTunnelIds,
                     Zol::PtrConst<TunnelRibConfig> tunnelRibConfig, Zol::Ptr<TunnelTableEntryFilter> tableEntryFilter);

  const Zol::PtrConst<TunnelRibConfig>& tunnelRibConfig() const { return tunnelRibConfig_.notifier(); }
  const Zol::Ptr<TunnelTableEntryFilter>& tableEntryFilter() const { return tableEntryFilter_; }

  void handleInitialized();
  void handleRibConfigEntry(const TunnelTableIdentifier& table);
  void handleTunnelTableEntry(const TunnelId& tunnelId, TunnelTableIdentifier tableId, bool isDeletion) override;
  // Every configured table, or one, with all its entries.
  void handlePrefMapping();
  void handlePrefMapping(TunnelTableIdentifier table);

  // Watches the preference configured for a table. Raises RangeException for null.
  void entryIs(const Zol::PtrConst<TunnelRibProtoEntry>& entry);
  void entryDel(TunnelTableIdentifier table) { entry_.del(table); }
  bool entryHas(TunnelTableIdentifier table) const { return entry_.members().has(table); }

 private:
  class EntryWatcher;

  Zol::Notifiee<PreferenceMapperSm, TunnelRibConfig, TunnelTableIdentifier> tunnelRibConfig_;
  Zol::ChildMap<TunnelTableIdentifier, Zol::Reactor> entry_;  // each an EntryWatcher
  const Zol::Ptr<TunnelTableEntryFilter> tableEntryFilter_;
};

// Writes the preference of one tunnel into the filter, of all tunnels of the table when tunnelId is 0, or with
// isDeletion removes the tunnel's. protoEntry may be null: no preference is configured. An identifier below 0 or above
// 13 is ignored.
void handleConfigPreferences(TunnelTableIdentifier tableId, const TunnelId& tunnelId,
                             const Zol::Ptr<TunnelTableEntryFilter>& filter,
                             const Zol::PtrConst<TunnelTableEntities>& entities,
                             const Zol::PtrConst<TunnelRibProtoEntry>& protoEntry, bool isDeletion);

inline constexpr Zol::Factory<PreferenceMapperSm> preferenceMapperSmFactory;

}  // namespace Tunnel::TunnelTable
