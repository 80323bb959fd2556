#include "tunnel/TunnelTable.h"

#include "runtime/Memtab/KeyFollowerMake.h"

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

namespace Memtab {

template std::unique_ptr<KeyFollower<Tunnel::TunnelTable::TunnelId>> makeKeyFollower(const Reader&, unsigned, OnDamage);
template class MemtabMap<Tunnel::TunnelTable::BgpLuTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
template class MemtabMap<Tunnel::TunnelTable::BgpLuPushTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
template class MemtabMap<Tunnel::TunnelTable::LdpTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
template class MemtabMap<Tunnel::TunnelTable::RsvpTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
template class MemtabMap<Tunnel::TunnelTable::SrTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
template class MemtabMap<Tunnel::TunnelTable::SrTeSegmentListTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
template class MemtabMap<Tunnel::TunnelTable::StaticTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
template class MemtabMap<Tunnel::TunnelTable::NexthopGroupTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
template class MemtabMap<Tunnel::TunnelTable::TiLfaTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
template class MemtabMap<Tunnel::TunnelTable::GreIntfTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
template class MemtabMap<Tunnel::TunnelTable::IpsecVtiIntfTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;
template class MemtabMap<Tunnel::TunnelTable::IpsecGreIntfTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase>;

}  // namespace Memtab
