#include "runtime/Ipkit/IpGenPrefix.h"

#include <cstring>
#include <string>

#include "runtime/Zol/Hash.h"
#include "runtime/Zol/Value.h"

namespace Ipkit {

IpGenPrefix::IpGenPrefix(const IpGenAddr& address, unsigned length) : address_(address) {
  if (length > address.bitCount()) {
    throw Zol::RangeException("IpGenPrefix::length > " + std::to_string(address.bitCount()) + " not allowed");
  }
  if (address.masked(length) != address) {
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
  std::uint64_t words[2];
  std::memcpy(words, address_.bytes().data(), sizeof words);
  Zol::HashMix mix;
  mix.add(words[0] ^ static_cast<std::uint64_t>(address_.family()) ^ (std::uint64_t(length_) << 56));
  if (address_.isIpv6()) {
    mix.add(words[1]);
  }
  return mix.result();
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
  if (prefix.length_ > prefix.address_.bitCount() || prefix.address_.masked(prefix.length_) != prefix.address_) {
    in.bad();
    prefix = IpGenPrefix();
  }
}

}  // namespace Ipkit
