// TunnelFib: for every contributing tunnel where its packets leave and in what they are wrapped. Read by the
// forwarding side in other processes; TunnelFibWriter is the only writer.
//
// One region holds five collections, so that a reader sees entries and encapsulations of one moment:
//
//     entry                  TunnelId -> vias, each with the EncapId of its encapsulation ─┐
//     greEncap               EncapId -> GreTunnelInfo         ◀────────────────────────────┤
//     ipsecVtiEncap          EncapId -> IpsecVtiTunnelInfo    ◀────────────────────────────┤
//     ipsecGreEncap          EncapId -> IpsecGreTunnelInfo    ◀────────────────────────────┤
//     labelStackEncap        EncapId -> MplsLabelOperation    ◀────────────────────────────┘
//
// Vias that need the same encapsulation carry the same id. Absent keys read as empty records.
#pragma once

#include <string>

#include "runtime/Ipkit/MplsLabelOperation.h"
#include "runtime/Memtab/MemtabMap.h"
#include "tunnel/EncapId.h"
#include "tunnel/TunnelId.h"
#include "tunnel/TunnelInfo.h"
#include "tunnel/Via.h"

namespace Tunnel::TunnelFib {

using TunnelTable::TunnelId;

class TunnelVia : public TunnelTable::Via {
  ZOL_DERIVED_VALUE(TunnelVia, TunnelTable::Via, "Tunnel::TunnelFib::TunnelVia", (EncapId, encapId))
 public:
  TunnelVia() = default;
  TunnelVia(const TunnelTable::Via& via, const EncapId& encapId) : Via(via), encapId_(encapId) {}
};

// A place in one of an entry's two arrays: 0 to 511.
class TunnelViaIndex {
 public:
  static constexpr std::size_t min = 0;
  static constexpr std::size_t max = 511;
  static constexpr std::size_t maxSize() { return max + 1; }
  // Raises RangeException beyond max.
  explicit TunnelViaIndex(std::size_t value) : value_(value) {
    if (value > max) {
      refuse();
    }
  }
  std::size_t value() const { return value_; }

 private:
  [[noreturn]] static void refuse();
  std::size_t value_;
};

using TunnelViaArray = Zol::PodArray<TunnelVia, TunnelViaIndex::maxSize()>;

class TunnelFibEntry {
  ZOL_VALUE(TunnelFibEntry, "Tunnel::TunnelFib::TunnelFibEntry", (TunnelId, tunnelId), (TunnelViaArray, tunnelVia),
            (TunnelViaArray, backupTunnelVia), (bool, arePrimaryViasUsable, true))
 public:
  TunnelFibEntry() = default;
  explicit TunnelFibEntry(const TunnelId& tunnelId) : tunnelId_(tunnelId) {}

  std::size_t tunnelVias() const { return tunnelVia_.size(); }
  std::size_t backupTunnelVias() const { return backupTunnelVia_.size(); }
  // Raise RangeException for an index beyond TunnelViaIndex::max or the count.
  const TunnelVia& tunnelVia(std::size_t index) const { return tunnelVia_[TunnelViaIndex(index).value()]; }
  const TunnelVia& backupTunnelVia(std::size_t index) const { return backupTunnelVia_[TunnelViaIndex(index).value()]; }
};

template <class Info>
constexpr const char* encapRecordName();
template <>
constexpr const char* encapRecordName<TunnelTable::GreTunnelInfo>() {
  return "Tunnel::TunnelFib::GreEncap";
}
template <>
constexpr const char* encapRecordName<TunnelTable::IpsecVtiTunnelInfo>() {
  return "Tunnel::TunnelFib::IpsecVtiEncap";
}
template <>
constexpr const char* encapRecordName<TunnelTable::IpsecGreTunnelInfo>() {
  return "Tunnel::TunnelFib::IpsecGreEncap";
}
template <>
constexpr const char* encapRecordName<Ipkit::MplsLabelOperation>() {
  return "Tunnel::TunnelFib::LabelStackEncap";
}

// One encapsulation, shared by all vias that carry its id.
template <class Info>
class EncapRecord {
  ZOL_VALUE(EncapRecord, encapRecordName<Info>(), (EncapId, encapId), (Info, info))
 public:
  EncapRecord() = default;
  EncapRecord(const EncapId& encapId, const Info& info) : encapId_(encapId), info_(info) {}
};
using GreEncap = EncapRecord<TunnelTable::GreTunnelInfo>;
using IpsecVtiEncap = EncapRecord<TunnelTable::IpsecVtiTunnelInfo>;
using IpsecGreEncap = EncapRecord<TunnelTable::IpsecGreTunnelInfo>;
using LabelStackEncap = EncapRecord<Ipkit::MplsLabelOperation>;

class TunnelFib : public Zol::Entity {
 public:
  static constexpr const char* entityTypeName = "Tunnel::TunnelFib::TunnelFib";

