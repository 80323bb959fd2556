// SharedStore: one region with its collections, shared by the maps that read and write them.
#pragma once

#include <functional>
#include <span>

#include "runtime/Memtab/Store.h"
#include "runtime/Zol/Ptr.h"

namespace Memtab {

class SharedStore : public Zol::PtrInterface {
 public:
  // A region in private memory with one collection for each hash. fingerprint tells record layouts apart.
  SharedStore(std::uint64_t fingerprint, std::span<const HashFn> hashes)
      : store_(Region::anonymous(), fingerprint, hashes) {}

  Store& store() { return store_; }
  const Store& store() const { return store_; }

 private:
  Store store_;
};

// Where a table's store comes from: private memory, or a file that other processes see too. The arguments are those of
// SharedStore; who asks owns the answer.
using StoreSource = std::function<Zol::Ptr<SharedStore>(std::uint64_t fingerprint, std::span<const HashFn> hashes)>;

}  // namespace Memtab
