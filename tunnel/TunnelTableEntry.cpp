#include "tunnel/TunnelTableEntry.h"

#include <algorithm>

namespace Tunnel::TunnelTable {
namespace {

constexpr std::string_view contributionNames[] = {"unspecified", "contributing", "notContributing"};

}  // namespace

std::strong_ordering operator<=>(const TunnelTableEntry& a, const TunnelTableEntry& b) {
  if (a.pref() != b.pref()) {
    return a.pref() <=> b.pref();
  }
  const TunnelEntryPref defaultA = getDefaultPrefForType(a.tunnelId().tunnelType());
  const TunnelEntryPref defaultB = getDefaultPrefForType(b.tunnelId().tunnelType());
  if (defaultA != defaultB) {
    return defaultA <=> defaultB;
  }
  if (a.tunnelId() != b.tunnelId()) {
    return a.tunnelId() <=> b.tunnelId();
  }
  if (a.tep() != b.tep()) {
    return a.tep() <=> b.tep();
  }
  return a.tieBreaker() <=> b.tieBreaker();
}

std::ostream& operator<<(std::ostream& out, Contribution contribution) {
  return isLegal(contribution) ? out << contributionNames[static_cast<std::size_t>(contribution)]
                               : out << static_cast<unsigned>(contribution);
}

void parseValue(Zol::TextCursor& in, Contribution& contribution) {
  const std::string_view name = in.token();
  const auto* const at = std::find(std::begin(contributionNames), std::end(contributionNames), name);
  if (at == std::end(contributionNames)) {
    throw Zol::ParseException("'" + std::string(name) + "' is not a contribution");
  }
  contribution = static_cast<Contribution>(at - std::begin(contributionNames));
}

}  // namespace Tunnel::TunnelTable
