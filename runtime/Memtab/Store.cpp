#include "runtime/Memtab/Store.h"

namespace Memtab {

template class BasicStore<DirectStores>;

}  // namespace Memtab
