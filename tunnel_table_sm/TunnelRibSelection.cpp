// The review of one tunnel: what the tables say of it now decides where it is filed, and the endpoint's RIB entry
// follows by three rules.
//
//   joins     a tunnel of the entry's type and preference stands beside those that are there
//   replaces  a tunnel with a smaller preference, or the same and a smaller default preference of its type, starts the
//             entry anew; every other tunnel loses and stays a candidate
//   rebuilt   when an entry's last tunnel goes, the best of the remaining candidates takes over with all its equals
//
// A changed tunnel is always taken out where it was filed and filed again. The steps work on staged entries, so that
// only what comes out in the end is written.

#include "runtime/Fastlog/TraceHelper.h"
#include "tunnel_table_sm/TunnelRibBuilderSm.h"

FASTLOG_DEFAULT_HANDLE("TunnelRibBuilderSm")

namespace Tunnel::TunnelTable {
namespace {

#define BUILDER "Tunnel::TunnelTable::TunnelRibBuilderSm::"
#define ENCAPSULATED "const Tunnel::TunnelTable::EncapsulatedTableEntry&"
constexpr auto updateEntrySignature = "void " BUILDER "updateTunnelRibEntry(const Tunnel::TunnelTable::TunnelId&)";
constexpr auto getPreferenceSignature = "U8 " BUILDER "getPreference(const Tunnel::TunnelTable::TunnelTableEntry&)";
constexpr auto updateCollectionsSignature =
    "void " BUILDER "doUpdateLocalCollectionsAndTunnelRib(" ENCAPSULATED ", const Zol::IpGenPrefix&, bool)";
constexpr auto doUpdateEntrySignature =
    "void " BUILDER "doUpdateTunnelRibEntry(" ENCAPSULATED ", const Zol::IpGenPrefix&, bool)";
constexpr auto addTunnelIdSignature = "void " BUILDER "doAddTunnelId(" ENCAPSULATED ", const Zol::IpGenPrefix&)";
constexpr auto deleteTunnelIdSignature =
    "bool " BUILDER "doDeleteTunnelId(const Tunnel::TunnelTable::TunnelId&, const Zol::IpGenPrefix&)";
#undef BUILDER
#undef ENCAPSULATED

}  // namespace

void TunnelRibBuilderSm::updateTunnelRibEntry(const TunnelId& tunnelId) {
  FASTLOG_TRACE(8, updateEntrySignature << " tunnel ID " << tunnelId << ". Handling tunnel rib with"
                                        << " id " << ribId());
  if (!contributeToTunnelRib(tunnelId.tunnelType())) {
    FASTLOG_TRACE(8, tunnelId.tunnelType() << " doesn't contribute to tunnel rib");
    return;
  }
  if (!undecided_.empty()) {
    undecided_.erase(tunnelId);
  }
  const EncapsulatedTableEntry entry = freshEntry(tunnelId);
  if (keepsPlace(entry)) {
    return;
  }
  const bool add = admission(entry) == RibAdmission::admitted;
  // Where to add is for the table to say; where to remove is where the tunnel was filed, wherever it claims to be now.
  const Ipkit::IpGenPrefix tep = add ? entry.entry().tep() : tunnelIdToTep(tunnelId).tep();
  if (!tep && entry.hasEntry() && !!entry.entry().tep()) {
    return;  // it may not enter, and was nowhere
  }
  if (!tep) {
    FASTLOG_TRACE(8, " tunnel of type " << tunnelId.tunnelType() << " and id " << tunnelId << " has an invalid tep of "
                                        << tep << " associated with it.");
    return;
  }
  doUpdateLocalCollectionsAndTunnelRib(entry, tep, add);
  doWriteReview(entry);
}

RibAdmission TunnelRibBuilderSm::admission(const EncapsulatedTableEntry& entry) const {
  const TunnelId& id = entry.tunnelId();
  RibAdmission result = RibAdmission::admitted;
  if (!contributeToTunnelRib(id.tunnelType())) {
    result = RibAdmission::otherType;
  } else if (!entry.hasEntry()) {
    result = RibAdmission::noTableEntry;
  } else if (!entry.entry().tep()) {
    result = RibAdmission::noTep;
  } else if (!contributes(entry)) {
    result = RibAdmission::notContributing;
  }
  if (isUnprogrammable(id)) {
    FASTLOG_TRACE(8, id << " is unprogrammable");
    result = result == RibAdmission::admitted ? RibAdmission::unprogrammable : result;
  }
  return result;
}

TunnelEntryPref TunnelRibBuilderSm::getPreference(const TunnelTableEntry& entry) const {
  FASTLOG_TRACE(8, getPreferenceSignature);
  const TunnelId& id = entry.tunnelId();
  TunnelEntryPref pref = defaultPrefOfNone;
  if (!contributeToTunnelRib(id.tunnelType())) {
    FASTLOG_TRACE(8, " Something wrong going on. Unknown Tunnel Type " << id.tunnelType());
  } else if (!supportPreferenceRemap_) {
    pref = entry.pref();
  } else {
    ZOL_ASSERT_TEXT(filter_->preferenceHas(id), "tunnelTableEntryFilter()->preferenceHas( id )");
    pref = static_cast<TunnelEntryPref>(filter_->preference(id));  // the filter's low byte, a larger value wraps
  }
  FASTLOG_TRACE(8, " Preference returned: " << pref);
  return pref;
}

void TunnelRibBuilderSm::doUpdateLocalCollectionsAndTunnelRib(const EncapsulatedTableEntry& entry,
                                                              const Ipkit::IpGenPrefix& tep, bool add) {
  const TunnelId& id = entry.tunnelId();
  FASTLOG_TRACE(8, updateCollectionsSignature << " for tunnel id " << id << ", tep " << tep << ", add: " << add);
  if (!add) {
    doRemoveCandidate(entry, tep);
    return;
  }
  if (const TunnelIdToTepEntry filed = tunnelIdToTep(id); !!filed) {
    FASTLOG_TRACE(8, "ID to tep entry found, deleting old version, old tep " << filed.tep());
    doUpdateLocalCollectionsAndTunnelRib(entry, filed.tep(), false);
  }
  doAddCandidate(entry, tep);
}

void TunnelRibBuilderSm::doAddCandidate(const EncapsulatedTableEntry& entry, const Ipkit::IpGenPrefix& tep) {
  const TunnelId& id = entry.tunnelId();
  tunnelIdToTep_.insertOrAssign(id, TunnelIdToTepEntry(id, tep));
  if (!doUpdateProtoTunnelRibColl(tep, id, id.tunnelType(), true)) {
    return;
  }
  FASTLOG_TRACE(8, id.tunnelType() << ": adding protocol-specific TEP / tunnel ID "
                                   << "mapping, tunnel ID " << id << ", TEP " << tep);
  TunnelTableEntry key = entry.entry();
  key.prefIs(getPreference(key));
  internalTunnelRib_->entryIs(tep)->entryIs(key, true);
  doUpdateTunnelRibEntry(entry, tep, true);
}

void TunnelRibBuilderSm::doRemoveCandidate(const EncapsulatedTableEntry& entry, const Ipkit::IpGenPrefix& tep) {
  const TunnelId& id = entry.tunnelId();
  // A tunnel that the per-protocol RIB lacks was never filed, unless that RIB has lost it: then the rest still holds
  // it.
  const bool wasFiled = tunnelIdToTep_.erase(id);
  if (!doUpdateProtoTunnelRibColl(tep, id, id.tunnelType(), false) && !wasFiled) {
    return;
  }
  const Zol::Ptr<TunnelTableOrderedEntry> candidates = internalTunnelRib_->entry(tep);
  if (!candidates) {
    FASTLOG_TRACE(8, "Internal tunnel rib does not have an entry for tep " << tep);
    return;
  }
  // By the id alone: the preference under which it was filed may be another by now.
  const TunnelTableEntry* const filed =
      candidates->entry().firstKey([&id](const TunnelTableEntry& key) { return key.tunnelId() == id; });
  if (filed != nullptr) {
    candidates->entryDel(TunnelTableEntry(*filed));
  }
  if (candidates->entry().empty()) {
    internalTunnelRib_->entryDel(tep);
  }
  doUpdateTunnelRibEntry(entry, tep, false);
}

// A damaged entry is rebuilt from the candidates.
TunnelRibEntry& TunnelRibBuilderSm::ribEntryOf(const Ipkit::IpGenPrefix& tep) {
  return tunnelRib_.entry(tep, [this, &tep] { doSelectBestAndUpdateTunnelRib(tep); });
}

void TunnelRibBuilderSm::doUpdateTunnelRibEntry(const EncapsulatedTableEntry& entry, const Ipkit::IpGenPrefix& tep,
                                                bool add) {
  if (add) {
    doAddToTunnelRibEntry(entry, tep);
  } else {
    doRemoveFromTunnelRibEntry(entry.tunnelId(), tep);
  }
}

void TunnelRibBuilderSm::doAddToTunnelRibEntry(const EncapsulatedTableEntry& entry, const Ipkit::IpGenPrefix& tep) {
  FASTLOG_TRACE(8, doUpdateEntrySignature << "tep: " << tep << ", add: " << true);
  const TunnelId& id = entry.tunnelId();
  TunnelRibEntry& ribEntry = ribEntryOf(tep);
  const TunnelEntryPref newPref = getPreference(entry.entry());
  if (ribEntry.tunnelIds() == 0) {
    FASTLOG_TRACE(8, "Adding Tunnel RIB entry tep: " << tep << " id: " << id);
    doAddTunnelId(entry, tep, newPref);
    return;
  }
  FASTLOG_TRACE(8, "Updating Table entry is contributing for tep: " << tep << " has " << ribEntry.tunnelIds()
                                                                    << " contributing tunnels");
  const TunnelId existing = ribEntry.tunnelId(std::size_t(0));
  const TunnelEntryPref existingPref = ribEntry.pref();
  FASTLOG_TRACE(8, "Existing tunnel " << existing << " " << existing.tunnelType() << "(" << existingPref << ")");
  if (compareSources(existing.tunnelType(), existingPref, id.tunnelType(), newPref).by ==
      SourceComparison::By::sideBySide) {
    FASTLOG_TRACE(8, "Adding new ID for existing Tunnel RIB entry: " << id);
    doAddTunnelId(entry, tep, newPref);
  } else if (shouldReplaceTunnelRibEntries(existingPref, newPref, existing, id)) {
    ribEntry = TunnelRibEntry();
    doAddTunnelId(entry, tep, newPref);
  }
}

bool TunnelRibBuilderSm::shouldReplaceTunnelRibEntries(TunnelEntryPref existingPref, TunnelEntryPref newPref,
                                                       const TunnelId& existingId, const TunnelId& newId) const {
  const TunnelType existingType = existingId.tunnelType();
  const TunnelType newType = newId.tunnelType();
  if (existingPref == newPref) {
    FASTLOG_TRACE(8, "Existing tunnel table entry with tid " << existingId << " and new tunnel table entry with tid "
                                                             << newId << " have the same preference value of "
                                                             << existingPref);
  }
  const SourceComparison comparison = compareSources(existingType, existingPref, newType, newPref);
  if (comparison.by == SourceComparison::By::defaultPreference) {
    FASTLOG_TRACE(8, "Existing " << existingType << " tunnel table entry"
                                 << " has a default static preference of " << comparison.existing);
    FASTLOG_TRACE(8, "New " << newType << " tunnel table entry"
                            << " has a default static preference of " << comparison.candidate);
  }
  if (!comparison.doesCandidateWin()) {
    FASTLOG_TRACE(8, "Existing tunnel entry contributed by table: " << existingType << " (" << existingPref << ")"
                                                                    << " is preferred more than " << newType << " ("
                                                                    << newPref << ") ");
    return false;
  }
  FASTLOG_TRACE(8, "Deleting existing entry contributed by table: " << existingType << "(" << existingPref
                                                                    << ") as the entry from table: " << newType << "("
                                                                    << newPref << ") is more preferred.");
  FASTLOG_TRACE(8, "New ID is: " << newId);
  return true;
}

void TunnelRibBuilderSm::doRemoveFromTunnelRibEntry(const TunnelId& id, const Ipkit::IpGenPrefix& tep) {
  TunnelRibEntry& ribEntry = ribEntryOf(tep);
  if (ribEntry.tunnelIds() == 0) {
    FASTLOG_TRACE(8, "Tunnel Rib entry tep: " << tep << " is already gone.");
  }
  const bool present = ribEntry.hasTunnelId(id);
  FASTLOG_TRACE(8, "Deleting Tunnel RIB entry tep: " << tep << " id: " << id << " present: " << present);
  if (!present) {
    return;
  }
  if (ribEntry.tunnelIds() == 1) {
    ribEntry = TunnelRibEntry();
    doSelectBestAndUpdateTunnelRib(tep);
  } else {
    doDeleteTunnelId(id, tep);
  }
}

void TunnelRibBuilderSm::doAddTunnelId(const EncapsulatedTableEntry& entry, const Ipkit::IpGenPrefix& tep,
                                       TunnelEntryPref pref) {
  FASTLOG_TRACE(8, addTunnelIdSignature);
  const TunnelId& id = entry.tunnelId();
  TunnelRibEntry& ribEntry = ribEntryOf(tep);
  if (ribEntry.tunnelIds() == 0) {
    ribEntry = TunnelRibEntry(tep);
    if (entry.hasEntry() && contributes(entry)) {  // else its own review brings the metrics
      copyMetrics(id, ribEntry, entry);
    }
    ribEntry.prefIs(pref);
  }
  if (ribEntry.isFull() && !ribEntry.hasTunnelId(id)) {
    FASTLOG_TRACE(7, "Tunnel RIB entry tep: " << tep << " is full, id: " << id << " waits");
    return;
  }
  ribEntry.addTunnelId(id);
}

bool TunnelRibBuilderSm::doDeleteTunnelId(const TunnelId& id, const Ipkit::IpGenPrefix& tep) {
  FASTLOG_TRACE(8, deleteTunnelIdSignature << ", tep: " << tep);
  TunnelRibEntry& ribEntry = ribEntryOf(tep);
  const bool present = ribEntry.hasTunnelId(id);
  const TunnelType tunnelType = ribEntry.tunnelId(std::size_t(0)).tunnelType();
  ribEntry.delTunnelId(id);
  for (const TunnelId& tid : ribEntry.tunnelId()) {
    ZOL_ASSERT(tid.tunnelType() == tunnelType);
  }
  return present;
}

// The winner enters with the preference under which it is filed. If its table has another one by now, its own review is
// still to come. A candidate that cannot be read now keeps its place: it may still forward when all others are gone.
void TunnelRibBuilderSm::doSelectBestAndUpdateTunnelRib(const Ipkit::IpGenPrefix& tep) {
  const Zol::Ptr<TunnelTableOrderedEntry> candidates = internalTunnelRib_->entry(tep);
  if (!candidates) {
    FASTLOG_TRACE(8, "No table entry is contributing for tep: " << tep);
    return;
  }
  for (auto it = candidates->entry().begin(); it; ++it) {
    const TunnelTableEntry& candidate = it.key();
    const EncapsulatedTableEntry entry = freshEntry(candidate.tunnelId());
    if (!keepsPlace(entry) && (!entry.hasEntry() || entry.entry().tep() != tep || !contributes(entry))) {
      continue;
    }
    FASTLOG_TRACE(8, "Tunnel ID " << candidate.tunnelId() << " (" << candidate.tunnelId().tunnelType()
                                  << ") table entry is contributing for tep: " << tep);
    doAddTunnelId(entry, tep, candidate.pref());
    doAddPeers(candidate, *candidates);
    return;
  }
  FASTLOG_TRACE(8, "No remaining table entries are present to contribute for tep: " << tep);
}

// The candidates after the winner that are its equals; whether they contribute is left to their own reviews.
void TunnelRibBuilderSm::doAddPeers(const TunnelTableEntry& winner, const TunnelTableOrderedEntry& candidates) {
  const Ipkit::IpGenPrefix& tep = candidates.tep();
  auto it = candidates.entry().from(winner);
  for (++it; it; ++it) {
    const TunnelTableEntry& candidate = it.key();
    if (candidate.pref() != winner.pref() || candidate.tunnelId().tunnelType() != winner.tunnelId().tunnelType()) {
      continue;
    }
    FASTLOG_TRACE(8, "   TunnelID: " << candidate.tunnelId());
    const EncapsulatedTableEntry entry = freshEntry(candidate.tunnelId());
    if (keepsPlace(entry) || (entry.hasEntry() && entry.entry().tep() == tep)) {
      doAddTunnelId(entry, tep, candidate.pref());
    }
    if (ribEntryOf(tep).isFull()) {
      return;  // the rest waits
    }
  }
}

}  // namespace Tunnel::TunnelTable
