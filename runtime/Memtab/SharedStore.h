// SharedStore: one region with its collections, shared by the maps that read and write them.
#pragma once

#include <span>

#include "runtime/Memtab/Store.h"
#include "runtime/Zol/PtrInterface.h"

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

}  // namespace Memtab
