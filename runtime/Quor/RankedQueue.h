// RankedQueue: items in the order of a rank, those of equal rank in the order of their arrival. An item can leave from
// anywhere by the place that it was given. The items belong to others; add and remove are O(log n).
#pragma once

#include <compare>
#include <cstdint>
#include <map>

namespace Quor {

template <class Rank, class T>
class RankedQueue {
 public:
  struct Place {
    Rank rank;
    std::uint64_t arrival;
    friend auto operator<=>(const Place&, const Place&) = default;
  };

  bool empty() const { return items_.empty(); }
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }
  // The arrival number that the next item gets.
  std::uint64_t nextArrival() const { return nextArrival_; }

  Place add(Rank rank, T& item) {
    const Place place{rank, nextArrival_++};
    items_.emplace(place, &item);
    return place;
  }
  void remove(const Place& place) { items_.erase(place); }

 private:
  std::map<Place, T*> items_;
  std::uint64_t nextArrival_ = 0;
};

}  // namespace Quor
