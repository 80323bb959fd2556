// ViaAndTunnelInfo: one computed via of a tunnel, with what wraps the packets that leave on it. type says which of the
// four info fields counts; the others keep their defaults. Orders by interface, next hop, type and infos.
#pragma once

#include "tunnel/TunnelFib.h"

namespace Tunnel::TunnelTable {

class ViaAndTunnelInfo {
  ZOL_ORDERED_VALUE(ViaAndTunnelInfo, "Tunnel::TunnelTable::ViaAndTunnelInfo", (Via, via), (EncapType, type),
                    (Ipkit::MplsLabelOperation, labelStack), (IpsecGreTunnelInfo, ipsecGreTunnelInfo),
                    (IpsecVtiTunnelInfo, ipsecVtiTunnelInfo), (GreTunnelInfo, greTunnelInfo))
 public:
  ViaAndTunnelInfo() = default;
  ViaAndTunnelInfo(const Via& via, EncapType type) : via_(via), type_(type) {}
};

}  // namespace Tunnel::TunnelTable
