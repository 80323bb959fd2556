#include "tunnel_table_sm/StagedTunnelRib.h"

#include <algorithm>

#include "tunnel/TunnelTable.h"

namespace Tunnel::TunnelTable {
namespace {

bool holdSameTunnels(const TunnelIdArray& a, const TunnelIdArray& b) {
  if (a == b) {
    return true;
  }
  if (a.size() != b.size()) {
    return false;
  }
  const auto sorted = [](TunnelIdArray ids) {
    std::sort(ids.begin(), ids.end());
    return ids;
  };
  return sorted(a) == sorted(b);
}

bool isSame(const TunnelRibEntry& a, const TunnelRibEntry& b) {
  return a.pref() == b.pref() && a.metrics() == b.metrics() && holdSameTunnels(a.tunnelId(), b.tunnelId());
}

}  // namespace

TunnelRibEntry& StagedTunnelRib::entry(const Ipkit::IpGenPrefix& tep) {
  for (Staged& each : touched_) {
    if (each.tep == tep) {
      return each.now;
    }
  }
  Staged& staged = touched_.emplace_back();
  staged.tep = tep;
  readSafely(rib_.get(), tep, staged.standing);
  staged.now = staged.standing;
  return staged.now;
}

void StagedTunnelRib::write() {
  for (const Staged& each : touched_) {
    if (each.now.tunnelIds() == 0) {
      if (each.standing.tunnelIds() != 0) {
        rib_->entryDel(each.tep);
      }
    } else if (!isSame(each.standing, each.now)) {
      rib_->entryIs(each.now);
    }
  }
  touched_.clear();
}

}  // namespace Tunnel::TunnelTable