  template <class Record>
  using Collection = Memtab::MemtabMap<Record>;
  struct Collections {
    Zol::Ptr<Collection<TunnelFibEntry>> entry;
    Zol::Ptr<Collection<GreEncap>> greEncap;
    Zol::Ptr<Collection<IpsecVtiEncap>> ipsecVtiEncap;
    Zol::Ptr<Collection<IpsecGreEncap>> ipsecGreEncap;
    Zol::Ptr<Collection<LabelStackEncap>> labelStackEncap;
  };

  // A FIB in store, made with layout(), or in memory of its own.
  explicit TunnelFib(const std::string& name, const Zol::Ptr<Memtab::SharedStore>& store = ownStore());
  // Of collections that somebody else made.
  TunnelFib(const std::string& name, Collections collections);

  static std::uint64_t fingerprint();
  static Memtab::StoreLayout layout();
  static Zol::Ptr<Memtab::SharedStore> ownStore();

  Collection<TunnelFibEntry>& entry() { return *collections_.entry; }
  const Collection<TunnelFibEntry>& entry() const { return *collections_.entry; }
  Collection<GreEncap>& greEncap() { return *collections_.greEncap; }
  const Collection<GreEncap>& greEncap() const { return *collections_.greEncap; }
  Collection<IpsecVtiEncap>& ipsecVtiEncap() { return *collections_.ipsecVtiEncap; }
  const Collection<IpsecVtiEncap>& ipsecVtiEncap() const { return *collections_.ipsecVtiEncap; }
  Collection<IpsecGreEncap>& ipsecGreEncap() { return *collections_.ipsecGreEncap; }
  const Collection<IpsecGreEncap>& ipsecGreEncap() const { return *collections_.ipsecGreEncap; }
  Collection<LabelStackEncap>& labelStackEncap() { return *collections_.labelStackEncap; }
  const Collection<LabelStackEncap>& labelStackEncap() const { return *collections_.labelStackEncap; }

  // Notified with the tunnel whose entry was written or deleted.
  Zol::Channel<TunnelId>& entryChannel() const { return collections_.entry->entryChannel(); }

 private:
  Collections collections_;
};

}  // namespace Tunnel::TunnelFib

// Instantiated once, in TunnelFib.cpp.
namespace Memtab {
extern template class MemtabMap<Tunnel::TunnelFib::TunnelFibEntry>;
extern template class MemtabMap<Tunnel::TunnelFib::GreEncap>;
extern template class MemtabMap<Tunnel::TunnelFib::IpsecVtiEncap>;
extern template class MemtabMap<Tunnel::TunnelFib::IpsecGreEncap>;
extern template class MemtabMap<Tunnel::TunnelFib::LabelStackEncap>;
}  // namespace Memtab

// The state machines live in TunnelTable and use these names.
namespace Tunnel::TunnelTable {
using Tunnel::TunnelFib::GreEncap;
using Tunnel::TunnelFib::IpsecGreEncap;
using Tunnel::TunnelFib::IpsecVtiEncap;
using Tunnel::TunnelFib::LabelStackEncap;
using Tunnel::TunnelFib::TunnelFib;
using Tunnel::TunnelFib::TunnelFibEntry;
using Tunnel::TunnelFib::TunnelVia;
using Tunnel::TunnelFib::TunnelViaArray;
using Tunnel::TunnelFib::TunnelViaIndex;
}  // namespace Tunnel::TunnelTable
