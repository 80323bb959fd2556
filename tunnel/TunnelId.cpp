#include "tunnel/TunnelId.h"

#include "runtime/Zol/Value.h"

namespace Tunnel::TunnelTable {
namespace {

// Interfaces that stand for tunnels print and parse as what they stand for.
[[maybe_unused]] const bool tunnelFormKnown = [] {
  Ipkit::DynamicTunnelIntfId::formIs({
      [](std::uint64_t value) {
        return value <= TunnelId::maxValue ? Zol::stringOf(TunnelId(value)) : std::to_string(value);
      },
      [](std::string_view text) { return TunnelId::fromText(text).value(); },
      [](std::uint64_t value) { return isLegalTunnelIdValue(value); },
  });
  return true;
}();

}  // namespace

TunnelId::TunnelId(std::uint64_t value)
    : low_(static_cast<std::uint32_t>(value)), high_(static_cast<std::uint32_t>(value >> 32)) {
  if (value > maxValue) {
    throw Zol::RangeException("TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed");
  }
}

TunnelId::TunnelId(TunnelType type, std::uint64_t index)
    : TunnelId((static_cast<std::uint64_t>(type) << 44) | (index & maxIndex)) {
  if (index > maxIndex) {
    throw Zol::RangeException("TunnelId::index > TunnelId::maxIndex not allowed");
  }
}

TunnelId TunnelId::fromText(std::string_view text) {
  const std::size_t slash = text.find('/');
  if (slash == std::string_view::npos) {
    throw Zol::ParseException("'" + std::string(text) + "' is not a tunnel id (<type>/<index>)");
  }
  return {tunnelTypeFromText(text.substr(0, slash)), Zol::parseUnsigned(text.substr(slash + 1), maxIndex)};
}

std::ostream& operator<<(std::ostream& out, const TunnelId& id) { return out << id.tunnelType() << '/' << id.index(); }

void decodeValue(Zol::ByteReader& in, TunnelId& id) {
  const auto value = in.word<std::uint64_t>();
  if (value > TunnelId::maxValue) {
    in.bad();
    id = TunnelId();
  } else {
    id = TunnelId(value);
  }
}

bool isLegalTunnelIdValue(std::uint64_t value) {
  return value <= TunnelId::maxValue && isLegal(TunnelId(value).tunnelType());
}

}  // namespace Tunnel::TunnelTable
