#include "tunnel_table_sm/StagedTunnelRib.h"

#include <algorithm>

#include "tunnel/TunnelTable.h"

namespace Tunnel::TunnelTable {
namespace {

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

StagedTunnelRib::Staged& StagedTunnelRib::stage(const Ipkit::IpGenPrefix& tep) {
  Staged& staged = touched_.emplace_back();
  staged.tep = tep;
  try {
    rib_->read(tep, staged.standing);
  } catch (const Memtab::CorruptionException& damage) {
    rib_->corruptionDetected(damage.what());
    staged.isDamaged = true;
  }
  staged.now = staged.standing;
  return staged;
}

// Who hears of a write may come back for another review: what is staged leaves first.
void StagedTunnelRib::write() {
  std::vector<Staged> touched;
  touched.swap(touched_);
  for (const Staged& each : touched) {
    if (each.now.tunnelIds() == 0) {
      if (each.isDamaged || each.standing.tunnelIds() != 0) {
        rib_->entryDel(each.tep);
      }
    } else if (each.isDamaged || !isSame(each.standing, each.now)) {
      rib_->entryIs(each.now);
    }
  }
  touched.clear();
  touched_.swap(touched);  // keeps the memory
}

}  // namespace Tunnel::TunnelTable
