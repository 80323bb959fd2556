#include "tunnel/TunnelIdColl.h"

namespace Tunnel::TunnelTable {

Zol::Ptr<ProtocolTunnelRibWrapper> ProtocolTunnelRibCollection::protocolTunnelRibIs(TunnelType type) {
  Zol::Ptr<ProtocolTunnelRibWrapper> wrapper = protocolTunnelRib(type);
  if (!wrapper) {
    wrapper = Zol::make<ProtocolTunnelRibWrapper>(type);
    wrapper->parentIs(this);
    wrapper->parentAttrIdIs("protocolTunnelRib");
    protocolTunnelRib_.is(type, wrapper);
  }
  return wrapper;
}

Zol::Ptr<TunnelIdColl> tunnelIdCollFactory(std::string name) { return Zol::make<TunnelIdColl>(std::move(name)); }

Zol::Ptr<ProtocolTunnelRibCollection> protocolTunnelRibCollectionFactory(std::string name) {
  return Zol::make<ProtocolTunnelRibCollection>(std::move(name));
}

}  // namespace Tunnel::TunnelTable
