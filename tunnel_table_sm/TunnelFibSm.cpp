// Intake: what is watched, the first pass at a start, and what is asked about a tunnel's table entry.
//
// A start over a FIB that an earlier run left: entries whose tunnel is gone are deleted first. The others stay as they
// are, marked unprocessed, until their review; a marked entry is nobody's source of vias. Tunnels that were
// unprogrammable are marked too: until their review it is not known where they lead. Then every table is walked, so
// that the first drain reviews everything, and writes what differs.
#include "tunnel_table_sm/TunnelFibSm.h"

#include "runtime/Fastlog/TraceHelper.h"
#include "tunnel_table_sm/TunnelFibTableEntry.h"
#include "tunnel_table_sm/TunnelFibTableVisit.h"
#include "tunnel_table_sm/TunnelTracing.h"

namespace Tunnel::TunnelTable {
namespace {

FASTLOG_DEFAULT_HANDLE("TunnelFibSm");

constexpr unsigned contributingTypes = 0x1FAA;  // one bit a type; BGP-LU is decided by its entry
constexpr unsigned tableEntryTypes = 0x0BAE;    // those whose table entry others may ask for
constexpr unsigned typeMax = 12;

bool isIn(unsigned types, TunnelType type) {
  const auto number = static_cast<unsigned>(type);
  return number <= typeMax && (types >> number & 1U) != 0;
}

template <class T>
const Zol::Ptr<T>& required(const Zol::Ptr<T>& collaborator, const char* what) {
  if (!collaborator) {
    throw Zol::InternalException(std::string("TunnelFibSm without ") + what);
  }
  return collaborator;
}

}  // namespace

#define TUNNEL_FIB_PARAMETER(attribute, Table, handler) Zol::PtrConst<Table> attribute,
#define TUNNEL_FIB_BIND(attribute, Table, handler)                \
  attribute##_(*this, std::move(attribute), &Table::entryChannel, \
               {.onKey = &TunnelFibSm::handler, .onAll = &TunnelFibSm::handler, .onNotifier = &TunnelFibSm::handler}),
TunnelFibSm::TunnelFibSm(Zol::Ptr<TunnelFib> tunnelFib, Zol::Ptr<TunnelIdColl> unprogrammableTunnelIds,
                         TUNNEL_FIB_TABLES(TUNNEL_FIB_PARAMETER) Zol::Ptr<Quor::TaskScheduler> scheduler)
    : tunnelFib_(required(tunnelFib, "a tunnel FIB")),
      unprogrammableTunnelIds_(required(unprogrammableTunnelIds, "a set of unprogrammable tunnels")),
      scheduler_(required(scheduler, "a scheduler")),
      watchedFib_(*this, tunnelFib, &TunnelFib::entryChannel, {.onKey = &TunnelFibSm::handleTunnelFibEntry}),
      TUNNEL_FIB_TABLES(TUNNEL_FIB_BIND) tunnelFibWriter_(*this) {
  handleInitialized();
}
#undef TUNNEL_FIB_BIND
#undef TUNNEL_FIB_PARAMETER

void TunnelFibSm::handleInitialized() {
  FASTLOG_TRACE(8, "virtual void Tunnel::TunnelTable::TunnelFibSm::handleInitialized()");
  fastlogInitialize();
  task_ = std::make_unique<Quor::OwnedTask<TunnelFibSm>>(*this, &TunnelFibSm::drainTunnelBacklog, scheduler_, 2,
                                                         "TunnelFibSm");
  retryTask_ = std::make_unique<Quor::OwnedTask<TunnelFibSm>>(*this, &TunnelFibSm::retryHeldUpTunnels, scheduler_, 2,
                                                              "TunnelFibRetry");
  tunnelFibWriter_.is(tunnelFibWriterFactory(tunnelFib_));
  removeStaleEntries();
  walkSafely(tunnelFib_->entry(), [this](const auto& hint) {
    tunnelFibEntryMarkedUnprocessedIs(hint.key(), true);
    FASTLOG_TRACE(8, "adding non-stale tunnelFib entry for review: tunnelId: " << hint.key());
    tunnelForReviewIs(hint.key(), true);
  });
  for (const auto& [tunnelId, value] : unprogrammableTunnelIds_->entry().members()) {
    markedUnprocessed_.insert(tunnelId, false);
    tunnelForReviewIs(tunnelId, true);
  }
#define TUNNEL_FIB_FULL_PASS(handler, isTraced, ...) handler();
  TUNNEL_FIB_HANDLERS(TUNNEL_FIB_FULL_PASS)
#undef TUNNEL_FIB_FULL_PASS
  tunnelFibWriter_->deleteUnreferencedEncaps();
  initialized_ = true;
  if (!tunnelForReview_.empty()) {
    scheduleTunnelReview();
  }
}

