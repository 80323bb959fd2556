#include "runtime/Ipkit/IpGenAddr.h"

#include <arpa/inet.h>

#include <cstring>
#include <string>

#include "runtime/Zol/Hash.h"

namespace Ipkit {
namespace {

using Groups = std::array<std::uint16_t, 8>;

// The longest run of two or more zero groups, the first among equals: what "::" stands for.
struct ZeroRun {
  std::size_t begin = 0;
  std::size_t size = 0;
};
ZeroRun longestZeroRun(const Groups& groups) {
  ZeroRun longest;
  for (std::size_t i = 0; i < groups.size(); ++i) {
    std::size_t end = i;
    while (end < groups.size() && groups[end] == 0) {
      ++end;
    }
    if (end - i >= 2 && end - i > longest.size) {
      longest = {i, end - i};
    }
  }
  return longest;
}

void printIpv4(std::ostream& out, const std::uint8_t* bytes) {
  out << +bytes[0] << '.' << +bytes[1] << '.' << +bytes[2] << '.' << +bytes[3];
}

void printHex(std::ostream& out, std::uint16_t group) {
  static constexpr char digits[] = "0123456789abcdef";
  bool started = false;
  for (int shift = 12; shift >= 0; shift -= 4) {
    const unsigned digit = (static_cast<unsigned>(group) >> shift) & 0xFU;
    started = started || digit != 0 || shift == 0;
    if (started) {
      out << digits[digit];
    }
  }
}

void printIpv6(std::ostream& out, const std::array<std::uint8_t, 16>& bytes) {
  Groups groups;
  for (std::size_t i = 0; i < groups.size(); ++i) {
    groups[i] = static_cast<std::uint16_t>(bytes[2 * i] * 256U + bytes[2 * i + 1]);
  }
  const ZeroRun zeros = longestZeroRun(groups);
  if (zeros.begin == 0 && zeros.size == 5 && groups[5] == 0xFFFF) {  // IPv4-mapped
    out << "::ffff:";
    printIpv4(out, bytes.data() + 12);
    return;
  }
  for (std::size_t i = 0; i < groups.size(); ++i) {
    if (zeros.size > 0 && i == zeros.begin) {
      out << "::";
      i += zeros.size - 1;
      continue;
    }
    if (i > 0 && (zeros.size == 0 || i != zeros.begin + zeros.size)) {
      out << ':';
    }
    printHex(out, groups[i]);
  }
}

}  // namespace

IpGenAddr IpGenAddr::ipv4(std::uint32_t address) {
  IpGenAddr result;
  for (unsigned i = 0; i < 4; ++i) {
    result.bytes_[i] = static_cast<std::uint8_t>(address >> (24 - 8 * i));
  }
  return result;
}

IpGenAddr IpGenAddr::ipv6(const std::array<std::uint8_t, 16>& bytes) {
  IpGenAddr result;
  result.family_ = Family::ipv6;
  result.bytes_ = bytes;
  return result;
}

IpGenAddr IpGenAddr::fromText(std::string_view text) {
  const std::string terminated(text);
  IpGenAddr address;
  address.family_ = text.find(':') == std::string_view::npos ? Family::ipv4 : Family::ipv6;
  const bool hasNul = text.find('\0') != std::string_view::npos;
  if (hasNul || inet_pton(address.isIpv6() ? AF_INET6 : AF_INET, terminated.c_str(), address.bytes_.data()) != 1) {
    throw Zol::ParseException("'" + terminated + "' is not an IPv4 or IPv6 address");
  }
  return address;
}

IpGenAddr IpGenAddr::masked(unsigned length) const {
  IpGenAddr result = *this;
  for (unsigned i = 0; i < byteCount(); ++i) {
    const unsigned kept = length <= 8 * i ? 0 : std::min(8U, length - 8 * i);
    result.bytes_[i] = static_cast<std::uint8_t>(result.bytes_[i] & (0xFF00U >> kept));
  }
  return result;
}

std::uint32_t IpGenAddr::hash() const {
  std::uint64_t words[2];
  std::memcpy(words, bytes_.data(), sizeof words);
  Zol::HashMix mix;
  mix.add(words[0] ^ static_cast<std::uint64_t>(family_));
  mix.add(words[1]);
  return mix.result();
}

std::ostream& operator<<(std::ostream& out, const IpGenAddr& address) {
  address.isIpv6() ? printIpv6(out, address.bytes_) : printIpv4(out, address.bytes_.data());
  return out;
}

void parseValue(Zol::TextCursor& in, IpGenAddr& address) { address = IpGenAddr::fromText(in.token()); }

void encodeValue(Zol::ByteWriter& out, const IpGenAddr& address) {
  out.word(static_cast<std::uint8_t>(address.family_));
  out.bytes(std::as_bytes(std::span(address.bytes_.data(), address.byteCount())));
}

void decodeValue(Zol::ByteReader& in, IpGenAddr& address) {
  address = IpGenAddr();
  const std::uint8_t family = in.word<std::uint8_t>();
  if (family != 4 && family != 6) {
    in.bad();
    return;
  }
  address.family_ = static_cast<IpGenAddr::Family>(family);
  const std::span<const std::byte> bytes = in.bytes(address.byteCount());
  if (!bytes.empty()) {
    std::memcpy(address.bytes_.data(), bytes.data(), bytes.size());
  }
}

}  // namespace Ipkit
