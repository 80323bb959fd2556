#include "tunnel_table_sm/SourceComparison.h"

#include "runtime/Zol/Assert.h"

namespace Tunnel::TunnelTable {

SourceComparison compareSources(TunnelType existingType, TunnelEntryPref existingPref, TunnelType candidateType,
                                TunnelEntryPref candidatePref) {
  using By = SourceComparison::By;
  if (existingPref != candidatePref) {
    return {By::preference, existingPref, candidatePref};
  }
  if (existingType == candidateType) {
    return {By::sideBySide, existingPref, candidatePref};
  }
  const TunnelEntryPref existing = getDefaultPrefForType(existingType);
  const TunnelEntryPref candidate = getDefaultPrefForType(candidateType);
  ZOL_ASSERT_TEXT(existing != candidate,
                  "existingPref != newPref && \"Two tunnels have the same default static pref\"");
  return {By::defaultPreference, existing, candidate};
}

}  // namespace Tunnel::TunnelTable
