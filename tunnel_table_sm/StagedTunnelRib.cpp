#include "tunnel_table_sm/StagedTunnelRib.h"

#include <algorithm>

#include "runtime/Fastlog/RingMessage.h"
#include "runtime/Fastlog/TraceHelper.h"
#include "tunnel/TunnelTable.h"

namespace Tunnel::TunnelTable {
namespace {

FASTLOG_DEFAULT_HANDLE("TunnelRibBuilderSm")

bool holdSameTunnels(const TunnelIdArray& a, const TunnelIdArray& b) {
  constexpr std::size_t fewIds = 16;  // up to here comparing each with each beats sorting copies
  if (a.size() != b.size() || a.size() <= fewIds) {
    return a.size() == b.size() && std::is_permutation(a.begin(), a.end(), b.begin());
  }
  const auto sorted = [](TunnelIdArray ids) {
    std::sort(ids.begin(), ids.end());
    return ids;
  };
  return a == b || sorted(a) == sorted(b);
}

bool isSame(const TunnelRibEntry& a, const TunnelRibEntry& b) {
  return a.pref() == b.pref() && a.metrics() == b.metrics() && holdSameTunnels(a.tunnelId(), b.tunnelId());
}

}  // namespace

StagedTunnelRib::Staged* StagedTunnelRib::find(const Ipkit::IpGenPrefix& tep) {
  const auto at =
      std::find_if(touched_.begin(), touched_.end(), [&tep](const Staged& each) { return each.tep == tep; });
  return at == touched_.end() ? nullptr : &*at;
}

bool StagedTunnelRib::stage(const Ipkit::IpGenPrefix& tep) {
  if (Staged* const kept = unwritten_.empty() ? nullptr : unwritten_.find(tep)) {
    touched_.push_back(std::move(*kept));
    unwritten_.erase(tep);
    return true;
  }
  Staged& staged = touched_.emplace_back();
  staged.tep = tep;
  try {
    rib_->read(tep, staged.standing);
  } catch (const Memtab::CorruptionException& damage) {
    rib_->corruptionDetected(damage.what());
    staged.isDamaged = true;
  }
  staged.now = staged.standing;
  return !staged.isDamaged;
}

// Who hears of a write may come back for another review: what is staged leaves first.
void StagedTunnelRib::write() {
  std::vector<Staged> touched;
  touched.swap(touched_);
  for (Staged& each : touched) {
    try {
      write(each);
    } catch (const Memtab::NoSpace& full) {
      FASTLOG_TRACE(3, "No space for tep " << each.tep << " in rib id " << rib_->id() << ": " << full.what());
      if (unwritten_.empty()) {
        static Fastlog::RingMessage message("TunnelRibBuilderSm", __LINE__, "No space for tep %s in rib id %i: %s");
        message.write(Zol::stringOf(each.tep), rib_->id(), full.what());
      }
      unwritten_.insertOrAssign(each.tep, std::move(each));
    }
  }
  touched.clear();
  touched_.swap(touched);  // keeps the memory
}

void StagedTunnelRib::write(const Staged& staged) {
  if (staged.now.tunnelIds() == 0) {
    if (staged.isDamaged || staged.standing.tunnelIds() != 0) {
      rib_->entryDel(staged.tep);
      FASTLOG_TRACE(5, "tep " << staged.tep << " withdrawn from ribId " << rib_->id());
    }
  } else if (staged.isDamaged || !isSame(staged.standing, staged.now)) {
    rib_->entryIs(staged.now);
  }
}

bool StagedTunnelRib::writeNext() {
  auto it = unwritten_.from(next_);
  if (!it) {
    it = unwritten_.begin();
  }
  const Ipkit::IpGenPrefix tep = it.key();
  ++it;
  next_ = it ? it.key() : Ipkit::IpGenPrefix();
  stage(tep);
  write();
  return !unwritten_.has(tep);
}

}  // namespace Tunnel::TunnelTable
