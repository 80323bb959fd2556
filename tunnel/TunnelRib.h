// TunnelRib: for every tunnel endpoint the tunnels of the most preferred source.
#pragma once

#include <cstdint>
#include <string>

#include "runtime/Memtab/MemtabMap.h"
#include "tunnel/TunnelTableEntry.h"

namespace Tunnel::TunnelTable {

// 0 is the system RIB.
using TunnelRibId = std::uint32_t;

// How many equal-cost tunnels an entry holds: indexes 0 to 511.
class TunnelIdCollIndex {
 public:
  static constexpr std::size_t min = 0;
  static constexpr std::size_t max = 511;
  static constexpr std::size_t maxSize() { return max + 1; }
  // Raises RangeException beyond max.
  explicit TunnelIdCollIndex(std::size_t value);
  std::size_t value() const { return value_; }

 private:
  std::size_t value_;
};

using TunnelIdArray = Zol::PodArray<TunnelId, TunnelIdCollIndex::maxSize(), 2>;

// All tunnels of an entry are of one type, in a RIB also of one preference.
class TunnelRibEntry {
  ZOL_VALUE(TunnelRibEntry, "Tunnel::TunnelTable::TunnelRibEntry", (Ipkit::IpGenPrefix, tep), (TunnelMetrics, metrics),
            (TunnelEntryPref, pref), (TunnelIdArray, tunnelId))
 public:
  TunnelRibEntry() = default;
  explicit TunnelRibEntry(const Ipkit::IpGenPrefix& tep) : tep_(tep) {}

  std::size_t tunnelIds() const { return tunnelId_.size(); }
  // Raises RangeException for an index beyond TunnelIdCollIndex::max or the count.
  const TunnelId& tunnelId(std::size_t index) const { return tunnelId_[TunnelIdCollIndex(index).value()]; }
  bool hasTunnelId(const TunnelId& id) const;
  bool isFull() const { return tunnelId_.full(); }
  // The entry must not be empty.
  TunnelId smallestTunnelId() const;

  // Appends the id unless it is there. Asserts that there is room.
  void addTunnelId(const TunnelId& id);
  // The last id takes the freed place; an absent id is ignored. O(count).
  void delTunnelId(const TunnelId& id);
};

}  // namespace Tunnel::TunnelTable

namespace Memtab {
extern template class MemtabMap<Tunnel::TunnelTable::TunnelRibEntry>;  // in TunnelRib.cpp
}

namespace Tunnel::TunnelTable {

// Written by one builder; read by the whole router. An absent tep reads as the empty entry.
class TunnelRib : public Memtab::MemtabMap<TunnelRibEntry> {
 public:
  static constexpr const char* entityTypeName = "Tunnel::TunnelTable::TunnelRib";

  explicit TunnelRib(const std::string& name, TunnelRibId id = 0) : MemtabMap(name), id_(id) {}
  TunnelRib(const std::string& name, Zol::Ptr<Memtab::SharedStore> store, TunnelRibId id = 0)
      : MemtabMap(name, std::move(store), 0U), id_(id) {}

  TunnelRibId id() const { return id_; }
  void idIs(TunnelRibId id) { id_ = id; }

 private:
  TunnelRibId id_;
};

}  // namespace Tunnel::TunnelTable
