// Via and MplsVia: where packets of a tunnel leave, and with which labels.
#pragma once

#include "runtime/Ipkit/IntfId.h"
#include "runtime/Ipkit/IpGenAddr.h"
#include "runtime/Ipkit/MplsLabelOperation.h"
#include "runtime/Zol/PodArray.h"
#include "runtime/Zol/Value.h"

namespace Tunnel::TunnelTable {

// A next hop and the interface that leads there.
class Via {
  ZOL_VALUE(Via, "Tunnel::TunnelTable::Via", (Ipkit::IpGenAddr, nextHop), (Ipkit::IntfId, intf))
 public:
  Via() = default;
  Via(const Ipkit::IpGenAddr& nextHop, const Ipkit::IntfId& intf) : nextHop_(nextHop), intf_(intf) {}
  // By interface first, so that the vias of one interface stand together.
  friend std::strong_ordering operator<=>(const Via& a, const Via& b) {
    const auto byIntf = a.intf_ <=> b.intf_;
    return byIntf != 0 ? byIntf : a.nextHop_ <=> b.nextHop_;
  }
};

class MplsVia : public Via {
  ZOL_DERIVED_VALUE(MplsVia, Via, "Tunnel::TunnelTable::MplsVia", (Ipkit::MplsLabelOperation, labelOp))
 public:
  MplsVia() = default;
  MplsVia(const Via& via, const Ipkit::MplsLabelOperation& labelOp) : Via(via), labelOp_(labelOp) {}
};

// What one table entry can hold.
constexpr std::size_t viaCountMax = 512;
using ViaArray = Zol::PodArray<Via, viaCountMax>;
using MplsViaArray = Zol::PodArray<MplsVia, viaCountMax>;

}  // namespace Tunnel::TunnelTable
