// The collection types of the tunnel model in the type registry, registered at library load in their fixed order.
#pragma once

namespace Tunnel::TunnelTable {

// True from load on. Asked by the reactors, so that no program can be linked without the registration.
bool areSmTypesRegistered();

}  // namespace Tunnel::TunnelTable
