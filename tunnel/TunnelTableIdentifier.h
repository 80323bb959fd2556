// TunnelTableIdentifier: the name of one protocol tunnel table. Its numbering is not that of TunnelType.
#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <string_view>

namespace Tunnel::TunnelTable {

enum class TunnelTableIdentifier : std::int32_t {
  none = 0,
  bgpLu = 1,
  bgpLuPush = 2,
  ldp = 3,
  rsvp = 4,
  sr = 5,
  staticTable = 6,
  nexthopGroup = 7,
  srTeSegmentList = 8,
  greTunnelInterface = 9,
  ipsecVtiTunnelInterface = 10,
  ipsecGreTunnelInterface = 11,
  tiLfa = 13,
};

// The names that RIB configuration may use, by identifier. Nine rows at load: the interface tables are never named in
// configuration. One map for the process; looking up an identifier without a row by operator[] adds one with an empty
// name, which the readers of configuration rely on.
std::map<TunnelTableIdentifier, std::string>& TableIdToNameMap();

// The name of any of the twelve tables; an identifier without a table prints as its number.
std::ostream& operator<<(std::ostream& out, TunnelTableIdentifier table);
// Raises ParseException for anything but the name of one of the twelve tables.
TunnelTableIdentifier tableIdFromText(std::string_view name);

}  // namespace Tunnel::TunnelTable
