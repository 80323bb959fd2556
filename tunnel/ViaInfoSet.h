// ViaInfoSet: the different vias of one computed FIB entry, in ascending order. Most hold one, some hundreds.
//
// A sorted array that takes new members at its end and sorts them in when somebody looks:
//
//     members_   [ a b d f | c b ]      insert() appends; the part before sortedCount_ is sorted and without doubles
//
// So filling costs O(n log n) once, and a set that is cleared and filled again does not allocate.
#pragma once

#include <algorithm>
#include <vector>

#include "tunnel/ViaAndTunnelInfo.h"

namespace Tunnel::TunnelTable {

class ViaInfoSet {
 public:
  void insert(const ViaAndTunnelInfo& via) {
    if (sortedCount_ == members_.size() && (members_.empty() || members_.back() < via)) {
      ++sortedCount_;
    }
    members_.push_back(via);
  }
  bool erase(const ViaAndTunnelInfo& via) {
    const auto at = std::lower_bound(sorted().begin(), members_.end(), via);
    if (at == members_.end() || !(*at == via)) {
      return false;
    }
    members_.erase(at);
    --sortedCount_;
    return true;
  }
  void clear() {
    members_.clear();
    sortedCount_ = 0;
  }

  bool empty() const { return members_.empty(); }
  std::size_t size() const { return sorted().size(); }
  // Does not sort unless it may be so.
  bool holdsMoreThan(std::size_t count) const { return members_.size() > count && size() > count; }
  bool has(const ViaAndTunnelInfo& via) const { return std::binary_search(sorted().begin(), members_.end(), via); }
  auto begin() const { return sorted().cbegin(); }
  auto end() const { return sorted().cend(); }

  friend bool operator==(const ViaInfoSet& a, const ViaInfoSet& b) { return a.sorted() == b.sorted(); }

 private:
  std::vector<ViaAndTunnelInfo>& sorted() const {
    if (sortedCount_ < members_.size()) {
      std::sort(members_.begin(), members_.end());
      members_.erase(std::unique(members_.begin(), members_.end()), members_.end());
      sortedCount_ = members_.size();
    }
    return members_;
  }

  mutable std::vector<ViaAndTunnelInfo> members_;
  mutable std::size_t sortedCount_ = 0;
};

}  // namespace Tunnel::TunnelTable
