// The entities between a RIB's mounter and its readers: which tables the RIB draws from, the tables mounted for it, and
// the preferences that it gives to single tunnels.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "runtime/Zol/HashCollection.h"
#include "runtime/Zol/Watchable.h"
#include "tunnel/TunnelTable.h"

namespace Tunnel::TunnelTable {

// The names of the tables that a RIB draws from.
class TunnelTableTypeFilter : public Zol::Entity {
 public:
  using Tables = Zol::Watchable<Zol::HashCollection<std::string, bool>>;

  using Entity::Entity;

  const Tables& table() const { return table_; }
  bool tableHas(const std::string& name) const { return table_.has(name); }
  void tableIs(const std::string& name) { table_.is(name, true); }
  void tableDel(const std::string& name) { table_.del(name); }
  void tableDelAll() { table_.delAll(); }

  Zol::Channel<std::string>& tableChannel() const { return table_.channel(); }

 private:
  Tables table_;
};

// The mounted tables of one RIB, by table name.
class TunnelTableEntities : public Zol::Entity {
 public:
  using Tables = Zol::Watchable<Zol::HashCollection<std::string, Zol::PtrConst<TunnelTableBase>>>;

  using Entity::Entity;

  const Tables& tunnelTable() const { return tunnelTable_; }
  bool tunnelTableHas(const std::string& name) const { return tunnelTable_.has(name); }
  // Null when there is none.
  Zol::PtrConst<TunnelTableBase> tunnelTable(const std::string& name) const { return tunnelTable_.value(name); }
  // An empty reference removes the table.
  void tunnelTableIs(const std::string& name, const Zol::PtrConst<TunnelTableBase>& table);
  void tunnelTableDel(const std::string& name) { tunnelTable_.del(name); }
  void tunnelTableDelAll() { tunnelTable_.delAll(); }

  Zol::Channel<std::string>& tunnelTableChannel() const { return tunnelTable_.channel(); }

  // The table of the fixed name; null when it is absent or of another class. Reviews ask for each tunnel.
  Zol::PtrConst<BgpLuTunnelTable> bgpLuTable() const { return tableAs<BgpLuTunnelTable>(0, "bgpLu"); }
  Zol::PtrConst<BgpLuPushTunnelTable> bgpLuPushTable() const { return tableAs<BgpLuPushTunnelTable>(1, "bgpLuPush"); }
  Zol::PtrConst<LdpTunnelTable> ldpTable() const { return tableAs<LdpTunnelTable>(2, "ldp"); }
  Zol::PtrConst<RsvpTunnelTable> rsvpTable() const { return tableAs<RsvpTunnelTable>(3, "rsvp"); }
  Zol::PtrConst<SrTunnelTable> srTable() const { return tableAs<SrTunnelTable>(4, "sr"); }
  Zol::PtrConst<SrTeSegmentListTunnelTable> srTeSegmentListTable() const {
    return tableAs<SrTeSegmentListTunnelTable>(5, "srTeSegmentList");
  }
  Zol::PtrConst<StaticTunnelTable> staticTable() const { return tableAs<StaticTunnelTable>(6, "static"); }
  Zol::PtrConst<NexthopGroupTunnelTable> nexthopGroupTable() const {
    return tableAs<NexthopGroupTunnelTable>(7, "nexthopGroup");
  }
  Zol::PtrConst<TiLfaTunnelTable> tiLfaTable() const { return tableAs<TiLfaTunnelTable>(8, "tiLfa"); }
  Zol::PtrConst<GreIntfTunnelTable> greIntfTable() const {
    return tableAs<GreIntfTunnelTable>(9, "greTunnelInterface");
  }
  Zol::PtrConst<IpsecVtiIntfTunnelTable> ipsecVtiIntfTable() const {
    return tableAs<IpsecVtiIntfTunnelTable>(10, "ipsecVtiTunnelInterface");
  }
  Zol::PtrConst<IpsecGreIntfTunnelTable> ipsecGreIntfTable() const {
    return tableAs<IpsecGreIntfTunnelTable>(11, "ipsecGreTunnelInterface");
  }

 private:
  // What an accessor found, good for one version of the collection.
  struct Answer {
    std::uint64_t version = 0;
    const TunnelTableBase* table = nullptr;  // held by the collection
  };

  template <class Table>
  Zol::PtrConst<Table> tableAs(std::size_t accessor, const char* name) const {
    Answer& answer = answers_[accessor];
    if (answer.version != tunnelTable_.version()) {
      answer = {tunnelTable_.version(), dynamic_cast<const Table*>(tunnelTable_.value(name).get())};
    }
    return Zol::PtrConst<Table>(static_cast<const Table*>(answer.table));
  }

  Tables tunnelTable_;
  mutable std::array<Answer, 12> answers_;  // one an accessor
};

// The preference of each tunnel that a remapping RIB admits. The stored value has 32 bits; its reader takes the low 8.
class TunnelTableEntryFilter : public Zol::Entity {
 public:
  using Preferences = Zol::Watchable<Zol::HashCollection<TunnelId, std::uint32_t>>;

  using Entity::Entity;

  const Preferences& preference() const { return preference_; }
  bool preferenceHas(const TunnelId& id) const { return preference_.has(id); }
  std::uint32_t preference(const TunnelId& id) const { return preference_.value(id); }
  void preferenceIs(const TunnelId& id, std::uint32_t preference) { preference_.is(id, preference); }
  void preferenceDel(const TunnelId& id) { preference_.del(id); }
  void preferenceDelAll() { preference_.delAll(); }

  Zol::Channel<TunnelId>& preferenceChannel() const { return preference_.channel(); }

 private:
  Preferences preference_;
};

Zol::Ptr<TunnelTableTypeFilter> tunnelTableTypeFilterFactory();
Zol::Ptr<TunnelTableEntities> tunnelTableEntitiesFactory();
Zol::Ptr<TunnelTableEntryFilter> tunnelTableEntryFilterFactory();

}  // namespace Tunnel::TunnelTable
