#include "tunnel_table_sm/TunnelSmTypes.h"

#include "runtime/Zol/TypeRegistry.h"
#include "tunnel/TunnelIdColl.h"

namespace Tunnel::TunnelTable {
namespace {

const bool registered = [] {
  for (const char* const name : {TunnelIdColl::typeName(), TunnelIdCollByTunnelId::typeName(),
                                 TunnelIdToTepEntry::typeName(), ProtocolTunnelRibWrapper::typeName(),
                                 ProtocolTunnelRibCollection::typeName(), TunnelTypeToTunnelRib::typeName()}) {
    Zol::TypeRegistry::instance().typeIs(name);
  }
  return true;
}();

}  // namespace

bool areSmTypesRegistered() { return registered; }

}  // namespace Tunnel::TunnelTable
