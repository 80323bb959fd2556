#include "tunnel/ConsolidatedTunnelFibEntry.h"

#include "runtime/Fastlog/TraceHelper.h"
#include "tunnel/EncapKind.h"
#include "tunnel/TunnelTable.h"

namespace Tunnel::TunnelTable {
namespace {

FASTLOG_DEFAULT_HANDLE("TunnelFibSm");

template <class Info>
ViaAndTunnelInfo viaWith(const Via& via, const Info& info) {
  using Kind = EncapKind<Info>;
  ViaAndTunnelInfo result(via, Kind::type);
  (result.*Kind::infoRef)() = info;
  return result;
}

}  // namespace

ConsolidatedTunnelFibEntry::ConsolidatedTunnelFibEntry(const std::string&) {
  ZOL_ASSERT_TEXT(false, "!\"No String constructor for ConsolidatedTunnelFibEntry - has collection\"");
}

ConsolidatedTunnelFibEntry ConsolidatedTunnelFibEntry::fromTunnelFibEntry(const TunnelFibEntry& fibEntry,
                                                                          const TunnelFib& fib) {
  FASTLOG_TRACE(8, "fromTunnelFibEntry"
                       << " fibEntry: " << fibEntry);
  ConsolidatedTunnelFibEntry entry(fibEntry.tunnelId());
  entry.arePrimaryViasUsableIs(fibEntry.arePrimaryViasUsable());
  for (std::size_t i = 0; i < fibEntry.tunnelVias(); ++i) {
    entry.addViaInfoFromTunnelVia(fibEntry.tunnelVia(i), fib, false);
  }
  for (std::size_t i = 0; i < fibEntry.backupTunnelVias(); ++i) {
    entry.addViaInfoFromTunnelVia(fibEntry.backupTunnelVia(i), fib, true);
  }
  return entry;
}

void ConsolidatedTunnelFibEntry::addViaInfoFromTunnelVia(const TunnelVia& tunnelVia, const TunnelFib& fib,
                                                         bool backup) {
  FASTLOG_TRACE(8, "addViaInfoFromTunnelVia"
                       << " tunnelVia: " << tunnelVia << ", backup: " << backup);
  ViaAndTunnelInfo via(tunnelVia, tunnelVia.encapId().encapType());
  withEncapKind(via.type(), [&](auto kind) {
    using Kind = decltype(kind);
    typename std::remove_cvref_t<decltype(Kind::encaps(fib))>::Record record;
    if (readSafely(&Kind::encaps(fib), tunnelVia.encapId(), record)) {
      (via.*Kind::infoRef)() = record.info();
    }
  });
  (backup ? backupViaInfo_ : viaInfo_).insert(via);
}

void ConsolidatedTunnelFibEntry::reset(const TunnelId& tunnelId) {
  tunnelId_ = tunnelId;
  viaInfo_.clear();
  backupViaInfo_.clear();
  arePrimaryViasUsable_ = true;
}

void ConsolidatedTunnelFibEntry::insertLabelStackVia(const Via& via, const Ipkit::MplsLabelOperation& labelOp) {
  viaInfo_.insert(viaWith(via, labelOp));
}
void ConsolidatedTunnelFibEntry::insertIpsecGreVia(const Via& via, const IpsecGreTunnelInfo& info) {
  viaInfo_.insert(viaWith(via, info));
}
void ConsolidatedTunnelFibEntry::insertIpsecVtiVia(const Via& via, const IpsecVtiTunnelInfo& info) {
  viaInfo_.insert(viaWith(via, info));
}
void ConsolidatedTunnelFibEntry::insertGreVia(const Via& via, const GreTunnelInfo& info) {
  viaInfo_.insert(viaWith(via, info));
}
void ConsolidatedTunnelFibEntry::insertInvalidVia(const Via& via) {
  viaInfo_.insert(ViaAndTunnelInfo(via, EncapType::invalid));
}
void ConsolidatedTunnelFibEntry::insertBackupLabelStackVia(const Via& via, const Ipkit::MplsLabelOperation& labelOp) {
  backupViaInfo_.insert(viaWith(via, labelOp));
}

// The members of the sets are left out to keep trace lines short.
std::ostream& operator<<(std::ostream& out, const ConsolidatedTunnelFibEntry& entry) {
  out << "Value('Tunnel::TunnelTable::ConsolidatedTunnelFibEntry', ** {'tunnelId': " << entry.tunnelId_
      << ", 'viaInfo': None, 'backupViaInfo': None, 'arePrimaryViasUsable': ";
  Zol::printValue(out, entry.arePrimaryViasUsable_);
  return out << "})";
}

std::string valueToStrep(const ConsolidatedTunnelFibEntry& entry) { return Zol::stringOf(entry); }

}  // namespace Tunnel::TunnelTable