void TunnelFibSm::removeStaleEntries() {
  FASTLOG_TRACE(8, "void Tunnel::TunnelTable::TunnelFibSm::removeStaleEntries()");
  TunnelFibDependencies::TunnelIds stale;
  walkSafely(tunnelFib_->entry(), [&](const auto& hint) {
    if (visitTableEntry(hint.key(), [](const auto&) {}) || isHidden(hint.key())) {
      FASTLOG_TRACE(8, " tunnel id " << hint.key() << " is not stale.");
    } else {
      stale.push_back(hint.key());
    }
  });
  for (const TunnelId& tunnelId : stale) {
    tunnelFibWriter_->deleteFibEntry(tunnelId);
  }
}

// What an earlier table of the type has led to, when another one takes its place or none does.
void TunnelFibSm::fileStanding(TunnelType type) {
  const auto file = [this, type](const TunnelId& tunnelId) {
    if (tunnelId.tunnelType() == type) {
      tunnelForReviewIs(tunnelId, true);
    }
  };
  walkSafely(tunnelFib_->entry(), [&](const auto& hint) { file(hint.key()); });
  for (const auto& [tunnelId, value] : unprogrammableTunnelIds_->entry().members()) {
    file(tunnelId);
  }
}

void TunnelFibSm::tunnelFibEntryMarkedUnprocessedIs(const TunnelId& tunnelId, bool value) {
  if (value) {
    markedUnprocessed_.insertOrAssign(tunnelId, true);
  } else {
    markedUnprocessed_.erase(tunnelId);
  }
}

// ---- handlers ------------------------------------------------------------------------------------------------------

template <class F, class... Tables>
void TunnelFibSm::forEachTunnel(F&& file, const Zol::PtrConst<Tables>&... tables) const {
  const auto walk = [&file](const auto& table) {
    if (table) {
      walkSafely(*table, [&file](const auto& hint) { file(hint.key()); });
    }
  };
  (walk(tables), ...);
}

#define TUNNEL_FIB_HANDLER(handler, isTraced, ...)                                       \
  void TunnelFibSm::handler(const TunnelId& tunnelId) {                                  \
    if (isTraced) {                                                                      \
      FASTLOG_TRACE(8, #handler << ", tunnelId: " << tunnelId);                          \
    }                                                                                    \
    tunnelForReviewIs(tunnelId, true);                                                   \
  }                                                                                      \
  void TunnelFibSm::handler() {                                                          \
    FASTLOG_TRACE(8, #handler);                                                          \
    forEachTunnel([this](const TunnelId& tunnelId) { handler(tunnelId); }, __VA_ARGS__); \
  }
TUNNEL_FIB_HANDLERS(TUNNEL_FIB_HANDLER)
#undef TUNNEL_FIB_HANDLER

void TunnelFibSm::handleTunnelFibEntry(const TunnelId& tunnelId) {
  FASTLOG_TRACE(8, "handleTunnelFibEntry"
                       << " tunnelId: " << tunnelId);
  addDependentTunnelsForReview(tunnelId);
}

// ---- questions about a tunnel --------------------------------------------------------------------------------------

bool TunnelFibSm::tunnelContributesToTunnelFib(const TunnelId& tunnelId) const {
  if (tunnelId.tunnelType() != TunnelType::bgpLuTunnel) {
    return isIn(contributingTypes, tunnelId.tunnelType());
  }
  bool contributes = false;
  visitTableEntry(tunnelId, [&](const auto& entry) { contributes = contributesToTunnelFib(entry); });
  return contributes;
}

TunnelTableEntry TunnelFibSm::tunnelTableEntry(const TunnelId& tunnelId) const {
  TunnelTableEntry head;
  if (isIn(tableEntryTypes, tunnelId.tunnelType())) {
    visitTableEntry(tunnelId, [&head](const auto& entry) { head = entry; });
  } else {
    FASTLOG_TRACE(8, "Unknown tunnel type " << tunnelId.tunnelType());
  }
  return head;
}

bool TunnelFibSm::tunnelTableEntryWasDeleted(const TunnelId& tunnelId) const { return !tunnelTableEntry(tunnelId); }

bool TunnelFibSm::isUnreviewed(const TunnelId& tunnelId) const {
  bool contributes = false;
  visitTableEntry(tunnelId, [&](const auto& entry) { contributes = contributesToTunnelFib(entry); });
  return contributes && !unprogrammableTunnelIds_->has(tunnelId);
}

bool TunnelFibSm::tunnelTableEntryUsable(const TunnelId& tunnelId) const {
  return !tunnelTableEntryWasDeleted(tunnelId) && tunnelContributesToTunnelFib(tunnelId);
}

}  // namespace Tunnel::TunnelTable
