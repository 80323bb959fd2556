// SourceComparison: whose tunnels an endpoint's RIB entry shows when two tunnels claim it. Preferences decide, the
// smaller wins; between equal ones the default preferences of the types do. Two tunnels of one type with one preference
// do not compete: they stand side by side. Nothing else counts, neither metrics nor tie-breakers.
#pragma once

#include "tunnel/TunnelType.h"

namespace Tunnel::TunnelTable {

struct SourceComparison {
  enum class By { sideBySide, preference, defaultPreference };

  By by = By::sideBySide;
  TunnelEntryPref existing = 0;  // the values that were compared
  TunnelEntryPref candidate = 0;

  bool doesCandidateWin() const { return by != By::sideBySide && candidate < existing; }
};

// Asserts that different types with equal preferences have different defaults.
SourceComparison compareSources(TunnelType existingType, TunnelEntryPref existingPref, TunnelType candidateType,
                                TunnelEntryPref candidatePref);

}  // namespace Tunnel::TunnelTable
