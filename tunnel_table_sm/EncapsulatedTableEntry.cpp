#include "tunnel_table_sm/EncapsulatedTableEntry.h"

#include "runtime/Fastlog/TraceHelper.h"
#include "runtime/Zol/Assert.h"

FASTLOG_DEFAULT_HANDLE("TunnelRibBuilderSm")

namespace Tunnel::TunnelTable {
namespace {

constexpr auto contributeSignature =
    "bool Tunnel::TunnelTable::doesEntryContribute(bool, const Tunnel::TunnelTable::TunnelTableEntryFilter::PtrConst&, "
    "const Tunnel::TunnelTable::EncapsulatedTableEntry&)";
constexpr auto copyMetricsSignature =
    "void Tunnel::TunnelTable::copyMetrics(const Tunnel::TunnelTable::TunnelId&, "
    "Tunnel::TunnelTable::TunnelRibEntry&, const Tunnel::TunnelTable::EncapsulatedTableEntry&)";

// Reads the record into its slot, and its head into the common one.
template <class Table, class Record>
void fill(const Zol::PtrConst<Table>& table, const TunnelId& id, Record& slot, TunnelTableEntry& head) {
  if (readSafely(table.get(), id, slot)) {
    head = slot;
  }
}

void updateMetrics(const TunnelId& id, TunnelRibEntry& ribEntry, const TunnelMetrics& metrics) {
  FASTLOG_TRACE(8, " updating id: " << id << ", m: " << metrics.m() << ", m2: " << metrics.m2()
                                    << ", p: " << metrics.p() << ", p2: " << metrics.p2());
  ribEntry.metricsIs(metrics);
}

}  // namespace

EncapsulatedTableEntry::EncapsulatedTableEntry(std::string::const_iterator first, std::string::const_iterator last) {
  Zol::TextCursor in(std::string_view(first, last));
  Zol::parseFields(in, *this);
  in.expectEnd();
}

EncapsulatedTableEntry EncapsulatedTableEntry::getEntry(const TunnelId& id, const TunnelTableEntities& entities) {
  EncapsulatedTableEntry result(id);
  switch (id.tunnelType()) {
    case TunnelType::nexthopGroupTunnel:
      fill(entities.nexthopGroupTable(), id, result.nexthopGroupEntry_, result.entry_);
      break;
    case TunnelType::bgpLuTunnel:
      fill(entities.bgpLuTable(), id, result.bgpLuEntry_, result.entry_);
      break;
    case TunnelType::ldpTunnel:
      fill(entities.ldpTable(), id, result.ldpEntry_, result.entry_);
      break;
    case TunnelType::staticTunnel:
      fill(entities.staticTable(), id, result.staticEntry_, result.entry_);
      break;
    case TunnelType::srTunnel:
      fill(entities.srTable(), id, result.srEntry_, result.entry_);
      break;
    default:
      FASTLOG_TRACE(8, "Unknown tunnel type " << id.tunnelType());
  }
  return result;
}

bool doesEntryContribute(bool supportsPrefRemapping, const TunnelTableEntryFilter* filter,
                         const EncapsulatedTableEntry& entry) {
  if (supportsPrefRemapping) {
    FASTLOG_TRACE(8, contributeSignature << ": TunnelRib supports preference remapping");
    if (!filter->preferenceHas(entry.tunnelId())) {
      FASTLOG_TRACE(8, contributeSignature << ": tunnelID " << entry.tunnelId() << " filtered out");
      return false;
    }
  }
  return entry.tunnelId().tunnelType() != TunnelType::bgpLuTunnel ||
         entry.bgpLuEntry().contribution() == Contribution::contributing;
}

void copyMetrics(const TunnelId& id, TunnelRibEntry& ribEntry, const EncapsulatedTableEntry& entry) {
  FASTLOG_TRACE(8, copyMetricsSignature << " id: " << id);
  switch (id.tunnelType()) {
    case TunnelType::bgpLuTunnel:
      return copyMetrics(id, ribEntry, entry.bgpLuEntry());
    case TunnelType::ldpTunnel:
      return copyMetrics(id, ribEntry, entry.ldpEntry());
    case TunnelType::srTunnel:
      return copyMetrics(id, ribEntry, entry.srEntry());
    default:
      return;  // no metrics of its own
  }
}

void copyMetrics(const TunnelId& id, TunnelRibEntry& ribEntry, const BgpLuTunnelTableEntry& ent) {
  ZOL_ASSERT_TEXT(!!ent && ent.contribution() == Contribution::contributing,
                  "!!ent && ent.contribution() == contributing()");
  updateMetrics(id, ribEntry, ent.metrics());
}

void copyMetrics(const TunnelId& id, TunnelRibEntry& ribEntry, const IgpTunnelTableEntryBase& ent) {
  updateMetrics(id, ribEntry, ent.metrics());
}

}  // namespace Tunnel::TunnelTable
