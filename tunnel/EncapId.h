// EncapId: the name of one encapsulation record of the tunnel FIB. The top 4 bits say in which of the four collections
// the record lies, the low 28 bits are its index there. EncapId() names none: a via that carries it sends packets as
// they are. Text is "<type>/<index>", as in "labelStack/42", or "none".
#pragma once

#include <compare>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <span>
#include <string_view>

#include "runtime/Zol/Bytes.h"
#include "runtime/Zol/TextCursor.h"

namespace Tunnel::TunnelFib {

enum class EncapType : std::uint8_t { invalid = 0, gre = 1, ipsecVti = 2, ipsecGre = 3, labelStack = 4 };

constexpr bool isLegal(EncapType type) { return type <= EncapType::labelStack; }
// "none", "gre", "ipsecVti", "ipsecGre", "labelStack"; "encapType<number>" for a number without a type.
std::string stringValue(EncapType type);
std::ostream& operator<<(std::ostream& out, EncapType type);
// Raises ParseException for any other word.
EncapType encapTypeFromText(std::string_view name);
void parseValue(Zol::TextCursor& in, EncapType& type);

class EncapId {
 public:
  static constexpr std::uint32_t indexCount = std::uint32_t(1) << 28;
  static constexpr const char* typeName() { return "Tunnel::TunnelFib::EncapId"; }

  constexpr EncapId() = default;
  constexpr explicit EncapId(std::uint32_t value) : value_(value) {}
  constexpr EncapId(EncapType type, std::uint32_t index) { encapValueIs(type, index); }

  // The index wraps within its 28 bits, so that stepping it comes back to where it started.
  constexpr void encapValueIs(EncapType type, std::uint32_t index) {
    value_ = (static_cast<std::uint32_t>(type) << 28) | (index & (indexCount - 1));
  }
  constexpr std::uint32_t value() const { return value_; }
  constexpr EncapType encapType() const { return static_cast<EncapType>(value_ >> 28); }
  constexpr std::uint32_t index() const { return value_ & (indexCount - 1); }

  // One to one. Ids are handed out in ascending order: the low bits of the index go to the top, so that few ids spread
  // over the whole range, except for the lowest seven, which keep neighbours together.
  constexpr std::uint32_t hash() const {
    return reversed(index() >> 7) | (static_cast<std::uint32_t>(encapType()) << 7) | (index() & 0x7F);
  }
  // The hash of the id with these encoded bytes, whether or not they are one.
  static std::uint32_t hashOfEncoded(std::span<const std::byte> bytes) {
    std::uint32_t value = 0;
    if (bytes.size() == sizeof value) {
      std::memcpy(&value, bytes.data(), sizeof value);
    }
    return EncapId(value).hash();
  }

  bool operator!() const { return value_ == 0; }
  friend constexpr bool operator==(const EncapId&, const EncapId&) = default;
  friend constexpr std::strong_ordering operator<=>(const EncapId&, const EncapId&) = default;
  friend std::ostream& operator<<(std::ostream& out, const EncapId& id);
  friend void parseValue(Zol::TextCursor& in, EncapId& id);
  friend void encodeValue(Zol::ByteWriter& out, const EncapId& id) { out.word(id.value_); }
  friend void decodeValue(Zol::ByteReader& in, EncapId& id) { id.value_ = in.word<std::uint32_t>(); }

 private:
  // The bits from the other end.
  static constexpr std::uint32_t reversed(std::uint32_t bits) {
    bits = (bits >> 1 & 0x55555555) | (bits & 0x55555555) << 1;
    bits = (bits >> 2 & 0x33333333) | (bits & 0x33333333) << 2;
    bits = (bits >> 4 & 0x0F0F0F0F) | (bits & 0x0F0F0F0F) << 4;
    bits = (bits >> 8 & 0x00FF00FF) | (bits & 0x00FF00FF) << 8;
    return bits >> 16 | bits << 16;
  }

  std::uint32_t value_ = 0;
};

}  // namespace Tunnel::TunnelFib

// The state machines live in TunnelTable and use these names.
namespace Tunnel::TunnelTable {
using Tunnel::TunnelFib::EncapId;
using Tunnel::TunnelFib::EncapType;
}  // namespace Tunnel::TunnelTable
