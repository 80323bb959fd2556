// ConsolidatedTunnelFibEntry: the computed FIB entry of one tunnel before encapsulations are given ids. Equal entries
// mean the same forwarding, whatever ids a written entry uses. It may hold more vias than an entry that can be written.
#pragma once

#include <string>

#include "tunnel/ViaInfoSet.h"

namespace Tunnel::TunnelTable {

class ConsolidatedTunnelFibEntry {
 public:
  ConsolidatedTunnelFibEntry() = default;
  explicit ConsolidatedTunnelFibEntry(const TunnelId& tunnelId) : tunnelId_(tunnelId) {}
  // There is no way back from the text, which does not list the vias: asserts.
  explicit ConsolidatedTunnelFibEntry(const std::string& text);

  // What a written entry means. A via whose encapsulation is missing from fib keeps its type only.
  static ConsolidatedTunnelFibEntry fromTunnelFibEntry(const TunnelFibEntry& fibEntry, const TunnelFib& fib);
  void addViaInfoFromTunnelVia(const TunnelVia& tunnelVia, const TunnelFib& fib, bool backup);

  // Empty again, for another tunnel; keeps its memory.
  void reset(const TunnelId& tunnelId);

  const TunnelId& tunnelId() const { return tunnelId_; }
  bool arePrimaryViasUsable() const { return arePrimaryViasUsable_; }
  void arePrimaryViasUsableIs(bool usable) { arePrimaryViasUsable_ = usable; }

  const ViaInfoSet& viaInfo() const { return viaInfo_; }
  const ViaInfoSet& backupViaInfo() const { return backupViaInfo_; }
  std::size_t viaInfos() const { return viaInfo_.size(); }
  std::size_t backupViaInfos() const { return backupViaInfo_.size(); }
  bool viaInfoHas(const ViaAndTunnelInfo& via) const { return viaInfo_.has(via); }
  bool backupViaInfoHas(const ViaAndTunnelInfo& via) const { return backupViaInfo_.has(via); }
  void viaInfoIs(const ViaAndTunnelInfo& via) { viaInfo_.insert(via); }
  void backupViaInfoIs(const ViaAndTunnelInfo& via) { backupViaInfo_.insert(via); }
  void viaInfoDel(const ViaAndTunnelInfo& via) { viaInfo_.erase(via); }
  void backupViaInfoDel(const ViaAndTunnelInfo& via) { backupViaInfo_.erase(via); }
  void viaInfoDelAll() { viaInfo_.clear(); }
  void backupViaInfoDelAll() { backupViaInfo_.clear(); }

  void insertLabelStackVia(const Via& via, const Ipkit::MplsLabelOperation& labelOp);
  void insertIpsecGreVia(const Via& via, const IpsecGreTunnelInfo& info);
  void insertIpsecVtiVia(const Via& via, const IpsecVtiTunnelInfo& info);
  void insertGreVia(const Via& via, const GreTunnelInfo& info);
  // A via without encapsulation.
  void insertInvalidVia(const Via& via);
  // Backup vias are label-stack vias always.
  void insertBackupLabelStackVia(const Via& via, const Ipkit::MplsLabelOperation& labelOp);

  friend bool operator==(const ConsolidatedTunnelFibEntry&, const ConsolidatedTunnelFibEntry&) = default;
  bool operator!() const { return *this == ConsolidatedTunnelFibEntry(); }
  friend std::ostream& operator<<(std::ostream& out, const ConsolidatedTunnelFibEntry& entry);

 private:
  TunnelId tunnelId_;
  ViaInfoSet viaInfo_;
  ViaInfoSet backupViaInfo_;
  bool arePrimaryViasUsable_ = true;
};

std::string valueToStrep(const ConsolidatedTunnelFibEntry& entry);

}  // namespace Tunnel::TunnelTable
