// The configuration of tunnel RIBs: which protocol tables feed a RIB, and which preference each table's tunnels get
// there. An agent fills a TunnelRibConfigDir; the RIBs follow it.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>

#include "runtime/Zol/Entity.h"
#include "runtime/Zol/HashCollection.h"
#include "runtime/Zol/OrderedCollection.h"
#include "runtime/Zol/Watchable.h"
#include "tunnel/TunnelRib.h"
#include "tunnel/TunnelTableIdentifier.h"

namespace Tunnel::TunnelTable {

// One table that feeds a RIB.
class TunnelRibProtoEntry : public Zol::Entity {
 public:
  explicit TunnelRibProtoEntry(TunnelTableIdentifier table, std::optional<TunnelEntryPref> prefMapping = std::nullopt)
      : table_(table), prefMapping_(prefMapping) {}

  TunnelTableIdentifier tableId() const { return table_; }

  // The preference that the table's tunnels get in the RIB; without one they keep what their protocol published.
  // The system RIB does not look at it.
  const std::optional<TunnelEntryPref>& prefMapping() const { return prefMapping_; }
  void prefMappingIs(std::optional<TunnelEntryPref> pref);

  Zol::Channel<Zol::NoKey>& prefMappingChannel() const { return channel_; }

 private:
  const TunnelTableIdentifier table_;
  std::optional<TunnelEntryPref> prefMapping_;
  mutable Zol::Channel<Zol::NoKey> channel_;
};

// One RIB, by its name.
class TunnelRibConfig : public Zol::Entity {
 public:
  using Entries = Zol::Watchable<Zol::HashCollection<TunnelTableIdentifier, Zol::Ptr<TunnelRibProtoEntry>>>;

  explicit TunnelRibConfig(std::string name) : Entity(std::move(name)) {}

  const Entries& entry() const { return entry_; }
  // Null when the table does not feed the RIB.
  Zol::PtrConst<TunnelRibProtoEntry> entry(TunnelTableIdentifier table) const { return entry_.value(table); }
  void entryIs(const Zol::Ptr<TunnelRibProtoEntry>& entry) { entry_.is(entry->tableId(), entry); }
  void entryDel(TunnelTableIdentifier table) { entry_.del(table); }

  Zol::Channel<TunnelTableIdentifier>& entryChannel() const { return entry_.channel(); }

 private:
  Entries entry_;
};

class TunnelRibConfigDir : public Zol::Entity {
 public:
  using Configs = Zol::Watchable<Zol::OrderedCollection<std::string, Zol::Ptr<TunnelRibConfig>>>;

  using Entity::Entity;

  const Configs& config() const { return config_; }
  Zol::PtrConst<TunnelRibConfig> config(const std::string& name) const { return config_.value(name); }
  // Sets the configuration of a RIB as a whole.
  void configIs(const Zol::Ptr<TunnelRibConfig>& config) { config_.is(config->name(), config); }
  void configDel(const std::string& name) { config_.del(name); }

  Zol::Channel<std::string>& configChannel() const { return config_.channel(); }

 private:
  Configs config_;
};

// The numbers of RIB names. Shared with whoever refers to RIBs by number.
class TunnelRibNameIdMap : public Zol::Entity {
 public:
  static constexpr const char* systemTunnelRibName = "system";

  using Entity::Entity;

  // The id of the name. A name without one gets 0 if it is the system RIB's, else the smallest free number from 1 on.
  TunnelRibId tunnelRibNameIs(const std::string& name);
  // Gives the name this id, as an earlier run had it. Requires: neither is in use.
  void tunnelRibIdIs(const std::string& name, TunnelRibId id);
  // Gives up the name and its id, which it returns; nothing when the name has none.
  std::optional<TunnelRibId> tunnelRibNameDel(const std::string& name);
  std::optional<TunnelRibId> tunnelRibId(const std::string& name) const;
  // By name.
  const std::map<std::string, TunnelRibId>& tunnelRibNames() const { return ids_; }

 private:
  std::map<std::string, TunnelRibId> ids_;
};

}  // namespace Tunnel::TunnelTable
