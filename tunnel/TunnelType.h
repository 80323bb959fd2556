// TunnelType: the source of a tunnel, and what follows from the source alone.
//
// | number | name                  | default preference | can be in a tunnel RIB |
// | 1      | bgpLuPushTunnel       | 255                |                        |
// | 2      | bgpLuTunnel           | 85                 | yes                    |
// | 3      | ldpTunnel             | 55                 | yes                    |
// | 5      | staticTunnel          | 15                 | yes                    |
// | 7      | srTunnel              | 65                 | yes                    |
// | 8      | srTeSegmentListTunnel | 255                |                        |
// | 9      | l3IntfTunnel          | 255                |                        |
// | 10     | rsvpTunnel            | 255                |                        |
// | 11     | nexthopGroupTunnel    | 25                 | yes                    |
// | 12     | tiLfaTunnel           | 255                |                        |
// | 0 4 6 15 | tunnelType0 ...     | 255                | sources without a table here |
//
// 13 and 14 fit into the four bits that a tunnel id has for the type, but are no types.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

namespace Tunnel::TunnelTable {

enum class TunnelType : std::uint8_t {
  tunnelType0 = 0,
  bgpLuPushTunnel = 1,
  bgpLuTunnel = 2,
  ldpTunnel = 3,
  tunnelType4 = 4,
  staticTunnel = 5,
  tunnelType6 = 6,
  srTunnel = 7,
  srTeSegmentListTunnel = 8,
  l3IntfTunnel = 9,
  rsvpTunnel = 10,
  nexthopGroupTunnel = 11,
  tiLfaTunnel = 12,
  tunnelType15 = 15,
};

// 0 to 255; the smaller is preferred. 255 is also what a preference that cannot be found reads as.
using TunnelEntryPref = std::uint8_t;

constexpr TunnelEntryPref defaultPrefOfNone = 255;

// Whether the type exists: 0 to 15 without 13 and 14.
bool isLegal(TunnelType type);

// The enumerator's name; a number without a type prints as "tunnelType" and the number.
std::string stringValue(TunnelType type);
std::ostream& operator<<(std::ostream& out, TunnelType type);
// Raises ParseException for anything but the name of a type.
TunnelType tunnelTypeFromText(std::string_view name);

// Whether tunnels of the type are candidates for tunnel RIBs.
constexpr bool contributeToTunnelRib(TunnelType type) {
  constexpr unsigned contributing = 0x8AC;  // bgpLu, ldp, static, sr, nexthopGroup
  return static_cast<unsigned>(type) < 16 && ((contributing >> static_cast<unsigned>(type)) & 1U) != 0;
}

// Asserts that the type exists.
TunnelEntryPref getDefaultPrefForType(TunnelType type);

}  // namespace Tunnel::TunnelTable
