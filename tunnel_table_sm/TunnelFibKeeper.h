// TunnelFibKeeper: checks and rewrites the records of the tunnel FIB for a scrubber.
//
// An entry that cannot be read goes to review, which writes it again. An encapsulation that cannot be read, or is
// missing, is written again under its id from the tunnel of an entry that carries it: other entries carry the id too.
// Each pass counts all references again: those of a lost entry were never released.
#pragma once

#include "tunnel_table_sm/TableScrubber.h"
#include "tunnel_table_sm/TunnelFibSm.h"

namespace Tunnel::TunnelTable {

class TunnelFibKeeper final : public TableKeeper {
 public:
  explicit TunnelFibKeeper(Zol::Ptr<TunnelFibSm> sm) : sm_(std::move(sm)) {}

  void visit(unsigned collection, Memtab::Bytes key, Memtab::Bytes record) override;
  std::vector<std::string> visited(unsigned collection, std::uint64_t last, bool isSound) override;
  void visitedAgain() override;
  void passEnded() override;
  // Encapsulations wait for the entries that carry them.
  bool isWrittenLater(unsigned collection) const override { return collection != 0; }
  std::vector<std::string> review(unsigned collection, std::uint64_t first, std::uint64_t last, bool isAll) override;
  std::string nameOf(unsigned collection, Memtab::Bytes key) const override;
  bool isSettled() const override {
    return sm_->tunnelForReviews() == 0 && sm_->deferredTunnels() == 0 && sm_->heldUp() == 0;
  }

 private:
  std::uint64_t sequence() const { return sm_->tunnelFib()->entry().collectionControl().sequence(); }
  bool hasEncap(EncapId id) const;
  void restoreEncaps(const TunnelFibEntry& entry, std::vector<std::string>& restored);

  const Zol::Ptr<TunnelFibSm> sm_;
  // Of the range that is being visited.
  std::vector<EncapId> carried_;
  std::vector<TunnelFibEntry> incomplete_;  // an encapsulation is missing
  // Of the pass over the entries.
  EncapRefCounts counts_;
  std::uint64_t countedFrom_ = 0;  // the FIB's sequence number when counting began
  bool isCounting_ = false;
  bool isCountSound_ = true;
};

}  // namespace Tunnel::TunnelTable
