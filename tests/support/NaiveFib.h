// NaiveFib: the FIB as it follows from the tables, computed from scratch: no backlog, no dependency records, no
// encapsulation ids. Slow and obvious; the judge of TunnelFibSm.
#pragma once

#include <map>
#include <set>

#include "tests/support/FibScene.h"
#include "tunnel_table_sm/TunnelFibTableEntry.h"

namespace Tunnel::TunnelTable {

class NaiveFib {
 public:
  explicit NaiveFib(FibScene& scene) {
    std::apply([this](auto&... holder) { (read(*holder.table), ...); }, scene.tables);
  }

  // From the twelve tables, the interface tables in the order in which they are asked.
  template <class First, class Second, class... Tables>
  NaiveFib(const First& first, const Second& second, const Tables&... tables) {
    read(first);
    read(second);
    (read(tables), ...);
  }

  FibDocument document() {
    FibDocument lines;
    for (const auto& [id, tunnel] : tunnels_) {
      const ConsolidatedTunnelFibEntry& entry = entryOf(id);
      if (isWritten(entry)) {
        lines[Zol::stringOf(id)] = shown(entry);
      } else if (tunnel.contributes) {
        lines["unprogrammable " + Zol::stringOf(id)];
      }
    }
    return lines;
  }

 private:
  struct NaiveTunnel {
    bool contributes = false;
    std::vector<MplsVia> vias, backups;
    std::vector<ViaAndTunnelInfo> ready;  // vias that need no resolution
  };

  template <class Table>
  void read(const Table& table) {
    walkSafely(table, [&](const auto& hint) {
      if (tunnels_.count(hint.key()) != 0) {
        return;  // of another interface table, which comes first
      }
      const auto entry = table.value(hint.key());
      NaiveTunnel& tunnel = tunnels_[hint.key()];
      tunnel.contributes = contributesToTunnelFib(entry);
      readVias(entry, tunnel);
    });
  }
  template <class Entry>
  static void readVias(const Entry& entry, NaiveTunnel& tunnel) {
    if constexpr (std::same_as<Entry, NexthopGroupTunnelTableEntry>) {
      tunnel.ready.emplace_back(
          Via(Ipkit::IpGenAddr(), Ipkit::NexthopGroupIntfId::nexthopGroupIdToIntfId(entry.nexthopGroupId())),
          EncapType::invalid);
    } else if constexpr (IsInterfaceTunnel<Entry>) {
      using Kind = EncapKind<std::remove_cvref_t<decltype(entry.tunnelInfo())>>;
      for (const Via& each : entry.via()) {
        ViaAndTunnelInfo info(each, Kind::type);
        (info.*Kind::infoRef)() = entry.tunnelInfo();
        tunnel.ready.push_back(info);
      }
    } else if (doesPushOnly(entry)) {
      forEachMplsVia(entry, [&](const MplsVia& each) { tunnel.vias.push_back(each); });
      if constexpr (HoldsBackupVias<Entry>) {
        tunnel.backups.assign(entry.backupVia().begin(), entry.backupVia().end());
      }
    }
  }

  static bool leavesThroughTunnel(const MplsVia& via) { return DynamicTunnelIntfId::isDynamicTunnelIntfId(via.intf()); }

  bool leadsTo(const TunnelId& from, const TunnelId& to, std::set<TunnelId>& seen) const {
    const auto tunnel = tunnels_.find(from);
    if (from == to) {
      return true;
    }
    if (tunnel == tunnels_.end() || !tunnel->second.contributes || !seen.insert(from).second) {
      return false;
    }
    for (const MplsVia& each : tunnel->second.vias) {
      if (leavesThroughTunnel(each) && leadsTo(DynamicTunnelIntfId::tunnelId(each.intf()), to, seen)) {
        return true;
      }
    }
    return false;
  }

  static bool isWritten(const ConsolidatedTunnelFibEntry& entry) {
    return entry.viaInfos() > 0 && entry.viaInfos() <= 512 && entry.backupViaInfos() <= 512;
  }

  const ConsolidatedTunnelFibEntry& entryOf(const TunnelId& id) {
    const auto known = entries_.find(id);
    if (known != entries_.end()) {
      return known->second;
    }
    ConsolidatedTunnelFibEntry entry(id);
    const auto tunnel = tunnels_.find(id);
    if (tunnel != tunnels_.end() && tunnel->second.contributes) {
      for (const MplsVia& each : tunnel->second.vias) {
        addVia(entry, each);
      }
      for (const MplsVia& each : tunnel->second.backups) {
        entry.insertBackupLabelStackVia(each, each.labelOp());
      }
      for (const ViaAndTunnelInfo& each : tunnel->second.ready) {
        entry.viaInfoIs(each);
      }
    }
    return entries_[id] = entry;
  }

  void addVia(ConsolidatedTunnelFibEntry& entry, const MplsVia& via) {
    if (!leavesThroughTunnel(via)) {
      entry.insertLabelStackVia(via, via.labelOp());
      return;
    }
    const TunnelId next = DynamicTunnelIntfId::tunnelId(via.intf());
    std::set<TunnelId> seen;
    if (leadsTo(next, entry.tunnelId(), seen)) {
      return;
    }
    const ConsolidatedTunnelFibEntry nextEntry = entryOf(next);
    if (!isWritten(nextEntry)) {
      return;
    }
    for (const ViaAndTunnelInfo& each : nextEntry.viaInfo()) {
      const bool isJoinable = each.type() == EncapType::labelStack || each.type() == EncapType::invalid;
      if (isJoinable && each.labelStack().stackSize() + via.labelOp().stackSize() <= 7) {
        entry.insertLabelStackVia(each.via(), via.labelOp().joined(each.labelStack()));
      }
    }
  }

  std::map<TunnelId, NaiveTunnel> tunnels_;
  std::map<TunnelId, ConsolidatedTunnelFibEntry> entries_;
};

}  // namespace Tunnel::TunnelTable
