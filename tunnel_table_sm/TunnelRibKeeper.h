// TunnelRibKeeper: checks and rewrites the entries of a tunnel RIB or a per-protocol RIB for a scrubber. The entries
// follow from the candidates of the RIB's builder.
#pragma once

#include <functional>
#include <optional>

#include "tunnel_table_sm/TableScrubber.h"
#include "tunnel_table_sm/TunnelRibBuilderSm.h"

namespace Tunnel::TunnelTable {

class TunnelRibKeeper final : public TableKeeper {
 public:
  // The RIB's builder now; null: it has none. A builder is replaced when its configuration changes.
  using Builder = std::function<TunnelRibBuilderSm*()>;
  // type: of a per-protocol RIB.
  TunnelRibKeeper(Zol::Ptr<TunnelRib> rib, Builder builder, std::optional<TunnelType> type = std::nullopt)
      : rib_(std::move(rib)), builder_(std::move(builder)), type_(type) {}

  void visit(unsigned collection, Memtab::Bytes key, Memtab::Bytes record) override;
  std::vector<std::string> visited(unsigned collection, std::uint64_t last, bool isSound) override;
  void visitedAgain() override { wrong_.clear(); }
  std::vector<std::string> review(unsigned collection, std::uint64_t first, std::uint64_t last, bool isAll) override;
  std::string nameOf(unsigned collection, Memtab::Bytes key) const override;
  bool isSettled() const override;

 private:
  const Zol::Ptr<TunnelRib> rib_;
  const Builder builder_;
  const std::optional<TunnelType> type_;
  std::vector<Ipkit::IpGenPrefix> wrong_;  // endpoints of the range that is being visited
};

}  // namespace Tunnel::TunnelTable
