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

// f(table, slot) with the table that has such tunnels, and the slot of its records.
template <class F>
void withTable(const TunnelId& id, const TunnelTableEntities& entities, F&& f) {
  using Entry = EncapsulatedTableEntry;
  switch (id.tunnelType()) {
    case TunnelType::nexthopGroupTunnel:
      return f(entities.nexthopGroupTable(), &Entry::nexthopGroupEntryRef);
    case TunnelType::bgpLuTunnel:
      return f(entities.bgpLuTable(), &Entry::bgpLuEntryRef);
    case TunnelType::ldpTunnel:
      return f(entities.ldpTable(), &Entry::ldpEntryRef);
    case TunnelType::staticTunnel:
      return f(entities.staticTable(), &Entry::staticEntryRef);
    case TunnelType::srTunnel:
      return f(entities.srTable(), &Entry::srEntryRef);
    default:
      FASTLOG_TRACE(8, "Unknown tunnel type " << id.tunnelType());
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
  withTable(id, entities, [&](const auto& table, auto slot) {
    auto& record = (result.*slot)();
    if (readSafely(table.get(), id, record)) {
      result.entry_ = record;
    }
  });
  return result;
}

bool EncapsulatedTableEntry::isHidden(const TunnelId& id, const TunnelTableEntities& entities) {
  bool isHidden = false;
  withTable(id, entities, [&](const auto& table, auto) { isHidden = table && table->hides(id); });
  return isHidden;
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
