// EncapRefCounts: how many FIB vias carry each encapsulation id. Ids of a type are handed out in ascending order, so
// counts lie in pages of neighbouring indexes; a page exists while one of its counts is positive.
//
// Between changeBegin() and changeEnd() the earlier counts are kept, so that takeBack() can restore them.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "runtime/Zol/HashCollection.h"
#include "tunnel/EncapId.h"

namespace Tunnel::TunnelTable {

class EncapRefCounts {
 public:
  // 0 for an id without a count.
  std::uint32_t count(EncapId id) const {
    const std::unique_ptr<Page>* const page = pages_.find(pageOf(id));
    return page == nullptr ? 0 : (*page)->counts[slotOf(id)];
  }
  void countIs(EncapId id, std::uint32_t count);
  void clear();
  // f(id, count) for each id with a count.
  template <class F>
  void forEach(F&& f) const {
    for (const auto& [page, content] : pages_) {
      for (std::uint32_t slot = 0; slot < pageSize; ++slot) {
        if (content->counts[slot] != 0) {
          f(EncapId(page * pageSize + slot), std::uint32_t{content->counts[slot]});
        }
      }
    }
  }
  // The number of ids with a count.
  std::size_t size() const { return size_; }
  std::size_t bytesUsed() const {
    return pages_.bytesUsed() + pages_.size() * sizeof(Page) + before_.capacity() * sizeof(before_[0]);
  }

  void changeBegin() { isChanging_ = true; }
  void changeEnd() {
    isChanging_ = false;
    before_.clear();
  }
  void takeBack();

 private:
  static constexpr std::uint32_t pageSize = 256;
  struct Page {
    std::array<std::uint32_t, pageSize> counts{};
    std::uint32_t used = 0;
  };

  static std::uint32_t pageOf(EncapId id) { return id.value() / pageSize; }
  static std::uint32_t slotOf(EncapId id) { return id.value() % pageSize; }

  Zol::HashCollection<std::uint32_t, std::unique_ptr<Page>> pages_;
  std::size_t size_ = 0;
  std::vector<std::pair<EncapId, std::uint32_t>> before_;  // earlier counts, in the order of the change under way
  bool isChanging_ = false;
};

}  // namespace Tunnel::TunnelTable
