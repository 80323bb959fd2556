// The road of one entry into the FIB:
//
//     computed vias ──▶ equal to what stands? done. Else, as one change:
//                   ──▶ one reference a via: record found by content, or created under the next free id
//                   ──▶ entry written: readers see it, dependants are notified
//                   ──▶ references of the replaced entry given back; records that nobody carries any more are deleted
//
// Counts live in memory. A start counts the vias that stand in the FIB; ids are then handed out anew from index 0,
// stepping over those in use. Damage met while counting leaves vias uncounted: until the next start no record is
// deleted or swept, since what could not be read may carry it.
#include "tunnel_table_sm/TunnelFibWriter.h"

#include <vector>

#include "runtime/Fastlog/TraceHelper.h"
#include "tunnel/EncapKind.h"
#include "tunnel/TunnelTable.h"

namespace Tunnel::TunnelTable {
namespace {

FASTLOG_DEFAULT_HANDLE("TunnelFibSm");

template <class Kind>
using EncapCollection = std::remove_reference_t<decltype(Kind::encaps(std::declval<TunnelFib&>()))>;
template <class Kind>
using EncapRecordOf = typename EncapCollection<Kind>::Record;

template <class Kind>
std::optional<typename Kind::Info> encapInfo(const TunnelFib& fib, Kind, EncapId id) {
  EncapRecordOf<Kind> record;
  return readSafely(&Kind::encaps(fib), id, record) ? std::optional(record.info()) : std::nullopt;
}

template <class Info>
void printInfo(std::ostream& out, const Info& info) {
  out << " [ src: " << info.source() << " dst: " << info.destination() << " ]";
}
void printInfo(std::ostream& out, const Ipkit::MplsLabelOperation& labelOp) {
  out << " labelOp: Operation: " << labelOp.op() << " Stack Size: " << labelOp.stackSize()
      << " MPLS Label Stack: TOP ( ";
  for (std::size_t i = labelOp.stackSize(); i > 0; --i) {
    out << labelOp.label(i - 1) << ' ';
  }
  out << ") BOTTOM";
}
template <class Info>
struct Printed {
  const Info& info;
  friend std::ostream& operator<<(std::ostream& out, const Printed& printed) {
    printInfo(out, printed.info);
    return out;
  }
};

}  // namespace

TunnelFibWriter::TunnelFibWriter(Zol::Ptr<TunnelFib> tunnelFib) : tunnelFib_(std::move(tunnelFib)) {
  if (!tunnelFib_) {
    throw Zol::InternalException("TunnelFibWriter without a tunnel FIB");
  }
  handleInitialized();
}

void TunnelFibWriter::handleInitialized() {
  FASTLOG_TRACE(8, "virtual void Tunnel::TunnelTable::TunnelFibWriter::handleInitialized()");
  countReferences();
  forEachEncapKind([this](auto kind) {
    const auto& encaps = decltype(kind)::encaps(*tunnelFib_);
    std::uint32_t& inheritedEnd = inheritedEnd_[static_cast<std::size_t>(kind.type)];
    walkSafely(encaps, [&](const auto& hint) {
      inheritedEnd = std::max(inheritedEnd, hint.key().index() + 1);
      if (const auto info = encapInfo(*tunnelFib_, kind, hint.key())) {
        byContent_.add(hint.key(), *info);
      }
    });
  });
  initialized_ = true;
}

void TunnelFibWriter::countReferences() {
  const auto& entries = tunnelFib_->entry();
  const std::uint64_t corruptionsBefore = entries.corruptions();
  walkSafely(entries, [&](const auto& hint) {
    TunnelFibEntry fibEntry;
    if (!readSafely(&entries, hint.key(), fibEntry)) {
      return;
    }
    for (const TunnelViaArray* vias : {&fibEntry.tunnelVia(), &fibEntry.backupTunnelVia()}) {
      for (const TunnelVia& via : *vias) {
        if (via.encapId().encapType() != EncapType::invalid) {
          encapIdRefCount_.countIs(via.encapId(), encapIdRefCount(via.encapId()) + 1);
        }
      }
    }
  });
  areCountsComplete_ = entries.corruptions() == corruptionsBefore;
}

void TunnelFibWriter::deleteUnreferencedEncaps() {
  if (!areCountsComplete_) {
    return;
  }
  forEachEncapKind([this](auto kind) {
    std::vector<EncapId> unreferenced;
    walkSafely(decltype(kind)::encaps(*tunnelFib_), [&](const auto& hint) {
      if (encapIdRefCount(hint.key()) == 0) {
        unreferenced.push_back(hint.key());
      }
    });
    for (const EncapId id : unreferenced) {
      deleteEncap(id);
    }
  });
}

// ---- entries -------------------------------------------------------------------------------------------------------

void TunnelFibWriter::addFibEntry(const ConsolidatedTunnelFibEntry& consFibEntry) {
  FASTLOG_TRACE(8,
                "void Tunnel::TunnelTable::TunnelFibWriter::addFibEntry(const "
                "Tunnel::TunnelTable::ConsolidatedTunnelFibEntry&)"
                    << " consFibEntry: " << consFibEntry);
  TunnelFibEntry standing;
  const bool stands = readSafely(&tunnelFib_->entry(), consFibEntry.tunnelId(), standing);
  if (stands && isWritten(standing, consFibEntry)) {
    return;
  }
  change([&] {
    // New references before old ones go: a record that both entries carry must not vanish in between.
    tunnelFib_->entry().entryIs(registerConsFibEntryForWriting(consFibEntry));
    if (stands) {
      deregisterEncaps(standing);
    }
  });
}

// Entry and records change as one. When that fails nothing was written, and counts and index, which ran ahead, go back:
// a full FIB is tried again and again, so each failure must leave everything as it was.
template <class F>
void TunnelFibWriter::change(F&& f) {
  const std::uint64_t sequence = tunnelFib_->entry().collectionControl().sequence();
  encapIdRefCount_.changeBegin();
  byContent_.changeBegin();
  try {
    tunnelFib_->entry().change(std::forward<F>(f));
  } catch (...) {
    if (tunnelFib_->entry().collectionControl().sequence() == sequence) {  // else whoever heard of the change raised it
      encapIdRefCount_.takeBack();
      byContent_.takeBack();
    }
    encapIdRefCount_.changeEnd();
    byContent_.changeEnd();
    throw;
  }
  encapIdRefCount_.changeEnd();
  byContent_.changeEnd();
}

void TunnelFibWriter::deleteFibEntry(const TunnelId& tunnelId) {
  FASTLOG_TRACE(8, "void Tunnel::TunnelTable::TunnelFibWriter::deleteFibEntry(const Tunnel::TunnelTable::TunnelId&)"
                       << " tunnelId: " << tunnelId);
  TunnelFibEntry standing;
  const bool isReadable = readSafely(&tunnelFib_->entry(), tunnelId, standing);
  bool isDeleted = false;
  change([&] {
    isDeleted = tunnelFib_->entry().entryDel(tunnelId);  // deletes a damaged entry too
    if (isDeleted && isReadable) {
      deregisterEncaps(standing);
    }
  });
  if (!isDeleted) {
    return;
  }
  FASTLOG_TRACE(7, "  tunnelId " << tunnelId << " entry deleted");
  FASTLOG_TRACE(5, "tunnelId " << tunnelId << " withdrawn from the FIB");
}

// Entries are written in the order of their vias, so place by place decides almost always. Only an entry with several
// vias that differ may still be the same set in another order.
bool TunnelFibWriter::isWritten(const TunnelFibEntry& fibEntry, const ConsolidatedTunnelFibEntry& consFibEntry) const {
  if (fibEntry.tunnelVias() != consFibEntry.viaInfos() ||
      fibEntry.backupTunnelVias() != consFibEntry.backupViaInfos() ||
      fibEntry.arePrimaryViasUsable() != consFibEntry.arePrimaryViasUsable()) {
    return false;
  }
  if (areWritten(fibEntry.tunnelVia(), consFibEntry.viaInfo()) &&
      areWritten(fibEntry.backupTunnelVia(), consFibEntry.backupViaInfo())) {
    return true;
  }
  return (fibEntry.tunnelVias() > 1 || fibEntry.backupTunnelVias() > 1) &&
         ConsolidatedTunnelFibEntry::fromTunnelFibEntry(fibEntry, *tunnelFib_) == consFibEntry;
}

bool TunnelFibWriter::areWritten(const TunnelViaArray& written, const ViaInfoSet& vias) const {
  std::size_t i = 0;
  for (const ViaAndTunnelInfo& via : vias) {
    if (!isWrittenAs(written[i++], via)) {
      return false;
    }
  }
  return true;
}

bool TunnelFibWriter::isWrittenAs(const TunnelVia& written, const ViaAndTunnelInfo& via) const {
  if (static_cast<const Via&>(written) != via.via() || written.encapId().encapType() != via.type()) {
    return false;
  }
  bool isEqual = via.type() == EncapType::invalid;
  withEncapKind(via.type(), [&](auto kind) {
    using Kind = decltype(kind);
    isEqual = encapInfo(*tunnelFib_, kind, written.encapId()).value_or(typename Kind::Info()) == (via.*Kind::info)();
  });
  return isEqual;
}

TunnelFibEntry TunnelFibWriter::registerConsFibEntryForWriting(const ConsolidatedTunnelFibEntry& consFibEntry) {
  TunnelFibEntry fibEntry(consFibEntry.tunnelId());
  fibEntry.arePrimaryViasUsableIs(consFibEntry.arePrimaryViasUsable());
  const auto registerVias = [this](const ViaInfoSet& vias, TunnelViaArray& to) {
    to.sizeIs(TunnelViaIndex(vias.empty() ? 0 : vias.size() - 1).value() + (vias.empty() ? 0 : 1));
    std::size_t i = 0;
    for (const ViaAndTunnelInfo& via : vias) {
      to[i++] = registerViaAndTunnelInfo(via);
    }
  };
  registerVias(consFibEntry.viaInfo(), fibEntry.tunnelViaRef());
  ZOL_ASSERT_TEXT(consFibEntry.backupViaInfos() <= TunnelViaIndex::maxSize(),
                  "consFibEntry.backupViaInfos() <= TunnelViaIndex::maxSize()");
  registerVias(consFibEntry.backupViaInfo(), fibEntry.backupTunnelViaRef());
  return fibEntry;
}

TunnelVia TunnelFibWriter::registerViaAndTunnelInfo(const ViaAndTunnelInfo& info) {
  TunnelVia via(info.via(), EncapId());
  withEncapKind(info.type(), [&](auto kind) { via.encapIdIs(insertEncap((info.*decltype(kind)::info)())); });
  return via;
}

void TunnelFibWriter::deregisterEncaps(const TunnelFibEntry& fibEntry) {
  for (const TunnelViaArray* vias : {&fibEntry.tunnelVia(), &fibEntry.backupTunnelVia()}) {
    for (const TunnelVia& via : *vias) {
      releaseEncap(via.encapId());
    }
  }
}

// ---- encapsulations ------------------------------------------------------------------------------------------------

template <class Info>
EncapId TunnelFibWriter::insertEncap(const Info& info) {
  using Kind = EncapKind<Info>;
  FASTLOG_TRACE(8, "Tunnel::TunnelFib::EncapId Tunnel::TunnelTable::TunnelFibWriter::"
                       << Kind::insertName << "(const " << Info::typeName() << "&)" << Printed<Info>{info});
  EncapId id = byContent_.find(Kind::type, info, [&](EncapId candidate) {
    const auto present = encapInfo(*tunnelFib_, Kind{}, candidate);
    return present && *present == info;
  });
  if (!id) {
    id = nextFreeEncapId(Kind::type);
    Kind::encaps(*tunnelFib_).entryIs({id, info});
    byContent_.add(id, info);
    FASTLOG_TRACE(6, "  Created " << Kind::word << " encapId " << id);
  } else {
    FASTLOG_TRACE(6, "  Found existing " << Kind::word << " encapId " << id);
  }
  const std::uint32_t count = encapIdRefCountInc(id, 1);
  FASTLOG_TRACE(6, "  EncapId " << id << " refCount: " << count);
  return id;
}

EncapId TunnelFibWriter::insertGreEncap(const GreTunnelInfo& info) { return insertEncap(info); }
EncapId TunnelFibWriter::insertIpsecVtiEncap(const IpsecVtiTunnelInfo& info) { return insertEncap(info); }
EncapId TunnelFibWriter::insertIpsecGreEncap(const IpsecGreTunnelInfo& info) { return insertEncap(info); }
EncapId TunnelFibWriter::insertLabelStackEncap(const Ipkit::MplsLabelOperation& labelOp) {
  return insertEncap(labelOp);
}

void TunnelFibWriter::releaseEncap(EncapId encapId) {
  if (encapId.encapType() == EncapType::invalid) {
    return;  // such a via took no reference
  }
  if (areCountsComplete_) {
    decrementEncapRef(encapId);
    return;
  }
  // This reference may be one that was not counted, and the count that of another via: the record stays.
  const std::uint32_t count = encapIdRefCount(encapId);
  if (count > 0) {
    encapIdRefCountDec(encapId, 1);
  }
  FASTLOG_TRACE(6, "  encapId " << encapId << " counted: " << count << ", no deletion done.");
}

void TunnelFibWriter::decrementEncapRef(EncapId encapId) {
  FASTLOG_TRACE(8,
                "void Tunnel::TunnelTable::TunnelFibWriter::decrementEncapRef(Tunnel::TunnelFib::EncapId) " << encapId);
  ZOL_ASSERT_TEXT(encapId.encapType() != EncapType::invalid && encapIdRefCount(encapId) > 0,
                  "encapIdRefCount( encapId ) > 0");
  const std::uint32_t count = encapIdRefCountDec(encapId, 1);
  if (count > 0) {
    FASTLOG_TRACE(6, "  encapId " << encapId << " refCount: " << count);
    return;
  }
  deleteEncap(encapId);
  FASTLOG_TRACE(6, "  encapId " << encapId << " deleted");
}

void TunnelFibWriter::deleteEncap(EncapId encapId) {
  withEncapKind(encapId.encapType(), [&](auto kind) {
    if (const auto info = encapInfo(*tunnelFib_, kind, encapId)) {
      byContent_.remove(encapId, *info);
    }
    decltype(kind)::encaps(*tunnelFib_).entryDel(encapId);
  });
}

EncapId TunnelFibWriter::nextFreeEncapId(EncapType type) {
  const EncapId startingEncapId(type, nextEncapIndex(type));
  EncapId candidateEncapId = startingEncapId;
  // The index stays at the id handed out; the next search steps over it.
  while (encapIdUsed(candidateEncapId)) {
    candidateEncapId = EncapId(type, nextEncapIndexInc(type, 1));
    ZOL_ASSERT_TEXT(candidateEncapId != startingEncapId,
                    "candidateEncapId != startingEncapId && \"all encapIndex values are allocated!\"");
  }
  return candidateEncapId;
}

// The table is asked only where a record may stand without a count.
bool TunnelFibWriter::encapIdUsed(EncapId encapId) const {
  bool isUsed = encapIdRefCount(encapId) > 0;
  const bool isOfAKind = withEncapKind(encapId.encapType(), [&](auto kind) {
    const bool mayStand = !areCountsComplete_ || encapId.index() < inheritedEnd_[static_cast<std::size_t>(kind.type)];
    isUsed = isUsed || (mayStand && hasSafely(decltype(kind)::encaps(*tunnelFib_), encapId));
  });
  ZOL_ASSERT_TEXT(isOfAKind, "0 && \"This function should not be used for checking invalidEncaps.\"");
  return isUsed;
}

std::uint32_t TunnelFibWriter::nextEncapIndex(EncapType type) const {
  const std::uint32_t* const index = nextEncapIndex_.find(type);
  return index == nullptr ? 0 : *index;
}

std::uint32_t TunnelFibWriter::encapIdRefCountInc(EncapId id, std::uint32_t by) {
  const std::uint32_t before = encapIdRefCount(id);
  encapIdRefCount_.countIs(id, before + by);
  return before + by;
}

std::uint32_t TunnelFibWriter::encapIdRefCountDec(EncapId id, std::uint32_t by) {
  const std::uint32_t before = encapIdRefCount(id);
  encapIdRefCount_.countIs(id, before - by);
  return before - by;
}

}  // namespace Tunnel::TunnelTable
