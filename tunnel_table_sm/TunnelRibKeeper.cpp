#include "tunnel_table_sm/TunnelRibKeeper.h"

#include <algorithm>

#include "tunnel/TunnelTable.h"
#include "tunnel_table_sm/WalkRange.h"

namespace Tunnel::TunnelTable {

bool TunnelRibKeeper::isSettled() const {
  const TunnelRibBuilderSm* const builder = builder_();
  return builder != nullptr && builder->isDrained() && builder->heldUp() == 0;
}

void TunnelRibKeeper::visit(unsigned, Memtab::Bytes key, Memtab::Bytes record) {
  if (isSettled()) {
    const TunnelRibEntry entry = rib_->recordOf(key, record);
    if (!builder_()->isAsFiled(entry, type_)) {
      wrong_.push_back(entry.tep());
    }
  }
}

// Whether an entry was wrong shows when it is written: it may be as it must be for reasons that isAsFiled() does not
// know.
std::vector<std::string> TunnelRibKeeper::visited(unsigned, std::uint64_t, bool) {
  std::vector<std::string> corrected;
  for (const Ipkit::IpGenPrefix& tep : std::exchange(wrong_, {})) {
    const std::uint64_t before = rib_->collectionControl().sequence();
    TunnelRibBuilderSm* const builder = builder_();  // a watcher of a write may have replaced the last one
    if (builder == nullptr) {
      break;
    }
    builder->rewriteEndpoint(tep, type_);
    if (rib_->collectionControl().sequence() != before) {
      corrected.push_back(Zol::stringOf(tep));
    }
  }
  return corrected;
}

std::vector<std::string> TunnelRibKeeper::review(unsigned, std::uint64_t first, std::uint64_t last, bool) {
  std::vector<std::string> unreadable;
  if (TunnelRibBuilderSm* const builder = builder_()) {
    const auto firstHash = static_cast<std::uint32_t>(first >> 32);
    const auto lastHash = static_cast<std::uint32_t>(last >> 32);
    for (const Ipkit::IpGenPrefix& tep : builder->reviewEndpoints(firstHash, lastHash, type_)) {
      unreadable.push_back(Zol::stringOf(tep));
    }
  }
  return unreadable;
}

std::string TunnelRibKeeper::nameOf(unsigned, Memtab::Bytes key) const {
  Zol::ByteReader in(key);
  Ipkit::IpGenPrefix tep;
  decodeValue(in, tep);
  return in.ok() ? Zol::stringOf(tep) : "";
}

// ---- the builder's part --------------------------------------------------------------------------------------------

bool TunnelRibBuilderSm::isAsFiled(const TunnelRibEntry& entry, std::optional<TunnelType> type) const {
  const Zol::Ptr<TunnelTableOrderedEntry> candidates = internalTunnelRib_->entry(entry.tep());
  if (!candidates || entry.tunnelIds() == 0) {
    return false;
  }
  const TunnelType itsType = entry.tunnelId(std::size_t(0)).tunnelType();
  std::size_t expected = 0;
  for (auto it = candidates->entry().begin(); it; ++it) {
    const bool isPeer = it.key().tunnelId().tunnelType() == itsType && (type || it.key().pref() == entry.pref());
    expected += isPeer ? 1 : 0;
    if (!type && it.key().pref() < entry.pref()) {
      return false;  // a better one
    }
  }
  const bool hasAll = entry.isFull() || expected == entry.tunnelIds();
  return hasAll && (!type || itsType == *type) &&
         std::all_of(entry.tunnelId().begin(), entry.tunnelId().end(), [&](const TunnelId& id) {
           return id.tunnelType() == itsType && tunnelIdToTep(id).tep() == entry.tep();
         });
}

void TunnelRibBuilderSm::rewriteEndpoint(const Ipkit::IpGenPrefix& tep, std::optional<TunnelType> type) {
  const Zol::Ptr<TunnelRibBuilderSm> self(this);  // watchers of a write may replace this builder
  doRewriteEndpoint(tep, type);
  if (reacts() && heldUp() != 0) {
    retryTask_->scheduleTaskLowestDelay(heldUpRetryDelay);
  }
}

void TunnelRibBuilderSm::doRewriteEndpoint(const Ipkit::IpGenPrefix& tep, std::optional<TunnelType> type) {
  if (type) {
    StagedTunnelRib& proto = assertProtoTunnelRib(*type);
    TunnelRibEntry& ribEntry = protoRibEntryOf(*type, tep);
    ribEntry = TunnelRibEntry();
    if (const Zol::Ptr<TunnelTableOrderedEntry> candidates = internalTunnelRib_->entry(tep)) {
      for (auto it = candidates->entry().begin(); it; ++it) {
        if (it.key().tunnelId().tunnelType() == *type && !ribEntry.isFull()) {
          ribEntry.tepIs(tep);
          ribEntry.addTunnelId(it.key().tunnelId());
        }
      }
    }
    proto.write();
    return;
  }
  ribEntryOf(tep) = TunnelRibEntry();
  doSelectBestAndUpdateTunnelRib(tep);
  for (StagedTunnelRib::Staged& staged : tunnelRib_.touched()) {
    if (staged.now.tunnelIds() != 0) {
      doRefreshMetrics(staged, freshEntry(staged.now.smallestTunnelId()));
    }
  }
  tunnelRib_.write();
}

std::vector<Ipkit::IpGenPrefix> TunnelRibBuilderSm::reviewEndpoints(std::uint32_t firstHash, std::uint32_t lastHash,
                                                                    std::optional<TunnelType> type) {
  const Zol::Ptr<TunnelRibBuilderSm> self(this);  // watchers of a write may replace this builder
  const TunnelRib& rib = type ? *assertProtoTunnelRib(*type).rib() : *tunnelRib();
  std::vector<Ipkit::IpGenPrefix> teps;
  for (auto it = internalTunnelRib_->entry().fromHash(firstHash); it && it.key().hash() <= lastHash; ++it) {
    teps.push_back(it.key());
  }
  std::vector<Ipkit::IpGenPrefix> unreadable;
  const auto rewriteUnlessRight = [&](const Ipkit::IpGenPrefix& tep) {
    TunnelRibEntry entry;
    bool isReadable = true;
    try {
      rib.read(tep, entry);
    } catch (const Memtab::CorruptionException&) {
      isReadable = false;
      unreadable.push_back(tep);
    }
    if (reacts() && (!isReadable || (isDrained() && !isAsFiled(entry, type)))) {
      rewriteEndpoint(tep, type);
    }
  };
  std::for_each(teps.begin(), teps.end(), rewriteUnlessRight);
  teps.clear();
  walkRange(rib, firstHash, lastHash, [&](const Ipkit::IpGenPrefix& tep) {
    if (!internalTunnelRib_->entry(tep)) {
      teps.push_back(tep);
    }
  });
  std::for_each(teps.begin(), teps.end(), rewriteUnlessRight);
  return unreadable;
}

}  // namespace Tunnel::TunnelTable
