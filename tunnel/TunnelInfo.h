// What a packet is wrapped in on an interface tunnel.
#pragma once

#include <cstdint>

#include "runtime/Ipkit/IpGenAddr.h"
#include "runtime/Zol/Value.h"

namespace Tunnel::TunnelTable {

// tos and ttl are those of the outer header; 0 inherits the inner packet's.
class GreTunnelInfo {
  ZOL_ORDERED_VALUE(GreTunnelInfo, "Tunnel::TunnelTable::GreTunnelInfo", (Ipkit::IpGenAddr, source),
                    (Ipkit::IpGenAddr, destination), (std::uint8_t, tos), (std::uint8_t, ttl))
};

// spi names the security association on the sending side.
class IpsecVtiTunnelInfo {
  ZOL_ORDERED_VALUE(IpsecVtiTunnelInfo, "Tunnel::TunnelTable::IpsecVtiTunnelInfo", (Ipkit::IpGenAddr, source),
                    (Ipkit::IpGenAddr, destination), (std::uint8_t, tos), (std::uint8_t, ttl), (std::uint32_t, spi))
};

class IpsecGreTunnelInfo {
  ZOL_ORDERED_VALUE(IpsecGreTunnelInfo, "Tunnel::TunnelTable::IpsecGreTunnelInfo", (Ipkit::IpGenAddr, source),
                    (Ipkit::IpGenAddr, destination), (std::uint8_t, tos), (std::uint8_t, ttl), (std::uint32_t, spi))
};

}  // namespace Tunnel::TunnelTable
