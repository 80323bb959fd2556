#include "tunnel_table_sm/PreferenceMapperSm.h"

#include "runtime/Fastlog/TraceHelper.h"

FASTLOG_DEFAULT_HANDLE("PreferenceMapperSm")

namespace Tunnel::TunnelTable {
namespace {

using FilterPtr = Zol::Ptr<TunnelTableEntryFilter>;
using ProtoEntryPtr = Zol::PtrConst<TunnelRibProtoEntry>;

#define NAMESPACE "Tunnel::TunnelTable::"
#define MAPPER NAMESPACE "PreferenceMapperSm::"
constexpr auto tableEntrySignature = "virtual void " MAPPER "handleTunnelTableEntry(const " NAMESPACE
                                     "TunnelId&, " NAMESPACE "TunnelTableIdentifier, bool)";
constexpr auto initializedSignature = "virtual void " MAPPER "handleInitialized()";
constexpr auto configEntrySignature = "void " MAPPER "handleRibConfigEntry(" NAMESPACE "TunnelTableIdentifier)";
constexpr auto prefMappingAllSignature = "void " MAPPER "handlePrefMapping()";
constexpr auto prefMappingSignature = "void " MAPPER "handlePrefMapping(" NAMESPACE "TunnelTableIdentifier)";
constexpr auto configSignature =
    "void " NAMESPACE "handleConfigPreferences(" NAMESPACE "TunnelTableIdentifier, " NAMESPACE
    "TunnelId, const " NAMESPACE "TunnelTableEntryFilter::Ptr&, const " NAMESPACE
    "TunnelTableEntities::PtrConst&, const " NAMESPACE "TunnelRibProtoEntry::PtrConst&, bool)";
constexpr auto updateSignature = "void " NAMESPACE "updateEntryFilter(" NAMESPACE "TunnelId, const " NAMESPACE
                                 "TunnelTableEntryFilter::Ptr&, const " NAMESPACE "TunnelRibProtoEntry::PtrConst&)";
constexpr auto helperSignature = "void " NAMESPACE "updateEntryFilterHelper(" NAMESPACE "TunnelId, const " NAMESPACE
                                 "TunnelTableEntryFilter::Ptr&, const " NAMESPACE "TunnelRibProtoEntry::PtrConst&)";
#undef MAPPER
#undef NAMESPACE

template <class Table>
void updateEntryFilterHelper(const Table& table, const TunnelId& tunnelId, const FilterPtr& filter,
                             const ProtoEntryPtr& protoEntry) {
  typename Table::Record entry;
  readSafely(&table, tunnelId, entry);
  const TunnelEntryPref preference =
      protoEntry && protoEntry->prefMapping() ? *protoEntry->prefMapping() : entry.pref();
  FASTLOG_TRACE(8, helperSignature << "tid: " << tunnelId << " pref: " << preference);
  filter->preferenceIs(tunnelId, preference);
}

template <class Table>
void updateEntryFilter(const Zol::PtrConst<Table>& table, const TunnelId& tunnelId, const FilterPtr& filter,
                       const ProtoEntryPtr& protoEntry) {
  FASTLOG_TRACE(8, updateSignature);
  if (!!tunnelId) {
    updateEntryFilterHelper(*table, tunnelId, filter, protoEntry);
    return;
  }
  FASTLOG_TRACE(8, updateSignature << " updating pref for all table entries.");
  walkSafely(*table, [&](const typename Table::Hint& hint) {
    updateEntryFilterHelper(*table, hint.key(), filter, protoEntry);
  });
}

}  // namespace

// Follows the preference configured for one table.
class PreferenceMapperSm::EntryWatcher final : public Zol::Reactor {
 public:
  EntryWatcher(PreferenceMapperSm& owner, ProtoEntryPtr entry)
      : owner_(owner),
        entry_(*this, std::move(entry), &TunnelRibProtoEntry::prefMappingChannel,
               {.onKey = &EntryWatcher::handlePrefMapping}) {}

 private:
  void handlePrefMapping() { owner_.handlePrefMapping(entry_->tableId()); }

