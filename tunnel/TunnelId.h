// TunnelId: the name of a tunnel. Bits 44 to 47 hold the type, bits 0 to 43 the index that the publishing protocol
// chose, the rest is zero. Orders as an unsigned 64-bit number. Text is "<type>/<index>", as in "ldpTunnel/5".
#pragma once

#include <compare>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <span>
#include <string_view>

#include "runtime/Ipkit/IntfId.h"
#include "runtime/Zol/Bytes.h"
#include "runtime/Zol/Hash.h"
#include "runtime/Zol/TextCursor.h"
#include "tunnel/TunnelType.h"

namespace Tunnel::TunnelTable {

class TunnelId {
 public:
  static constexpr std::uint64_t minValue = 0;
  static constexpr std::uint64_t maxValue = 0xFFFFFFFFFFFF;
  static constexpr std::uint64_t maxIndex = (std::uint64_t(1) << 44) - 1;
  static constexpr const char* typeName() { return "Tunnel::TunnelTable::TunnelId"; }

  constexpr TunnelId() = default;
  // Raises RangeException for a value above maxValue.
  explicit TunnelId(std::uint64_t value);
  // Raises RangeException for an index above maxIndex.
  TunnelId(TunnelType type, std::uint64_t index);
  // Raises ParseException or RangeException.
  static TunnelId fromText(std::string_view text);

  constexpr std::uint64_t value() const { return (std::uint64_t(high_) << 32) | low_; }
  constexpr TunnelType tunnelType() const { return static_cast<TunnelType>(value() >> 44); }
  constexpr std::uint64_t index() const { return value() & maxIndex; }

  // Jenkins' one-at-a-time over the value's eight bytes, least significant first.
  constexpr std::uint32_t hash() const {
    Zol::OneAtATime hash;
    hash.word(value());
    return hash.result();
  }

  // The hash of the id with these encoded bytes, whether or not they are one.
  static std::uint32_t hashOfEncoded(std::span<const std::byte> bytes) {
    std::uint64_t value = 0;
    if (bytes.size() == sizeof value) {
      std::memcpy(&value, bytes.data(), sizeof value);
    }
    Zol::OneAtATime hash;
    hash.word(value);
    return hash.result();
  }

  bool operator!() const { return value() == 0; }
  friend constexpr bool operator==(const TunnelId& a, const TunnelId& b) { return a.value() == b.value(); }
  friend constexpr std::strong_ordering operator<=>(const TunnelId& a, const TunnelId& b) {
    return a.value() <=> b.value();
  }
  friend std::ostream& operator<<(std::ostream& out, const TunnelId& id);
  friend void parseValue(Zol::TextCursor& in, TunnelId& id) { id = fromText(in.token()); }
  friend void encodeValue(Zol::ByteWriter& out, const TunnelId& id) { out.word(id.value()); }
  friend void decodeValue(Zol::ByteReader& in, TunnelId& id);

 private:
  std::uint32_t low_ = 0;
  std::uint32_t high_ = 0;
};

// Whether value is one of a tunnel id whose type exists; says nothing about whether the tunnel does.
bool isLegalTunnelIdValue(std::uint64_t value);

// The interface that stands for a tunnel.
class DynamicTunnelIntfId {
 public:
  static bool isDynamicTunnelIntfId(Ipkit::IntfId intf) {
    return Ipkit::DynamicTunnelIntfId::isDynamicTunnelIntfId(intf);
  }
  static Ipkit::IntfId intfId(const TunnelId& id) { return Ipkit::DynamicTunnelIntfId::fromTunnelIdValue(id.value()); }
  // The tunnel that intf stands for; raises RangeException when it encodes a value above TunnelId::maxValue.
  static TunnelId tunnelId(Ipkit::IntfId intf) { return TunnelId(Ipkit::DynamicTunnelIntfId::tunnelIdValue(intf)); }
};

}  // namespace Tunnel::TunnelTable
