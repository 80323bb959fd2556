#include "agent/Publishers.h"

#include <algorithm>
#include <utility>

#include "agent/InputError.h"
#include "agent/Log.h"
#include "tunnel/TunnelTableInfo.h"

namespace Agent {
namespace {

constexpr Quor::TaskPriority lookPriority = 3;  // that of the table feed
constexpr double againFirst = 0.02;             // seconds; each delay is twice the one before
constexpr double againLast = 0.16;

std::string publisherText(std::uint64_t pid) {
  return pid == 0 ? "publisher (pid unknown)" : "publisher pid " + std::to_string(pid);
}

}  // namespace

Publishers::Publishers(const AgentState& state, const Zol::Ptr<Quor::TaskScheduler>& scheduler)
    : state_(state), again_(*this, &Publishers::lookAgain, scheduler, lookPriority, "Publishers") {
  for (const TableId table : allTables()) {
    Seen first;
    first.mirror = state_.entityManager()->mirror(Model::tunnelTableInfo(table).path);
    seen_[table] = seenAfter(first, true);
  }
  updateReasons();
}

auto Publishers::seenAfter(const Seen& before, bool asks) -> Seen {
  Seen now;
  now.mirror = before.mirror;
  if (now.mirror == nullptr || !now.mirror->isBound()) {
    return now;
  }
  const Memtab::Reader& reader = now.mirror->reader();
  now.isBound = true;
  now.epoch = reader.epoch();
  now.pid = reader.ownerPid();
  now.isReady = reader.ready();
  const bool isNew = now.epoch != before.epoch;
  now.last = now.pid != 0 || isNew ? now.pid : before.last;
  const bool hasChanged = isNew || now.pid != before.pid || now.isReady != before.isReady || !before.isBound;
  now.isPresent = asks || hasChanged ? now.mirror->isOwned() : before.isPresent;
  return now;
}

void Publishers::look(bool asksAll) {
  std::map<std::string, std::vector<std::string>> tablesByEvent;
  bool hasChanged = false;
  for (auto& [table, before] : seen_) {
    const Seen now = seenAfter(before, asksAll);
    if (now == before) {
      continue;
    }
    hasChanged = true;
    const bool hasCome = now.isBound && (now.epoch != before.epoch || (now.isPresent && now.last != before.last));
    const bool hasLeft = (before.isPresent || hasCome) && now.isBound && !now.isPresent;
    std::string event = hasCome ? publisherText(now.last) + " came" : "";
    if (hasLeft) {
      event = (hasCome ? event + " and " : publisherText(now.last) + " ") + (now.pid == 0 ? "left" : "died");
    }
    if (!event.empty() && (now.isPresent || now.isReady)) {  // else there is a reason, which is logged
      tablesByEvent[event].push_back(Zol::stringOf(table));
    }
    before = now;
  }
  for (const auto& [event, tables] : tablesByEvent) {
    const bool isPresent = event.ends_with(" came");
    const std::string rest = isPresent ? "" : "; complete, " + counted(entriesOf(tables), "entry", "entries");
    logBounded(LogLevel::info, "publishers", tablesText(tables) + ": " + event + rest);
  }
  if (hasChanged) {
    updateReasons();
  }
}

void Publishers::handleRescan() {
  look(true);
  againDelay_ = againFirst;
  lookAgain();
}

void Publishers::lookAgain() {
  look(true);
  const bool isAnyPresent =
      std::any_of(seen_.begin(), seen_.end(), [](const auto& each) { return each.second.isPresent; });
  if (isAnyPresent && againDelay_ <= againLast) {
    again_.scheduleTaskLowestDelay(againDelay_);
    againDelay_ *= 2;
  }
}

std::size_t Publishers::entriesOf(const std::vector<std::string>& tables) const {
  std::size_t count = 0;
  for (const auto& [table, seen] : seen_) {
    if (std::find(tables.begin(), tables.end(), Zol::stringOf(table)) != tables.end()) {
      count += state_.tables().table(table).size();
    }
  }
  return count;
}

void Publishers::updateReasons() {
  reasons_.clear();
  for (const auto& [table, seen] : seen_) {
    if (!seen.isBound || seen.isReady) {
      continue;
    }
    const char* const what = seen.isPresent  ? " has not completed it"
                             : seen.pid == 0 ? " left without completing it"
                                             : " died";
    reasons_.push_back({"table " + Zol::stringOf(table), "incomplete: " + publisherText(seen.last) + what,
                        "entries that it did not publish again stay installed until a publisher completes the table",
                        seen.isPresent});
  }
}

}  // namespace Agent
