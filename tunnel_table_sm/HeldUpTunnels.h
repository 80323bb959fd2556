// HeldUpTunnels: the tunnels whose FIB review could not be completed, by the reason, and the order of their retries.
//
//   table         the tunnel's table cannot be read
//   replacement   the FIB has no space for the new entry; readers have the old one
//   insertion     the FIB has no space for a new tunnel's entry
//
// A round retries each tunnel once, in this order: replacements go before insertions. A tunnel that still finds no
// space is a refusal. After eight refusals in a row the round skips the tunnels that wait for space: when the FIB is
// full, thousands of them would fail alike. The next round retries others.
#pragma once

#include <array>
#include <cstdint>

#include "runtime/Zol/HashCollection.h"
#include "tunnel/TunnelId.h"

namespace Tunnel::TunnelTable {

enum class HeldUpBy : std::uint8_t { table, replacement, insertion };

class HeldUpTunnels {
 public:
  bool has(const TunnelId& tunnelId) const;
  std::size_t size() const;
  bool empty() const { return size() == 0; }
  // Whether some tunnel waits for space.
  bool waitsForSpace() const { return of(HeldUpBy::replacement).ids.size() + of(HeldUpBy::insertion).ids.size() != 0; }

  // One for space is a refusal.
  void add(const TunnelId& tunnelId, HeldUpBy reason);
  // Before a tunnel's review. False: it was not held up.
  bool erase(const TunnelId& tunnelId);

  void beginRound();
  bool isRoundOver() const;
  // The tunnel to retry next. Requires: the round is not over.
  TunnelId next();
  // The tunnel that was retried is not held up any more.
  void accepted() { refusalsLeft_ = refusalsMax; }

 private:
  static constexpr unsigned refusalsMax = 8;
  struct Waiting {
    Zol::HashCollection<TunnelId> ids;
    TunnelId last;         // the last one retried; of insertions, the place where it was searched
    std::size_t left = 0;  // how many the round may still retry
  };

  const Waiting& of(HeldUpBy reason) const { return waiting_[static_cast<std::size_t>(reason)]; }
  bool mayRetry(HeldUpBy reason) const {
    return of(reason).left != 0 && !of(reason).ids.empty() && (reason == HeldUpBy::table || refusalsLeft_ != 0);
  }

  std::array<Waiting, 3> waiting_;
  unsigned refusalsLeft_ = 0;
};

}  // namespace Tunnel::TunnelTable
