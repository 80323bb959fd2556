#include "runtime/Ipkit/IntfId.h"

#include "runtime/Zol/Hash.h"
#include "runtime/Zol/Value.h"

namespace Ipkit {
namespace {

constexpr std::string_view ordinaryPrefix = "if";
constexpr std::string_view tunnelPrefix = "tunnel:";
constexpr std::string_view nexthopGroupPrefix = "nexthopGroup:";

DynamicTunnelIntfId::Form tunnelForm = {
    [](std::uint64_t tunnelId) { return std::to_string(tunnelId); },
    [](std::string_view text) { return Zol::parseUnsigned(text, UINT64_MAX); },
    [](std::uint64_t) { return true; },
};

}  // namespace

IntfId IntfId::ordinary(std::uint64_t ifIndex) {
  if (ifIndex < 1 || ifIndex > ifIndexMax) {
    throw Zol::RangeException("IntfId::ifIndex < 1 or > " + std::to_string(ifIndexMax) + " not allowed");
  }
  return IntfId(ifIndex);
}

IntfId IntfId::fromText(std::string_view text) {
  const auto rest = [text](std::string_view prefix) { return text.substr(prefix.size()); };
  if (text.starts_with(tunnelPrefix)) {
    return DynamicTunnelIntfId::fromTunnelIdValue(tunnelForm.parse(rest(tunnelPrefix)));
  }
  if (text.starts_with(nexthopGroupPrefix)) {
    return NexthopGroupIntfId::nexthopGroupIdToIntfId(
        static_cast<std::uint32_t>(Zol::parseUnsigned(rest(nexthopGroupPrefix), UINT32_MAX)));
  }
  if (text.starts_with(ordinaryPrefix)) {
    return ordinary(Zol::parseUnsigned(rest(ordinaryPrefix), UINT64_MAX));
  }
  if (text == "none") {
    return {};
  }
  throw Zol::ParseException("'" + std::string(text) + "' is not an interface (if<n>, tunnel:<id>, nexthopGroup:<n>)");
}

bool IntfId::isLegal() const {
  if (is(Kind::ordinary)) {
    return number() >= 1 && number() <= ifIndexMax;
  }
  if (is(Kind::dynamicTunnel)) {
    return tunnelForm.isLegal(number());
  }
  return is(Kind::nexthopGroup) && number() <= UINT32_MAX;
}

std::uint32_t IntfId::hash() const { return Zol::hashOf(value_); }

std::ostream& operator<<(std::ostream& out, const IntfId& intf) {
  if (intf == IntfId()) {
    return out << "none";
  }
  if (intf.is(IntfId::Kind::ordinary)) {
    return out << ordinaryPrefix << intf.number();
  }
  if (intf.is(IntfId::Kind::dynamicTunnel)) {
    return out << tunnelPrefix << tunnelForm.print(intf.number());
  }
  if (intf.is(IntfId::Kind::nexthopGroup)) {
    return out << nexthopGroupPrefix << intf.number();
  }
  return out << "unknown:" << intf.value();
}

void DynamicTunnelIntfId::formIs(const Form& form) { tunnelForm = form; }
const DynamicTunnelIntfId::Form& DynamicTunnelIntfId::form() { return tunnelForm; }

}  // namespace Ipkit
