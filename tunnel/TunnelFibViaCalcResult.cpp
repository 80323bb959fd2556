#include "tunnel/TunnelFibViaCalcResult.h"

#include "runtime/Zol/Value.h"

namespace Tunnel::TunnelTable {

void TunnelFibViaCalcResult::checkValue() const {
  if (value_ > maxValue) {
    throw Zol::RangeException("TunnelFibViaCalcResult::value > 0x3f not allowed");
  }
}

std::ostream& operator<<(std::ostream& out, const TunnelFibViaCalcResult& result) {
  out << "Value('" << TunnelFibViaCalcResult::typeName() << "', ** {";
  for (unsigned bit = 0; bit < std::size(TunnelFibViaCalcResult::flagNames); ++bit) {
    out << (bit == 0 ? "'" : ", '") << TunnelFibViaCalcResult::flagNames[bit] << "': ";
    Zol::printValue(out, result.flag(bit));
  }
  return out << "})";
}

void parseValue(Zol::TextCursor& in, TunnelFibViaCalcResult& result) {
  Zol::expectValueHead(in, TunnelFibViaCalcResult::typeName());
  for (unsigned bit = 0; bit < std::size(TunnelFibViaCalcResult::flagNames); ++bit) {
    in.expect((bit == 0 ? "'" : ", '") + std::string(TunnelFibViaCalcResult::flagNames[bit]) + "': ");
    bool on = false;
    Zol::parseValue(in, on);
    result.flagIs(bit, on);
  }
  in.expect("})");
  result.checkValue();
}

std::string valueToStrep(const TunnelFibViaCalcResult& result) { return Zol::stringOf(result); }

}  // namespace Tunnel::TunnelTable
