#include "tunnel_table_sm/TunnelFibKeeper.h"

#include <algorithm>

#include "tunnel/EncapKind.h"
#include "tunnel_table_sm/WalkRange.h"

namespace Tunnel::TunnelTable {
namespace {

// False: the record is damaged.
template <class Map>
bool isReadable(const Map& map, const typename Map::Key& key) {
  try {
    (void)map.has(key);
    return true;
  } catch (const Memtab::CorruptionException&) {
    return false;
  }
}

}  // namespace

void TunnelFibKeeper::visit(unsigned collection, Memtab::Bytes key, Memtab::Bytes record) {
  if (collection != 0) {
    return;
  }
  const TunnelFibEntry entry = sm_->tunnelFib()->entry().recordOf(key, record);
  bool isComplete = true;
  for (const TunnelViaArray* const vias : {&entry.tunnelVia(), &entry.backupTunnelVia()}) {
    for (const TunnelVia& via : *vias) {
      if (via.encapId().encapType() != EncapType::invalid) {
        carried_.push_back(via.encapId());
        isComplete = isComplete && hasEncap(via.encapId());
      }
    }
  }
  if (!isComplete) {
    incomplete_.push_back(entry);
  }
}

bool TunnelFibKeeper::hasEncap(EncapId id) const {
  bool hasEncap = false;
  withEncapKind(id.encapType(), [&](auto kind) {
    try {
      hasEncap = decltype(kind)::encaps(*sm_->tunnelFib()).has(id);
    } catch (const Memtab::CorruptionException&) {
      hasEncap = false;
    }
  });
  return hasEncap;
}

void TunnelFibKeeper::visitedAgain() {
  carried_.clear();
  incomplete_.clear();
}

std::vector<std::string> TunnelFibKeeper::visited(unsigned collection, std::uint64_t, bool isSound) {
  std::vector<std::string> restored;
  if (collection != 0) {
    return restored;
  }
  if (!isCounting_) {
    countedFrom_ = sequence();
    isCounting_ = true;
  }
  for (const EncapId id : carried_) {
    counts_.countIs(id, counts_.count(id) + 1);
  }
  isCountSound_ = isCountSound_ && isSound;
  const std::vector<TunnelFibEntry> incomplete = std::move(incomplete_);
  visitedAgain();
  for (const TunnelFibEntry& entry : incomplete) {
    restoreEncaps(entry, restored);
  }
  return restored;
}

// The finding has the vias in the order of the entry. If they differ, or an id was written with another content, the
// tables have changed: a review writes the entry with other encapsulations. Nothing is written before all is compared.
void TunnelFibKeeper::restoreEncaps(const TunnelFibEntry& entry, std::vector<std::string>& restored) {
  const TunnelId& tunnel = entry.tunnelId();
  const TunnelFibFinding finding = sm_->finding(tunnel);
  bool isSame = !finding.isWaiting;
  const auto compare = [&](const TunnelViaArray& written, const ViaInfoSet& computed, bool restores) {
    std::size_t i = 0;
    for (const ViaAndTunnelInfo& via : computed) {
      isSame = isSame && i < written.size() && static_cast<const Via&>(written[i]) == via.via() &&
               written[i].encapId().encapType() == via.type();
      if (!isSame) {
        return;
      }
      const EncapId id = written[i++].encapId();
      if (id.encapType() == EncapType::invalid || hasEncap(id)) {
        continue;
      }
      withEncapKind(id.encapType(), [&](auto kind) {
        using Kind = decltype(kind);
        isSame = sm_->tunnelFibWriter()->isContentOf(id, (via.*Kind::info)());
        if (isSame && restores) {
          Kind::encaps(*sm_->tunnelFib()).entryIs({id, (via.*Kind::info)()});
          restored.push_back("encapsulation " + Zol::stringOf(id) + " of " + Zol::stringOf(tunnel));
        }
      });
    }
    isSame = isSame && i == written.size();
  };
  try {
    for (const bool restores : {false, true}) {
      if (isSame) {
        compare(entry.tunnelVia(), finding.entry.viaInfo(), restores);
        compare(entry.backupTunnelVia(), finding.entry.backupViaInfo(), restores);
      }
    }
  } catch (const Memtab::NoSpace&) {
    isSame = false;
  }
  if (!isSame) {
    sm_->tunnelForReviewIs(tunnel, true);
  }
}

// Counts mean something when no entry has changed meanwhile.
void TunnelFibKeeper::passEnded() {
  if (isCounting_ && isCountSound_ && sequence() == countedFrom_) {
    sm_->tunnelFibWriter()->encapIdRefCountsAre(counts_);
  }
}

std::vector<std::string> TunnelFibKeeper::review(unsigned collection, std::uint64_t first, std::uint64_t last,
                                                 bool isAll) {
  std::vector<std::string> unreadable;
  if (collection != 0) {
    return unreadable;
  }
  const auto& entries = sm_->tunnelFib()->entry();
  std::vector<TunnelId> all;
  std::vector<TunnelId> damaged;
  const auto file = [&](const TunnelId& tunnel) {
    all.push_back(tunnel);
    if (!isReadable(entries, tunnel)) {
      damaged.push_back(tunnel);
      unreadable.push_back(Zol::stringOf(tunnel));
    }
  };
  walkRange(entries, static_cast<std::uint32_t>(first >> 32), static_cast<std::uint32_t>(last >> 32), file);
#define TUNNEL_FIB_WALK(attribute, Table, handler)                                                                \
  if (sm_->attribute()) {                                                                                         \
    walkRange(*sm_->attribute(), static_cast<std::uint32_t>(first >> 32), static_cast<std::uint32_t>(last >> 32), \
              file);                                                                                              \
  }
  TUNNEL_FIB_TABLES(TUNNEL_FIB_WALK)
#undef TUNNEL_FIB_WALK
  for (const TunnelId& tunnel : isAll || damaged.empty() ? all : damaged) {
    sm_->tunnelForReviewIs(tunnel, true);
  }
  return unreadable;
}

std::string TunnelFibKeeper::nameOf(unsigned collection, Memtab::Bytes key) const {
  Zol::ByteReader in(key);
  if (collection == 0) {
    TunnelId tunnel;
    decodeValue(in, tunnel);
    return in.ok() ? Zol::stringOf(tunnel) : "";
  }
  EncapId id;
  decodeValue(in, id);
  return in.ok() ? "encapsulation " + Zol::stringOf(id) : "";
}

// The references of entries that were damaged and written again were never given back, and entries that were damaged
// when references were counted have none.
void TunnelFibWriter::encapIdRefCountsAre(const EncapRefCounts& counted) {
  std::vector<EncapId> unreferenced;
  encapIdRefCount_.forEach([&](EncapId id, std::uint32_t) {
    if (counted.count(id) == 0) {
      unreferenced.push_back(id);
    }
  });
  counted.forEach([this](EncapId id, std::uint32_t count) { encapIdRefCount_.countIs(id, count); });
  for (const EncapId id : unreferenced) {
    encapIdRefCount_.countIs(id, 0);
    deleteEncap(id);
  }
  if (!areCountsComplete_) {
    areCountsComplete_ = true;
    deleteUnreferencedEncaps();
  }
}

}  // namespace Tunnel::TunnelTable
