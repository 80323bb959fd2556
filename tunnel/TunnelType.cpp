#include "tunnel/TunnelType.h"

#include "runtime/Zol/Assert.h"
#include "runtime/Zol/Exception.h"

namespace Tunnel::TunnelTable {
namespace {

struct TypeRow {
  const char* name;  // null: no type has this number
  TunnelEntryPref defaultPref;
};
constexpr TypeRow typeRows[16] = {
    {"tunnelType0", 255},
    {"bgpLuPushTunnel", 255},
    {"bgpLuTunnel", 85},
    {"ldpTunnel", 55},
    {"tunnelType4", 255},
    {"staticTunnel", 15},
    {"tunnelType6", 255},
    {"srTunnel", 65},
    {"srTeSegmentListTunnel", 255},
    {"l3IntfTunnel", 255},
    {"rsvpTunnel", 255},
    {"nexthopGroupTunnel", 25},
    {"tiLfaTunnel", 255},
    {nullptr, 0},
    {nullptr, 0},
    {"tunnelType15", 255},
};

const TypeRow* rowOf(TunnelType type) {
  const auto number = static_cast<std::size_t>(type);
  return number < std::size(typeRows) && typeRows[number].name != nullptr ? &typeRows[number] : nullptr;
}

}  // namespace

bool isLegal(TunnelType type) { return rowOf(type) != nullptr; }

std::string stringValue(TunnelType type) {
  const TypeRow* const row = rowOf(type);
  return row != nullptr ? row->name : "tunnelType" + std::to_string(static_cast<unsigned>(type));
}

std::ostream& operator<<(std::ostream& out, TunnelType type) { return out << stringValue(type); }

TunnelType tunnelTypeFromText(std::string_view name) {
  for (std::size_t number = 0; number < std::size(typeRows); ++number) {
    if (typeRows[number].name != nullptr && name == typeRows[number].name) {
      return static_cast<TunnelType>(number);
    }
  }
  throw Zol::ParseException("'" + std::string(name) + "' is not a tunnel type");
}

TunnelEntryPref getDefaultPrefForType(TunnelType type) {
  const TypeRow* const row = rowOf(type);
  ZOL_ASSERT_TEXT(row != nullptr, "false && \"Unknown tunnel type\"");
  return row->defaultPref;
}

}  // namespace Tunnel::TunnelTable
