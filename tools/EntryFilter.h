// What a list of entries is narrowed to, and the options that say so. Where several are given, all must fit; of next
// hop, interface and label the same via.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/CommandParser.h"
#include "agent/FibView.h"
#include "agent/InputError.h"
#include "tools/TableWalk.h"
#include "tunnel_table_sm/TunnelFibTableEntry.h"

namespace Tools {

namespace Model = Tunnel::TunnelTable;
namespace Fib = Tunnel::TunnelFib;

// The value that an option's text stands for; raises InputError with the option's name.
template <class T>
T optionValue(const std::string& option, const std::string& text) {
  try {
    return Zol::fromText<T>(text);
  } catch (const Zol::Exception& error) {
    throw Agent::InputError(option, Agent::printable(error.what(), 200));
  }
}

class EntryFilter {
 public:
  void addOptions(const Agent::Command& command);
  // Takes the options' texts; raises InputError.
  void read();

  const std::optional<Ipkit::IpGenPrefix>& tep() const { return tep_; }
  // An address was given for the endpoint: whoever knows the endpoints says which has the longest prefix that holds it.
  // Until then it stands for the address alone.
  const std::optional<Ipkit::IpGenAddr>& tepAddress() const { return tepAddress_; }
  // With the endpoint that it is among those of the RIBs; of the table's entries; of the tunnels that cannot be
  // programmed. Without an address as it is. A look-up a length of prefix and RIB, and a walk, respectively.
  EntryFilter among(const std::vector<Zol::Ptr<Model::TunnelRib>>& ribs) const;
  template <class Table>
  EntryFilter amongEntries(const Table& table) const {
    EntryFilter filter = *this;
    if (tepAddress_) {
      walk(table, {}, [&](const auto& entry) {
        filter.offer(entry.tep());
        return true;
      });
    }
    return filter;
  }
  EntryFilter amongUnprogrammable(const Agent::AgentState& state) const;
  const std::optional<Model::TunnelId>& tunnel() const { return tunnel_; }
  bool asksForVias() const { return nextHop_ || intf_ || label_; }

  bool doesFit(const Model::TunnelId& tunnel) const {
    return tunnel_.value_or(tunnel) == tunnel && type_.value_or(tunnel.tunnelType()) == tunnel.tunnelType();
  }
  bool doesFit(const Ipkit::IpGenPrefix& tep) const { return tep_.value_or(tep) == tep; }
  // Nothing was asked for: all fits.
  bool isEmpty() const { return !tep_ && !tunnel_ && !type_ && !asksForVias(); }
  // Of a RIB entry the FIB's vias count.
  bool doesFitRibEntry(const Fib::TunnelFib& fib, const Model::TunnelRibEntry& entry) const;
  bool doViasFit(const Fib::TunnelFib& fib, const Fib::TunnelFibEntry& entry) const;
  bool doesViaFit(const Fib::TunnelFib& fib, const Fib::TunnelVia& via) const;
  // The record of a protocol table.
  template <class Entry>
  bool doesFitEntry(const Entry& entry) const {
    return doesFit(entry.tunnelId()) && doesFit(entry.tep()) && (!asksForVias() || doPublishedViasFit(entry));
  }

 private:
  // An endpoint that there is: taken when it holds the address, unless one with a longer prefix has been.
  void offer(const Ipkit::IpGenPrefix& tep);
  bool doesFit(const Model::Via& via) const {
    return nextHop_.value_or(via.nextHop()) == via.nextHop() && intf_.value_or(via.intf()) == via.intf();
  }
  bool doesFit(const Ipkit::MplsLabelOperation& labels) const;
  template <class Entry>
  bool doPublishedViasFit(const Entry& entry) const {
    bool isFitting = false;
    const auto look = [&](const Model::MplsVia& via) {
      isFitting = isFitting || (doesFit(static_cast<const Model::Via&>(via)) && doesFit(via.labelOp()));
    };
    if constexpr (Model::IsMplsTunnel<Entry>) {
      Model::forEachMplsVia(entry, look);
    } else if constexpr (Model::IsInterfaceTunnel<Entry>) {
      for (const Model::Via& via : entry.via()) {
        look(Model::MplsVia(via, {}));
      }
    }
    if constexpr (Model::HoldsBackupVias<Entry>) {
      for (const Model::MplsVia& via : entry.backupVia()) {
        look(via);
      }
    }
    return isFitting;
  }

  std::string tepText_, tunnelText_, typeText_, nextHopText_, intfText_;
  std::optional<std::uint32_t> label_;
  std::optional<Ipkit::IpGenPrefix> tep_;
  std::optional<Ipkit::IpGenAddr> tepAddress_;
  bool isTepFound_ = false;
  std::optional<Model::TunnelId> tunnel_;
  std::optional<Model::TunnelType> type_;
  std::optional<Ipkit::IpGenAddr> nextHop_;
  std::optional<Ipkit::IntfId> intf_;
};

}  // namespace Tools
