// Items: a shared table of small records, for tests of what lies below the tunnel tables.
#pragma once

#include <cstdint>

#include "runtime/Memtab/KeyFollowerMake.h"
#include "runtime/Memtab/MemtabMap.h"

namespace Support {

class Item {
  ZOL_VALUE(Item, "Support::Item", (std::uint32_t, id), (std::uint32_t, content))
 public:
  Item() = default;
  Item(std::uint32_t id, std::uint32_t content) : id_(id), content_(content) {}
};
using Items = Memtab::MemtabMap<Item>;

// Calls back with the id of each item that is notified.
template <class F>
class ItemListener final : public Zol::Listener<std::uint32_t> {
 public:
  ItemListener(const Items& items, F f) : f_(std::move(f)) { channelIs(&items.entryChannel()); }
  void onKey(const std::uint32_t& id) override { f_(id); }

 private:
  F f_;
};

}  // namespace Support
