// TightStore: a store in private memory that grows until it is told that there is no more.
#pragma once

#include <sys/mman.h>

#include <memory>

#include "runtime/Memtab/SharedStore.h"

namespace Memtab {

class TightStore final : public SharedStore {
 public:
  explicit TightStore(const StoreLayout& layout, std::shared_ptr<bool> isFull)
      : SharedStore(std::make_unique<Store>(Region(std::make_unique<Memory>(std::move(isFull)), bytesMax),
                                            layout.fingerprint, layout.hashes,
                                            StoreOptions{.referred = layout.referred})) {}

 private:
  static constexpr std::size_t bytesMax = std::size_t{64} << 20;

  class Memory final : public Backing {
   public:
    explicit Memory(std::shared_ptr<bool> isFull) : isFull_(std::move(isFull)) {}
    bool extend(std::byte* base, std::size_t from, std::size_t to) override {
      return !*isFull_ && mprotect(base + from, to - from, PROT_READ | PROT_WRITE) == 0;
    }
    void giveBack(std::byte* base, std::size_t from, std::size_t to) override {
      madvise(base + from, to - from, MADV_DONTNEED);
    }

   private:
    const std::shared_ptr<bool> isFull_;
  };
};

}  // namespace Memtab
