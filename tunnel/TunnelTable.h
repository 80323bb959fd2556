// The twelve protocol tunnel tables: shared-memory tables of one record each, keyed by tunnel id.
//
// A table refuses what its readers could not live with: an id of another type than the table's, and a via whose
// interface is none or stands for no legal tunnel. Label values, stack depths and counts are refused where they are
// made.
#pragma once

#include <string>

#include "runtime/Memtab/MemtabMap.h"
#include "tunnel/TunnelTableEntry.h"

namespace Tunnel::TunnelTable {

class TunnelTableBase : public Memtab::MapBase {
 public:
  TunnelTableBase(std::string name, Zol::Ptr<Memtab::SharedStore> store, unsigned collection, TunnelType type)
      : MapBase(std::move(name), std::move(store), collection), tunnelType_(type) {}

  // The type of all tunnels in the table.
  TunnelType tunnelType() const { return tunnelType_; }

 protected:
  void refuseOtherType(const TunnelId& id) const;
  void refuseIllegalIntf(const TunnelId& id, Ipkit::IntfId intf) const;

 private:
  const TunnelType tunnelType_;
};

template <class Entry, TunnelType type>
class ProtocolTunnelTable : public Memtab::MemtabMap<Entry, TunnelTableBase> {
 public:
  static constexpr TunnelType tableTunnelType = type;

  explicit ProtocolTunnelTable(const std::string& name) : Memtab::MemtabMap<Entry, TunnelTableBase>(name, type) {}
  // store null: a read-only placeholder, for a table that is known but not mounted.
  ProtocolTunnelTable(const std::string& name, Zol::Ptr<Memtab::SharedStore> store)
      : Memtab::MemtabMap<Entry, TunnelTableBase>(name, std::move(store), 0U, type) {}

 protected:
  void refuseIllegal(const Entry& entry) const override {
    this->refuseOtherType(entry.tunnelId());
    const auto refuseIn = [&](const auto& vias) {
      for (const auto& via : vias) {
        this->refuseIllegalIntf(entry.tunnelId(), via.intf());
      }
    };
    if constexpr (requires { entry.via(); }) {
      refuseIn(entry.via());
    }
    if constexpr (requires { entry.backupVia(); }) {
      refuseIn(entry.backupVia());
    }
  }
};

using BgpLuTunnelTable = ProtocolTunnelTable<BgpLuTunnelTableEntry, TunnelType::bgpLuTunnel>;
using BgpLuPushTunnelTable = ProtocolTunnelTable<BgpLuPushTunnelTableEntry, TunnelType::bgpLuPushTunnel>;
using LdpTunnelTable = ProtocolTunnelTable<LdpTunnelTableEntry, TunnelType::ldpTunnel>;
using RsvpTunnelTable = ProtocolTunnelTable<RsvpTunnelTableEntry, TunnelType::rsvpTunnel>;
using SrTunnelTable = ProtocolTunnelTable<SrTunnelTableEntry, TunnelType::srTunnel>;
using SrTeSegmentListTunnelTable =
    ProtocolTunnelTable<SrTeSegmentListTunnelTableEntry, TunnelType::srTeSegmentListTunnel>;
using StaticTunnelTable = ProtocolTunnelTable<StaticTunnelTableEntry, TunnelType::staticTunnel>;
using NexthopGroupTunnelTable = ProtocolTunnelTable<NexthopGroupTunnelTableEntry, TunnelType::nexthopGroupTunnel>;
using TiLfaTunnelTable = ProtocolTunnelTable<TiLfaTunnelTableEntry, TunnelType::tiLfaTunnel>;
using GreIntfTunnelTable = ProtocolTunnelTable<GreIntfTunnelTableEntry, TunnelType::l3IntfTunnel>;
using IpsecVtiIntfTunnelTable = ProtocolTunnelTable<IpsecVtiIntfTunnelTableEntry, TunnelType::l3IntfTunnel>;
using IpsecGreIntfTunnelTable = ProtocolTunnelTable<IpsecGreIntfTunnelTableEntry, TunnelType::l3IntfTunnel>;

}  // namespace Tunnel::TunnelTable

// Instantiated once, in TunnelTable.cpp: a table is too much to compile again for every reader.
namespace Memtab {
extern template class MemtabMap<Tunnel::TunnelTable::BgpLuTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
extern template class MemtabMap<Tunnel::TunnelTable::BgpLuPushTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
extern template class MemtabMap<Tunnel::TunnelTable::LdpTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
extern template class MemtabMap<Tunnel::TunnelTable::RsvpTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
extern template class MemtabMap<Tunnel::TunnelTable::SrTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
extern template class MemtabMap<Tunnel::TunnelTable::SrTeSegmentListTunnelTableEntry,
                                Tunnel::TunnelTable::TunnelTableBase>;
extern template class MemtabMap<Tunnel::TunnelTable::StaticTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
extern template class MemtabMap<Tunnel::TunnelTable::NexthopGroupTunnelTableEntry,
                                Tunnel::TunnelTable::TunnelTableBase>;
extern template class MemtabMap<Tunnel::TunnelTable::TiLfaTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
extern template class MemtabMap<Tunnel::TunnelTable::GreIntfTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
extern template class MemtabMap<Tunnel::TunnelTable::IpsecVtiIntfTunnelTableEntry,
                                Tunnel::TunnelTable::TunnelTableBase>;
extern template class MemtabMap<Tunnel::TunnelTable::IpsecGreIntfTunnelTableEntry,
                                Tunnel::TunnelTable::TunnelTableBase>;
}  // namespace Memtab

namespace Tunnel::TunnelTable {

// Reads from a table that may be absent (null) or damaged. Damage is reported to the table and reads as absent.
template <class Table>
bool readSafely(const Table* table, const typename Table::Key& key, typename Table::Record& record) {
  if (table == nullptr) {
    return false;
  }
  try {
    return table->read(key, record);
  } catch (const Memtab::CorruptionException& damage) {
    table->corruptionDetected(damage.what());
    return false;
  }
}
template <class Table>
bool hasSafely(const Table& table, const typename Table::Key& key) {
  try {
    return table.has(key);
  } catch (const Memtab::CorruptionException& damage) {
    table.corruptionDetected(damage.what());
    return false;
  }
}

// Visits every entry that can be read, in the table's order: visit(hint). Damage is reported to the table and costs
// what cannot be read, not what lies behind it: nobody would tell of that once more.
template <class Table, class F>
void walkSafely(const Table& table, F&& visit) {
  typename Table::Hint hint;
  for (bool started = false, more = true; more; started = true) {
    try {
      more = started ? table.next(hint) : table.first(hint);
    } catch (const Memtab::CorruptionException& damage) {
      table.corruptionDetected(damage.what());
      continue;
    }
    if (more) {
      visit(hint);
    }
  }
}

}  // namespace Tunnel::TunnelTable
