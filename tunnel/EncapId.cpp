#include "tunnel/EncapId.h"

#include <algorithm>

#include "runtime/Zol/Value.h"

namespace Tunnel::TunnelFib {
namespace {

constexpr std::string_view typeNames[] = {"none", "gre", "ipsecVti", "ipsecGre", "labelStack"};

}  // namespace

std::string stringValue(EncapType type) {
  const auto number = static_cast<std::size_t>(type);
  return number < std::size(typeNames) ? std::string(typeNames[number]) : "encapType" + std::to_string(number);
}

std::ostream& operator<<(std::ostream& out, EncapType type) { return out << stringValue(type); }

EncapType encapTypeFromText(std::string_view name) {
  const auto* const at = std::find(std::begin(typeNames), std::end(typeNames), name);
  if (at == std::end(typeNames)) {
    throw Zol::ParseException("'" + std::string(name) + "' is not an encapsulation type");
  }
  return static_cast<EncapType>(at - std::begin(typeNames));
}

void parseValue(Zol::TextCursor& in, EncapType& type) { type = encapTypeFromText(in.token()); }

std::ostream& operator<<(std::ostream& out, const EncapId& id) {
  return !id ? out << EncapType::invalid : out << id.encapType() << '/' << id.index();
}

void parseValue(Zol::TextCursor& in, EncapId& id) {
  const std::string_view text = in.token();
  const std::size_t slash = text.find('/');
  const EncapType type = encapTypeFromText(text.substr(0, slash));
  if ((type == EncapType::invalid) != (slash == std::string_view::npos)) {
    throw Zol::ParseException("'" + std::string(text) + "' is not an encapsulation id (<type>/<index> or none)");
  }
  id = slash == std::string_view::npos
           ? EncapId()
           : EncapId(type,
                     static_cast<std::uint32_t>(Zol::parseUnsigned(text.substr(slash + 1), EncapId::indexCount - 1)));
}

}  // namespace Tunnel::TunnelFib
