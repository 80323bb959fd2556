#include "tunnel/TunnelRib.h"

#include <algorithm>

#include "runtime/Zol/Assert.h"

namespace Tunnel::TunnelTable {

TunnelIdCollIndex::TunnelIdCollIndex(std::size_t value) : value_(value) {
  if (value > max) {
    throw Zol::RangeException(
        "TunnelIdCollIndex::value < TunnelIdCollIndex::min or > TunnelIdCollIndex::max not "
        "allowed");
  }
}

bool TunnelRibEntry::hasTunnelId(const TunnelId& id) const {
  return std::find(tunnelId_.begin(), tunnelId_.end(), id) != tunnelId_.end();
}

TunnelId TunnelRibEntry::smallestTunnelId() const {
  ZOL_ASSERT(!tunnelId_.empty());
  return *std::min_element(tunnelId_.begin(), tunnelId_.end());
}

void TunnelRibEntry::addTunnelId(const TunnelId& id) {
  if (!hasTunnelId(id)) {
    ZOL_ASSERT_TEXT(!tunnelId_.full(), "tunnelId_.validateSize()");
    tunnelId_.append(id);
  }
}

void TunnelRibEntry::delTunnelId(const TunnelId& id) {
  const auto* const at = std::find(tunnelId_.begin(), tunnelId_.end(), id);
  if (at != tunnelId_.end()) {
    tunnelId_.swapRemove(static_cast<std::size_t>(at - tunnelId_.begin()));
  }
}

}  // namespace Tunnel::TunnelTable

template class Memtab::MemtabMap<Tunnel::TunnelTable::TunnelRibEntry>;
