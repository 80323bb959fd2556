#include "tunnel_table_sm/EncapRefCounts.h"

namespace Tunnel::TunnelTable {

void EncapRefCounts::countIs(EncapId id, std::uint32_t count) {
  std::unique_ptr<Page>* page = pages_.find(pageOf(id));
  if (page == nullptr) {
    if (count == 0) {
      return;
    }
    page = pages_.insert(pageOf(id), std::make_unique<Page>()).first;
  }
  std::uint32_t& present = (*page)->counts[slotOf(id)];
  if (isChanging_) {
    before_.emplace_back(id, present);
  }
  const bool wasUsed = present > 0;
  present = count;
  if (wasUsed == (count > 0)) {
    return;
  }
  if (count > 0) {
    ++(*page)->used;
    ++size_;
    return;
  }
  --size_;
  if (--(*page)->used == 0) {
    pages_.erase(pageOf(id));
  }
}

void EncapRefCounts::takeBack() {
  isChanging_ = false;
  for (auto before = before_.rbegin(); before != before_.rend(); ++before) {
    countIs(before->first, before->second);
  }
  before_.clear();
}

void EncapRefCounts::clear() {
  pages_.clear();
  size_ = 0;
}

}  // namespace Tunnel::TunnelTable
