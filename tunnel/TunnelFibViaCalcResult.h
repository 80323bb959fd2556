// TunnelFibViaCalcResult: why vias of a tunnel could not be built from a next-level tunnel. No flag: all could.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "runtime/Zol/Hash.h"
#include "runtime/Zol/TextCursor.h"

namespace Tunnel::TunnelTable {

class TunnelFibViaCalcResult {
 public:
  static constexpr std::uint32_t maxValue = 0x3F;
  static constexpr const char* typeName() { return "Tunnel::TunnelTable::TunnelFibViaCalcResult"; }
  static constexpr const char* flagNames[] = {"recTunNotReady",   "recTunUnprogrammable", "recTunMissing",
                                              "recTunNonContrib", "recTunFlattenError",   "recTunCycle"};

  constexpr TunnelFibViaCalcResult() = default;
  // Raises RangeException for a value above maxValue.
  explicit TunnelFibViaCalcResult(std::uint32_t value) : value_(value) { checkValue(); }

  std::uint32_t value() const { return value_; }
  // The flag whose name has that place in flagNames.
  bool flag(unsigned bit) const { return (value_ >> bit & 1U) != 0; }

  // A next level is still to be reviewed and has no vias yet.
  bool recTunNotReady() const { return flag(0); }
  void recTunNotReadyIs(bool on) { flagIs(0, on); }
  // A next level was reviewed and has nothing to offer.
  bool recTunUnprogrammable() const { return flag(1); }
  void recTunUnprogrammableIs(bool on) { flagIs(1, on); }
  // A next level has no table entry.
  bool recTunMissing() const { return flag(2); }
  void recTunMissingIs(bool on) { flagIs(2, on); }
  // A next level's table entry does not contribute.
  bool recTunNonContrib() const { return flag(3); }
  void recTunNonContribIs(bool on) { flagIs(3, on); }
  // A via of a next level could not be joined: too many labels, or an encapsulation that is no label stack.
  bool recTunFlattenError() const { return flag(4); }
  void recTunFlattenErrorIs(bool on) { flagIs(4, on); }
  // A next level leads back to the tunnel.
  bool recTunCycle() const { return flag(5); }
  void recTunCycleIs(bool on) { flagIs(5, on); }

  TunnelFibViaCalcResult& operator|=(const TunnelFibViaCalcResult& other) {
    value_ |= other.value_;
    return *this;
  }
  std::uint32_t hash() const { return Zol::hashOf(value_); }
  friend bool operator==(const TunnelFibViaCalcResult&, const TunnelFibViaCalcResult&) = default;
  friend std::ostream& operator<<(std::ostream& out, const TunnelFibViaCalcResult& result);
  friend void parseValue(Zol::TextCursor& in, TunnelFibViaCalcResult& result);

 private:
  void flagIs(unsigned bit, bool on) { value_ = on ? value_ | 1U << bit : value_ & ~(1U << bit); }
  void checkValue() const;

  std::uint32_t value_ = 0;
};

std::string valueToStrep(const TunnelFibViaCalcResult& result);

}  // namespace Tunnel::TunnelTable
