// RibReviewBacklog: the tunnels that wait for review by a RIB builder, and the endpoints that they are about to reach.
//
// An endpoint that loses its last tunnel must stay in the RIB when a waiting tunnel is about to take it over.
// arrivalAt() finds that tunnel in an index of the waiting tunnels by endpoint. The index costs one look-up for each
// waiting tunnel. It is built in steps when it is first needed, and dropped when the backlog is empty.
#pragma once

#include <array>
#include <vector>

#include "runtime/Zol/HashCollection.h"
#include "tunnel/TunnelTableEntry.h"

namespace Tunnel::TunnelTable {

class RibReviewBacklog {
 public:
  // Value: whether the tunnel may reach an endpoint. A tunnel that was reported as deleted does not.
  using Ids = Zol::HashCollection<TunnelId, bool>;

  const Ids& ids() const { return ids_; }
  bool empty() const { return ids_.empty(); }
  bool hasArrivals() const { return arrivals_ != 0; }

  // Returns whether the tunnel did not wait yet.
  bool add(const TunnelId& id, bool mayArrive) {
    const auto [arrives, isNew] = ids_.insert(id, false);
    if (mayArrive && !*arrives) {
      *arrives = true;
      ++arrivals_;
    }
    if (mayArrive && isIndexing_) {
      unindexed_.push_back(id);
      isIndexing_ = unindexed_.size() + indexed_ <= 2 * ids_.size() + slack;  // else most of it is outdated
    }
    return isNew;
  }
  // Returns whether the tunnel waited.
  bool erase(const TunnelId& id) {
    const bool* const arrives = ids_.find(id);
    if (arrives == nullptr) {
      return false;
    }
    arrivals_ -= *arrives ? 1U : 0U;
    ids_.erase(id);
    if (ids_.empty()) {
      isIndexing_ = false;
    }
    return true;
  }

  // Whether arrivalAt() knows all waiting tunnels.
  bool isIndexed() const { return arrivals_ == 0 || (isIndexing_ && unindexed_.empty()); }
  // Continues the index by some tunnels. endpointOf(id): the endpoint, the zero prefix if there is none.
  template <class F>
  void index(F&& endpointOf) {
    if (!isIndexing_) {
      startIndex();
    }
    for (unsigned n = 0; n < indexStep && !unindexed_.empty(); ++n) {
      const TunnelId id = unindexed_.back();
      unindexed_.pop_back();
      const Ipkit::IpGenPrefix tep = ids_.has(id) ? endpointOf(id) : Ipkit::IpGenPrefix();
      if (!!tep) {
        arrivalsOf(id.tunnelType())[tep].push_back(id);
        ++indexed_;
      }
    }
  }
  // A waiting tunnel of the type that is about to reach the endpoint, the zero id if there is none. Requires:
  // isIndexed(). endpointOf: as above.
  template <class F>
  TunnelId arrivalAt(const Ipkit::IpGenPrefix& tep, TunnelType type, F&& endpointOf) {
    std::vector<TunnelId>* const arrivals = isIndexing_ ? arrivalsOf(type).find(tep) : nullptr;
    while (arrivals != nullptr && !arrivals->empty()) {
      const TunnelId id = arrivals->back();
      if (ids_.has(id) && endpointOf(id) == tep) {
        return id;
      }
      arrivals->pop_back();  // reviewed since, or on its way to another endpoint, under which it is indexed too
    }
    return {};
  }

 private:
  using Arrivals = Zol::HashCollection<Ipkit::IpGenPrefix, std::vector<TunnelId>>;
  static constexpr unsigned indexStep = 256;  // about 0.1 ms
  static constexpr std::size_t slack = 64;

  Arrivals& arrivalsOf(TunnelType type) { return arrivalsAt_.at(static_cast<std::size_t>(type)); }
  void startIndex() {
    isIndexing_ = true;
    indexed_ = 0;
    arrivalsAt_ = {};
    unindexed_.clear();
    for (auto it = ids_.begin(); it; ++it) {
      if (it.value()) {
        unindexed_.push_back(it.key());
      }
    }
  }

  Ids ids_;
  std::size_t arrivals_ = 0;  // ids with the value true
  bool isIndexing_ = false;   // unindexed_ and arrivalsAt_ have every arrival
  std::vector<TunnelId> unindexed_;
  std::array<Arrivals, 16> arrivalsAt_;  // by tunnel type
  std::size_t indexed_ = 0;              // ids in arrivalsAt_, outdated ones included
};

}  // namespace Tunnel::TunnelTable
