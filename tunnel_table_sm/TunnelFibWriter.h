// TunnelFibWriter: the only writer of the tunnel FIB. Vias that need the same encapsulation share one record.
//
// Invariants, checked after every test:
//  (1) encapIdRefCount(id) is the number of FIB vias, primary and backup, that carry id.
//  (2) A record exists in the FIB exactly for ids with a positive count.
// Both hold after a start too, when unreferenced records have been swept; only damage that hid entries from the start
// can leave ids without their count and records without their id until the next one.
//
// Order for readers in other processes: a record is created before the first entry that names it, and deleted after
// the last. Writing what stands writes nothing. Scheduler thread only.
#pragma once

#include <array>

#include "runtime/Zol/HashCollection.h"
#include "runtime/Zol/Reactor.h"
#include "tunnel/ConsolidatedTunnelFibEntry.h"
#include "tunnel_table_sm/EncapContentIndex.h"
#include "tunnel_table_sm/EncapRefCounts.h"

namespace Tunnel::TunnelTable {

class TunnelFibWriter final : public Zol::Reactor {
 public:
  // Counts the references that tunnelFib already holds.
  explicit TunnelFibWriter(Zol::Ptr<TunnelFib> tunnelFib);

  const Zol::Ptr<TunnelFib>& tunnelFib() const { return tunnelFib_; }
  bool initialized() const { return initialized_; }

  // Writes or rewrites a tunnel's entry. Raises RangeException for more than 512 vias or backup vias, NoSpace when the
  // FIB cannot grow; then it stands as it did.
  void addFibEntry(const ConsolidatedTunnelFibEntry& consFibEntry);
  // Deletes a tunnel's entry, if there is one, then gives its references back.
  void deleteFibEntry(const TunnelId& tunnelId);

  // The entry to write; takes one reference a via.
  TunnelFibEntry registerConsFibEntryForWriting(const ConsolidatedTunnelFibEntry& consFibEntry);
  TunnelVia registerViaAndTunnelInfo(const ViaAndTunnelInfo& info);
  // Gives back one reference a via; vias without encapsulation hold none.
  void deregisterEncaps(const TunnelFibEntry& fibEntry);

  // Take one reference to the record equal to info, creating it if none is equal.
  // Ensure: encapIdRefCount(result) > 0.
  EncapId insertGreEncap(const GreTunnelInfo& info);
  EncapId insertIpsecVtiEncap(const IpsecVtiTunnelInfo& info);
  EncapId insertIpsecGreEncap(const IpsecGreTunnelInfo& info);
  EncapId insertLabelStackEncap(const Ipkit::MplsLabelOperation& labelOp);
  // Gives one reference back; the last one deletes the record. Requires: encapIdRefCount(encapId) > 0.
  void decrementEncapRef(EncapId encapId);

  // The next id of the type that is not in use. Asserts that there is one.
  EncapId nextFreeEncapId(EncapType type);
  // Whether the id has a count or a record. Requires an id of one of the four types.
  bool encapIdUsed(EncapId encapId) const;

  // Deletes the records that no entry refers to, such as a killed process leaves behind.
  void deleteUnreferencedEncaps();

  std::uint32_t nextEncapIndex(EncapType type) const;
  void nextEncapIndexIs(EncapType type, std::uint32_t index) { nextEncapIndex_.insertOrAssign(type, index); }
  void nextEncapIndexDel(EncapType type) { nextEncapIndex_.erase(type); }
  void nextEncapIndexDelAll() { nextEncapIndex_.clear(); }
  std::uint32_t nextEncapIndexInc(EncapType type, std::uint32_t by) { return nextEncapIndex_[type] += by; }

  std::uint32_t encapIdRefCount(EncapId id) const { return encapIdRefCount_.count(id); }
  // As counted in the entries, all of which could be read (TunnelFibKeeper.cpp).
  void encapIdRefCountsAre(const EncapRefCounts& counted);
  std::size_t encapIdRefCounts() const { return encapIdRefCount_.size(); }
  void encapIdRefCountIs(EncapId id, std::uint32_t count) { encapIdRefCount_.countIs(id, count); }
  void encapIdRefCountDel(EncapId id) { encapIdRefCount_.countIs(id, 0); }
  void encapIdRefCountDelAll() { encapIdRefCount_.clear(); }
  std::uint32_t encapIdRefCountInc(EncapId id, std::uint32_t by);
  std::uint32_t encapIdRefCountDec(EncapId id, std::uint32_t by);

  // Memory beside the FIB itself.
  // Whether the record with this id was written with this content. Its bytes may be damaged since.
  template <class Info>
  bool isContentOf(EncapId id, const Info& info) const {
    return byContent_.find(id.encapType(), info, [id](EncapId each) { return each == id; }) == id;
  }
  std::size_t bytesUsed() const { return encapIdRefCount_.bytesUsed() + byContent_.bytesUsed(); }

 private:
  template <class F>
  void change(F&& f);
  template <class Info>
  EncapId insertEncap(const Info& info);
  void handleInitialized();
  void countReferences();
  bool isWritten(const TunnelFibEntry& fibEntry, const ConsolidatedTunnelFibEntry& consFibEntry) const;
  bool areWritten(const TunnelViaArray& written, const ViaInfoSet& vias) const;
  bool isWrittenAs(const TunnelVia& written, const ViaAndTunnelInfo& via) const;
  void releaseEncap(EncapId encapId);
  void deleteEncap(EncapId encapId);

  const Zol::Ptr<TunnelFib> tunnelFib_;
  Zol::HashCollection<EncapType, std::uint32_t> nextEncapIndex_;
  EncapRefCounts encapIdRefCount_;
  EncapContentIndex byContent_;
  std::array<std::uint32_t, 5> inheritedEnd_{};  // by type: records from before the start have lower indexes
  bool areCountsComplete_ = true;                // false: damage hid entries when references were counted
  bool initialized_ = false;
};

// Creates the writer of a FIB.
inline constexpr Zol::Factory<TunnelFibWriter> tunnelFibWriterFactory;

}  // namespace Tunnel::TunnelTable
