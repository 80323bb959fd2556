#include <cstdint>

#include "runtime/Ipkit/IpGenPrefix.h"
#include "runtime/Memtab/KeyFollowerMake.h"

namespace Memtab {

template std::unique_ptr<KeyFollower<std::uint32_t>> makeKeyFollower(const Reader&, unsigned, OnDamage);
template std::unique_ptr<KeyFollower<Ipkit::IpGenPrefix>> makeKeyFollower(const Reader&, unsigned, OnDamage);

}  // namespace Memtab
