// IpGenAddr: an IPv4 or IPv6 address. The default is the IPv4 address 0.0.0.0, "unspecified". IPv4 sorts before IPv6,
// then by the bytes of the address. Text is the dotted quad, or RFC 5952 for IPv6.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <ostream>
#include <string_view>

#include "runtime/Zol/Bytes.h"
#include "runtime/Zol/TextCursor.h"

namespace Ipkit {

class IpGenAddr {
 public:
  enum class Family : std::uint8_t { ipv4 = 4, ipv6 = 6 };
  static constexpr const char* typeName() { return "Ipkit::IpGenAddr"; }

  constexpr IpGenAddr() = default;
  // From the address as a number: 0x0A000001 is 10.0.0.1.
  static IpGenAddr ipv4(std::uint32_t address);
  // In network byte order.
  static IpGenAddr ipv6(const std::array<std::uint8_t, 16>& bytes);
  // Strict: no leading zeros in IPv4, no zone, no blanks. Raises ParseException.
  static IpGenAddr fromText(std::string_view text);

  Family family() const { return family_; }
  bool isIpv6() const { return family_ == Family::ipv6; }
  // Network byte order; an IPv4 address uses the first four, the rest is zero.
  const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }
  std::size_t byteCount() const { return isIpv6() ? 16 : 4; }
  unsigned bitCount() const { return isIpv6() ? 128 : 32; }

  // The address with all but its first length bits cleared. length <= bitCount().
  IpGenAddr masked(unsigned length) const;

  bool operator!() const { return *this == IpGenAddr(); }
  std::uint32_t hash() const;

  friend bool operator==(const IpGenAddr&, const IpGenAddr&) = default;
  friend std::strong_ordering operator<=>(const IpGenAddr&, const IpGenAddr&) = default;
  friend std::ostream& operator<<(std::ostream& out, const IpGenAddr& address);
  friend void parseValue(Zol::TextCursor& in, IpGenAddr& address);
  friend void encodeValue(Zol::ByteWriter& out, const IpGenAddr& address);
  friend void decodeValue(Zol::ByteReader& in, IpGenAddr& address);

 private:
  Family family_ = Family::ipv4;
  std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace Ipkit
