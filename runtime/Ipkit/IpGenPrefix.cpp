#include "runtime/Ipkit/IpGenPrefix.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "runtime/Zol/Hash.h"
#include "runtime/Zol/Value.h"

namespace Ipkit {
namespace {

std::uint32_t hashOf(const void* address, std::size_t byteCount, std::uint8_t family, std::uint8_t length) {
  std::uint64_t words[2] = {0, 0};
  std::memcpy(words, address, byteCount);
  Zol::HashMix mix;
  mix.add(words[0] ^ family ^ (std::uint64_t(length) << 56));
  if (byteCount > sizeof(std::uint32_t)) {
    mix.add(words[1]);
  }
  return mix.result();
}

}  // namespace

IpGenPrefix::IpGenPrefix(const IpGenAddr& address, unsigned length) : address_(address) {
  if (length > address.bitCount()) {
    throw Zol::RangeException("IpGenPrefix::length > " + std::to_string(address.bitCount()) + " not allowed");
  }
  if (length < address.bitCount() && address.masked(length) != address) {
    throw Zol::RangeException("IpGenPrefix::address with host bits set not allowed");
  }
  length_ = static_cast<std::uint8_t>(length);
}

IpGenPrefix IpGenPrefix::fromText(std::string_view text) {
  const auto fail = [text](const std::string& why) -> Zol::ParseException {
    return Zol::ParseException("'" + std::string(text) + "' is not a prefix: " + why);
  };
  const std::size_t slash = text.find('/');
  if (slash == std::string_view::npos) {
    throw fail("no '/'");
  }
  const std::string_view digits = text.substr(slash + 1);
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string_view::npos ||
      (digits.size() > 1 && digits.front() == '0')) {
    throw fail("the length is not a number");
  }
  try {
    return {IpGenAddr::fromText(text.substr(0, slash)), static_cast<unsigned>(Zol::parseUnsigned(digits, 255))};
  } catch (const Zol::Exception& error) {
    throw fail(error.what());
  }
}

std::uint32_t IpGenPrefix::hash() const {
  return hashOf(address_.bytes().data(), address_.byteCount(), static_cast<std::uint8_t>(address_.family()), length_);
}

// Encoded: the family, the bytes of the address, the length.
std::uint32_t IpGenPrefix::hashOfEncoded(std::span<const std::byte> bytes) {
  if (bytes.size() < 2) {
    return 0;
  }
  return hashOf(bytes.data() + 1, std::min<std::size_t>(bytes.size() - 2, 16), std::to_integer<std::uint8_t>(bytes[0]),
                std::to_integer<std::uint8_t>(bytes.back()));
}

std::ostream& operator<<(std::ostream& out, const IpGenPrefix& prefix) {
  return out << prefix.address_ << '/' << +prefix.length_;
}

void parseValue(Zol::TextCursor& in, IpGenPrefix& prefix) { prefix = IpGenPrefix::fromText(in.token()); }

void encodeValue(Zol::ByteWriter& out, const IpGenPrefix& prefix) {
  encodeValue(out, prefix.address_);
  out.word(prefix.length_);
}

void decodeValue(Zol::ByteReader& in, IpGenPrefix& prefix) {
  prefix = IpGenPrefix();
  decodeValue(in, prefix.address_);
  prefix.length_ = in.word<std::uint8_t>();
  const unsigned bitCount = prefix.address_.bitCount();
  if (prefix.length_ > bitCount ||
      (prefix.length_ < bitCount && prefix.address_.masked(prefix.length_) != prefix.address_)) {
    in.bad();
    prefix = IpGenPrefix();
  }
}

}  // namespace Ipkit
