#include "tunnel/TunnelRibConfig.h"

#include <algorithm>
#include <set>

#include "runtime/Zol/Assert.h"

namespace Tunnel::TunnelTable {

void TunnelRibProtoEntry::prefMappingIs(std::optional<TunnelEntryPref> pref) {
  if (pref != prefMapping_) {
    prefMapping_ = pref;
    channel_.notify({});
  }
}

TunnelRibId TunnelRibNameIdMap::tunnelRibNameIs(const std::string& name) {
  if (const auto id = tunnelRibId(name)) {
    return *id;
  }
  std::set<TunnelRibId> used = {0};  // 0 is the system RIB's, whether or not it is configured
  for (const auto& [other, id] : ids_) {
    used.insert(id);
  }
  TunnelRibId id = 0;
  if (name != systemTunnelRibName) {
    while (used.contains(id)) {
      ++id;
    }
  }
  ids_[name] = id;
  return id;
}

void TunnelRibNameIdMap::tunnelRibIdIs(const std::string& name, TunnelRibId id) {
  ZOL_ASSERT(!tunnelRibId(name) &&
             std::none_of(ids_.begin(), ids_.end(), [id](const auto& each) { return each.second == id; }));
  ids_[name] = id;
}

std::optional<TunnelRibId> TunnelRibNameIdMap::tunnelRibNameDel(const std::string& name) {
  const std::optional<TunnelRibId> id = tunnelRibId(name);
  ids_.erase(name);
  return id;
}

std::optional<TunnelRibId> TunnelRibNameIdMap::tunnelRibId(const std::string& name) const {
  const auto at = ids_.find(name);
  return at == ids_.end() ? std::nullopt : std::optional(at->second);
}

}  // namespace Tunnel::TunnelTable
