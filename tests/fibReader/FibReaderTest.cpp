// A reader of the FIB in another process links the tunnel model alone. This program does: no state machine, and no
// function of the model beyond the FIB, so that the linker has no other reason to take objects from the archive.
#include <gtest/gtest.h>

#include "runtime/Statehub/EntityManager.h"
#include "tests/support/Process.h"
#include "tunnel/TunnelFib.h"

namespace Tunnel::TunnelFib {
namespace {

// Fails if the entity types of the tunnel model are known only to programs that use its other parts.
TEST(FibReader, mountsTheFibWithTheTunnelModelAlone) {
  const Support::ScratchDirectory scratch;
  constexpr const char* path = "tunnel/tunnelFib";
  const auto mount = [&](Statehub::EntityManager& manager, Statehub::Access access) {
    manager.doMount(path, TunnelFib::entityTypeName, Statehub::MountInfo(access));
    return Zol::dynamicPtrCast<TunnelFib>(manager.getEntity(path));
  };
  Statehub::EntityManager writer(scratch / "state"), reader(scratch / "state");
  const TunnelId id(TunnelTable::TunnelType::ldpTunnel, 5);
  mount(writer, Statehub::Access::write)->entry().entryIs(TunnelFibEntry(id));
  EXPECT_EQ(mount(reader, Statehub::Access::read)->entry().value(id).tunnelId(), id);
}

}  // namespace
}  // namespace Tunnel::TunnelFib