  PreferenceMapperSm& owner_;
  Zol::Notifiee<EntryWatcher, TunnelRibProtoEntry> entry_;
};

PreferenceMapperSm::PreferenceMapperSm(Zol::PtrConst<TunnelTableEntities> tunnelTableEntities,
                                       Zol::PtrConst<TunnelIdColl> unprogrammableTunnelIds,
                                       Zol::PtrConst<TunnelRibConfig> tunnelRibConfig, FilterPtr tableEntryFilter)
    : TableEntrySm(std::move(tunnelTableEntities), std::move(unprogrammableTunnelIds)),
      tunnelRibConfig_(*this, std::move(tunnelRibConfig), &TunnelRibConfig::entryChannel,
                       {.onKey = &PreferenceMapperSm::handleRibConfigEntry}),
      entry_(*this),
      tableEntryFilter_(std::move(tableEntryFilter)) {
  for (auto it = tunnelRibConfig_->entry().begin(); it; ++it) {
    handleRibConfigEntry(it.key());
  }
  handleInitialized();
}

void PreferenceMapperSm::handleInitialized() {
  FASTLOG_TRACE(8, initializedSignature);
  handleTunnelTableEntity();
  handlePrefMapping();
}

void PreferenceMapperSm::handleRibConfigEntry(const TunnelTableIdentifier& table) {
  FASTLOG_TRACE(8, configEntrySignature);
  if (const ProtoEntryPtr entry = tunnelRibConfig_->entry(table)) {
    entryIs(entry);
    // An entry put in place of another may carry another preference. A table that is yet to come brings its own walk.
    if (hasNotificationActive() && tunnelTableEntities()->tunnelTableHas(Zol::stringOf(table))) {
      handlePrefMapping(table);
    }
  } else {
    entryDel(table);
  }
}

void PreferenceMapperSm::entryIs(const ProtoEntryPtr& entry) {
  if (!entry) {
    throw Zol::RangeException(
        "null _entry parameter to mutator for Tunnel::TunnelTable::PreferenceMapperSm::entry not allowed\"");
  }
  entry_.is(entry->tableId(), Zol::Factory<EntryWatcher>()(*this, entry));
}

void PreferenceMapperSm::handleTunnelTableEntry(const TunnelId& tunnelId, TunnelTableIdentifier tableId,
                                                bool isDeletion) {
  FASTLOG_TRACE(8, tableEntrySignature);
  handleConfigPreferences(tableId, tunnelId, tableEntryFilter_, tunnelTableEntities(), tunnelRibConfig_->entry(tableId),
                          isDeletion);
}

void PreferenceMapperSm::handlePrefMapping() {
  FASTLOG_TRACE(8, prefMappingAllSignature);
  for (auto it = tunnelRibConfig_->entry().begin(); it; ++it) {
    handlePrefMapping(it.key());
  }
}

void PreferenceMapperSm::handlePrefMapping(TunnelTableIdentifier table) {
  FASTLOG_TRACE(8, prefMappingSignature << " tableId: " << table);
  handleConfigPreferences(table, TunnelId(), tableEntryFilter_, tunnelTableEntities(), tunnelRibConfig_->entry(table),
                          false);
}

void handleConfigPreferences(TunnelTableIdentifier tableId, const TunnelId& tunnelId, const FilterPtr& filter,
                             const Zol::PtrConst<TunnelTableEntities>& entities, const ProtoEntryPtr& protoEntry,
                             bool isDeletion) {
  FASTLOG_TRACE(8, configSignature);
  if (isDeletion) {
    filter->preferenceDel(tunnelId);
    return;
  }
  if (static_cast<int>(tableId) < 0 || static_cast<int>(tableId) > 13) {
    return;  // before the name is asked for, which such an identifier does not have
  }
  const std::string& tunnelType = TableIdToNameMap()[tableId];
  ZOL_ASSERT_TEXT(entities && entities->tunnelTableHas(tunnelType),
                  "entities && entities->tunnelTableHas( tunnelType )");
  switch (tableId) {
    case TunnelTableIdentifier::bgpLu:
      return updateEntryFilter(entities->bgpLuTable(), tunnelId, filter, protoEntry);
    case TunnelTableIdentifier::ldp:
      return updateEntryFilter(entities->ldpTable(), tunnelId, filter, protoEntry);
    case TunnelTableIdentifier::sr:
      return updateEntryFilter(entities->srTable(), tunnelId, filter, protoEntry);
    case TunnelTableIdentifier::staticTable:
      return updateEntryFilter(entities->staticTable(), tunnelId, filter, protoEntry);
    case TunnelTableIdentifier::nexthopGroup:
      return updateEntryFilter(entities->nexthopGroupTable(), tunnelId, filter, protoEntry);
    default:
      ZOL_ASSERT_TEXT(false, "0 && \"TunnelTables not supported for tunnel rib\"");
  }
}

}  // namespace Tunnel::TunnelTable
