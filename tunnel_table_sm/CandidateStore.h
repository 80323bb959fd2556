// The candidates of one RIB: every contributing tunnel, by endpoint and in order of preference. The RIB shows only the
// best of them; when those go, the next best are found here.
#pragma once

#include "runtime/Zol/HashCollection.h"
#include "runtime/Zol/OrderedCollection.h"
#include "runtime/Zol/Ptr.h"
#include "tunnel/TunnelTableEntry.h"

namespace Tunnel::TunnelTable {

// The candidates of one endpoint, the most preferred first. A key is the head of the tunnel's table entry with its
// effective preference in place of the published one. The values are all true: the map is a set.
class TunnelTableOrderedEntry : public Zol::PtrInterface {
 public:
  using Entries = Zol::OrderedCollection<TunnelTableEntry, bool>;

  explicit TunnelTableOrderedEntry(const Ipkit::IpGenPrefix& tep) : tep_(tep) {}

  const Ipkit::IpGenPrefix& tep() const { return tep_; }
  const Entries& entry() const { return entry_; }
  void entryIs(const TunnelTableEntry& key, bool value) { entry_.insertOrAssign(key, value); }
  // The value of the removed key, false when it was absent.
  bool entryDel(const TunnelTableEntry& key) {
    const bool* const value = entry_.find(key);
    const bool removed = value != nullptr && *value;
    entry_.erase(key);
    return removed;
  }
  void entryDelAll() { entry_.clear(); }

 private:
  const Ipkit::IpGenPrefix tep_;
  Entries entry_;
};

class InternalTunnelRib : public Zol::PtrInterface {
 public:
  using Entries = Zol::HashCollection<Ipkit::IpGenPrefix, Zol::Ptr<TunnelTableOrderedEntry>>;

  const Entries& entry() const { return entry_; }
  // Null when the endpoint has no candidate.
  Zol::Ptr<TunnelTableOrderedEntry> entry(const Ipkit::IpGenPrefix& tep) const {
    const auto* const present = entry_.find(tep);
    return present == nullptr ? nullptr : *present;
  }
  // The endpoint's candidates, made empty if there are none.
  Zol::Ptr<TunnelTableOrderedEntry> entryIs(const Ipkit::IpGenPrefix& tep) {
    Zol::Ptr<TunnelTableOrderedEntry>& entry = entry_[tep];
    if (!entry) {
      entry = Zol::make<TunnelTableOrderedEntry>(tep);
    }
    return entry;
  }
  void entryDel(const Ipkit::IpGenPrefix& tep) { entry_.erase(tep); }
  void entryDelAll() { entry_.clear(); }

 private:
  Entries entry_;
};

}  // namespace Tunnel::TunnelTable
