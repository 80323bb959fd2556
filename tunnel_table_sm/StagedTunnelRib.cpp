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

bool StagedTunnelRib::stageKept(const Ipkit::IpGenPrefix& tep, Zol::HashCollection<Ipkit::IpGenPrefix, Staged>& all) {
  Staged* const kept = all.empty() ? nullptr : all.find(tep);
  if (kept == nullptr) {
    return false;
  }
  Staged& staged = touched_.emplace_back(std::move(*kept));
  all.erase(tep);
  staged.kept = staged.now;
  staged.isHeld = false;
  return true;
}

bool StagedTunnelRib::stage(const Ipkit::IpGenPrefix& tep) {
  if (stageKept(tep, unwritten_[0]) || stageKept(tep, unwritten_[1]) || stageKept(tep, held_)) {
    return true;
  }
  Staged& staged = touched_.emplace_back();
  staged.tep = tep;
  try {
    rib_->read(tep, staged.stored);
  } catch (const Memtab::CorruptionException& damage) {
    rib_->corruptionDetected(damage.what());
    staged.isDamaged = true;
  }
  staged.now = staged.stored;
  return !staged.isDamaged;
}

// A watcher of the table may cause another review: the staged entries leave first.
void StagedTunnelRib::write() {
  std::vector<Staged> touched;
  touched.swap(touched_);
  for (Staged& each : touched) {
    if (each.isHeld) {
      held_.insertOrAssign(each.tep, std::move(each));
    } else if (!each.isInTable() && each.now.tunnelIds() != 0 && !unwritten_[0].empty()) {
      unwritten_[1].insertOrAssign(each.tep, std::move(each));  // replacements come first
    } else {
      write(each);
    }
  }
  touched.clear();
  touched_.swap(touched);  // keeps the memory
}

bool StagedTunnelRib::write(Staged& staged) {
  try {
    if (staged.now.tunnelIds() == 0) {
      if (staged.isInTable() && rib_->entryDel(staged.tep)) {
        isSpaceReleased_ = true;
        FASTLOG_TRACE(5, "tep " << staged.tep << " withdrawn from ribId " << rib_->id());
      }
    } else if (staged.isDamaged || !isSame(staged.stored, staged.now)) {
      rib_->entryIs(staged.now);
      isSpaceReleased_ = staged.now.tunnelIds() < staged.stored.tunnelIds() || isSpaceReleased_;
    }
    return true;
  } catch (const Memtab::NoSpace& full) {
    FASTLOG_TRACE(3, "No space for tep " << staged.tep << " in rib id " << rib_->id() << ": " << full.what());
    if (unwritten() == 0) {
      static Fastlog::RingMessage message("TunnelRibBuilderSm", __LINE__, "No space for tep %s in rib id %i: %s");
      message.write(Zol::stringOf(staged.tep), rib_->id(), full.what());
    }
    unwrittenLike(staged).insertOrAssign(staged.tep, std::move(staged));
    return false;
  }
}

bool StagedTunnelRib::writeNext(Unwritten& kind) {
  auto it = kind.from(kind.next);
  if (!it) {
    it = kind.begin();
  }
  Staged staged = std::move(it.value());
  const Ipkit::IpGenPrefix tep = it.key();
  ++it;
  kind.next = it ? it.key() : Ipkit::IpGenPrefix();
  kind.erase(tep);
  return write(staged);
}

}  // namespace Tunnel::TunnelTable
