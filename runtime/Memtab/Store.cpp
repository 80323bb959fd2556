#include "runtime/Memtab/Store.h"

#include "runtime/Memtab/StoreScrub.h"

namespace Memtab {

template class BasicStore<DirectStores>;

}  // namespace Memtab
