// IpGenPrefix: an IPv4 or IPv6 prefix, host bits clear. 0.0.0.0/0, the default, and ::/0 are "the zero prefix", which
// names no tunnel endpoint. Sorts by address, then by length, shorter first. Text is the address, a slash and the
// length.
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>
#include <span>
#include <string_view>

#include "runtime/Ipkit/IpGenAddr.h"

namespace Ipkit {

class IpGenPrefix {
 public:
  static constexpr const char* typeName() { return "Ipkit::IpGenPrefix"; }

  constexpr IpGenPrefix() = default;
  // Raises RangeException for a length beyond the family's or for host bits that are set.
  IpGenPrefix(const IpGenAddr& address, unsigned length);
  // The prefix of one host.
  static IpGenPrefix host(const IpGenAddr& address) { return {address, address.bitCount()}; }
  // Raises ParseException, also for host bits and for a length with sign or leading zeros.
  static IpGenPrefix fromText(std::string_view text);

  const IpGenAddr& address() const { return address_; }
  unsigned length() const { return length_; }
  bool contains(const IpGenAddr& address) const {
    return address.family() == address_.family() && address.masked(length_) == address_;
  }

  bool operator!() const { return length_ == 0; }
  std::uint32_t hash() const;
  // The hash of the prefix with these encoded bytes, whether or not they are one.
  static std::uint32_t hashOfEncoded(std::span<const std::byte> bytes);

  friend bool operator==(const IpGenPrefix&, const IpGenPrefix&) = default;
  friend std::strong_ordering operator<=>(const IpGenPrefix&, const IpGenPrefix&) = default;
  friend std::ostream& operator<<(std::ostream& out, const IpGenPrefix& prefix);
  friend void parseValue(Zol::TextCursor& in, IpGenPrefix& prefix);
  friend void encodeValue(Zol::ByteWriter& out, const IpGenPrefix& prefix);
  friend void decodeValue(Zol::ByteReader& in, IpGenPrefix& prefix);

 private:
  IpGenAddr address_;
  std::uint8_t length_ = 0;
};

}  // namespace Ipkit
