#include "tunnel/TunnelTableIdentifier.h"

#include <algorithm>

#include "runtime/Zol/Exception.h"

namespace Tunnel::TunnelTable {
namespace {

using Id = TunnelTableIdentifier;

struct NameRow {
  Id id;
  std::string_view name;
  bool configurable;
};
constexpr NameRow nameRows[] = {
    {Id::bgpLu, "bgpLu", true},
    {Id::bgpLuPush, "bgpLuPush", true},
    {Id::ldp, "ldp", true},
    {Id::rsvp, "rsvp", true},
    {Id::sr, "sr", true},
    {Id::staticTable, "static", true},
    {Id::nexthopGroup, "nexthopGroup", true},
    {Id::srTeSegmentList, "srTeSegmentList", true},
    {Id::greTunnelInterface, "greTunnelInterface", false},
    {Id::ipsecVtiTunnelInterface, "ipsecVtiTunnelInterface", false},
    {Id::ipsecGreTunnelInterface, "ipsecGreTunnelInterface", false},
    {Id::tiLfa, "tiLfa", true},
};

}  // namespace

std::map<Id, std::string>& TableIdToNameMap() {
  static std::map<Id, std::string> names = [] {
    std::map<Id, std::string> rows;
    for (const NameRow& row : nameRows) {
      if (row.configurable) {
        rows.emplace(row.id, row.name);
      }
    }
    return rows;
  }();
  return names;
}

std::ostream& operator<<(std::ostream& out, Id table) {
  const auto* const row =
      std::find_if(std::begin(nameRows), std::end(nameRows), [&](auto& each) { return each.id == table; });
  return row == std::end(nameRows) ? out << static_cast<std::int32_t>(table) : out << row->name;
}

Id tableIdFromText(std::string_view name) {
  const auto* const row =
      std::find_if(std::begin(nameRows), std::end(nameRows), [&](auto& each) { return each.name == name; });
  if (row == std::end(nameRows)) {
    throw Zol::ParseException("'" + std::string(name) + "' is not a tunnel table");
  }
  return row->id;
}

}  // namespace Tunnel::TunnelTable
