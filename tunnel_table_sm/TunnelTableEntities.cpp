#include "tunnel_table_sm/TunnelTableEntities.h"

namespace Tunnel::TunnelTable {

void TunnelTableEntities::tunnelTableIs(const std::string& name, const Zol::PtrConst<TunnelTableBase>& table) {
  if (table) {
    tunnelTable_.is(name, table);
  } else {
    tunnelTable_.del(name);
  }
}

Zol::Ptr<TunnelTableTypeFilter> tunnelTableTypeFilterFactory() {
  return Zol::make<TunnelTableTypeFilter>("tableTypeFilter");
}
Zol::Ptr<TunnelTableEntities> tunnelTableEntitiesFactory() {
  return Zol::make<TunnelTableEntities>("tunnelTableEntities");
}
Zol::Ptr<TunnelTableEntryFilter> tunnelTableEntryFilterFactory() {
  return Zol::make<TunnelTableEntryFilter>("tableEntryFilter");
}

}  // namespace Tunnel::TunnelTable
