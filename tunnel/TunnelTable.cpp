#include "tunnel/TunnelTable.h"

namespace Tunnel::TunnelTable {

void TunnelTableBase::refuseOtherType(const TunnelId& id) const {
  if (id.tunnelType() != tunnelType_) {
    throw Zol::RangeException(Zol::stringOf(id) + " is not a tunnel of type " + stringValue(tunnelType_) +
                              ", which table " + name() + " holds");
  }
}

void TunnelTableBase::refuseIllegalIntf(const TunnelId& id, Ipkit::IntfId intf) const {
  if (!intf.isLegal()) {
    throw Zol::RangeException(Zol::stringOf(id) + " has a via with interface " + Zol::stringOf(intf) +
                              ", which is none");
  }
}

}  // namespace Tunnel::TunnelTable
