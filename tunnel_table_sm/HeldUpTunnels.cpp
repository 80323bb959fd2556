#include "tunnel_table_sm/HeldUpTunnels.h"

#include <algorithm>

#include "runtime/Zol/Assert.h"

namespace Tunnel::TunnelTable {
namespace {

constexpr std::array reasons{HeldUpBy::table, HeldUpBy::replacement, HeldUpBy::insertion};

// Neighbours by hash need space in the same part of the FIB's index, so insertions are retried in no such order.
constexpr std::uint64_t indexEnd = std::uint64_t{1} << 44;
constexpr std::uint64_t step = 0x9E3'779B'97F5;

}  // namespace

bool HeldUpTunnels::has(const TunnelId& tunnelId) const {
  return std::any_of(waiting_.begin(), waiting_.end(), [&](const Waiting& each) { return each.ids.has(tunnelId); });
}

std::size_t HeldUpTunnels::size() const {
  return waiting_[0].ids.size() + waiting_[1].ids.size() + waiting_[2].ids.size();
}

void HeldUpTunnels::add(const TunnelId& tunnelId, HeldUpBy reason) {
  erase(tunnelId);
  waiting_[static_cast<std::size_t>(reason)].ids.insert(tunnelId);
  if (reason != HeldUpBy::table && refusalsLeft_ != 0) {
    --refusalsLeft_;
  }
}

bool HeldUpTunnels::erase(const TunnelId& tunnelId) {
  return std::any_of(waiting_.begin(), waiting_.end(), [&](Waiting& each) { return each.ids.erase(tunnelId); });
}

void HeldUpTunnels::beginRound() {
  for (Waiting& each : waiting_) {
    each.left = each.ids.size();
  }
  refusalsLeft_ = refusalsMax;
}

bool HeldUpTunnels::isRoundOver() const {
  return std::none_of(reasons.begin(), reasons.end(), [this](HeldUpBy reason) { return mayRetry(reason); });
}

TunnelId HeldUpTunnels::next() {
  const auto* const reason =
      std::find_if(reasons.begin(), reasons.end(), [this](HeldUpBy each) { return mayRetry(each); });
  ZOL_ASSERT(reason != reasons.end());
  Waiting& waiting = waiting_[static_cast<std::size_t>(*reason)];
  --waiting.left;
  if (*reason == HeldUpBy::insertion) {
    waiting.last = TunnelId(TunnelType::ldpTunnel, (waiting.last.index() + step) % indexEnd);
    const auto it = waiting.ids.from(waiting.last);
    return it ? it.key() : waiting.ids.begin().key();
  }
  auto it = waiting.ids.from(waiting.last);
  if (it && it.key() == waiting.last) {
    ++it;
  }
  waiting.last = it ? it.key() : waiting.ids.begin().key();
  return waiting.last;
}

}  // namespace Tunnel::TunnelTable
