#include "tunnel_table_sm/TableScrubber.h"

#include <algorithm>
#include <utility>

#include "runtime/Memtab/CorruptionException.h"

namespace Tunnel::TunnelTable {
namespace {

constexpr Quor::TaskPriority priority = 2;  // that of the backlogs: never starved, and its slices are short
constexpr double sliceSeconds = 0.0005;
constexpr std::size_t sliceEntries = 1000;
constexpr double restPerWork = 100;  // one percent of a core
constexpr double busyFactor = 2;
constexpr double repairSeconds = 1;  // as long damage is visited again before it is left for the next pass

std::string listed(const std::vector<std::string>& names) {
  constexpr std::size_t namesMax = 8;
  std::string text;
  for (std::size_t i = 0; i < std::min(names.size(), namesMax); ++i) {
    text += (i == 0 ? "" : ", ") + names[i];
  }
  return names.size() > namesMax ? text + " and " + std::to_string(names.size() - namesMax) + " more" : text;
}

}  // namespace

TableScrubber::TableScrubber(const Zol::Ptr<Quor::TaskScheduler>& scheduler, Tables tables,
                             std::function<bool()> isBusy, Log log)
    : scheduler_(scheduler),
      source_(std::move(tables)),
      isBusy_(std::move(isBusy)),
      log_(std::move(log)),
      task_(*this, &TableScrubber::run, scheduler, priority, "TableScrubber") {
  beginPass();
  task_.scheduleTaskLowestDelay(passSecondsMin);
}

void TableScrubber::beginPass() {
  tables_ = source_();
  table_ = 0;
  place_ = {};
  passBeganAt_ = scheduler_->now();
  knownBefore_ = known_;
}

void TableScrubber::endPass() {
  ++counters_.passes;
  counters_.lastPassAt = scheduler_->now();
  counters_.lastPassSeconds = counters_.lastPassAt - passBeganAt_;
  unrepaired_ = static_cast<std::size_t>(
      std::count_if(known_.begin(), known_.end(), [this](const Known& known) { return knownBefore_.contains(known); }));
  tables_.clear();
}

void TableScrubber::run() {
  const double begin = scheduler_->now();
  if (tables_.empty()) {
    beginPass();
  }
  std::size_t visited = 0;
  while (table_ < tables_.size() && visited < sliceEntries && triesUntil_ == 0 &&
         scheduler_->now() - begin <= sliceSeconds) {
    visited += step();
  }
  if (triesUntil_ != 0) {
    visited += step();
  }
  const double now = scheduler_->now();
  double pause = std::max(static_cast<double>(visited) * secondsPerEntry, (now - begin) * restPerWork);
  if (table_ == tables_.size()) {
    pause = std::max(pause, passBeganAt_ + passSecondsMin - now);
    endPass();
  }
  task_.taskWorkCountInc(0);
  task_.scheduleTaskLowestDelay(triesUntil_ == 0 && isBusy_() ? pause * busyFactor : std::max(pause, 0.01));
}

std::size_t TableScrubber::step() {
  Table& table = tables_[table_];
  const Memtab::ScrubPlace from = place_;
  Visitor visitor(*table.keeper);
  Memtab::ScrubReport report;
  const bool isMore = table.store->store().scrub(place_, visitor, report);
  if (report.beyondRepair != nullptr) {
    throw Memtab::CorruptionException(table.store->place() + ": " + report.beyondRepair);
  }
  counters_.visited += report.entries;
  const std::size_t at = table_;
  handle(table, from, report);
  if (triesUntil_ == 0 && !isMore) {
    dropUnreferred(tables_[at]);
    tables_[at].keeper->passEnded();
    ++table_;
    place_ = {};
  }
  return report.entries;
}

void TableScrubber::logFound(const Table& table, const std::string& what, const std::string& done) {
  log_("table " + table.name + " (" + table.store->place() + ") is damaged: " + what + "; " + done);
}

void TableScrubber::handle(Table& table, const Memtab::ScrubPlace& from, Memtab::ScrubReport& report) {
  for (const Memtab::ScrubFinding& finding : report.repaired) {
    const std::string name = finding.key.empty() ? "" : table.keeper->nameOf(finding.damage.collection, finding.key);
    logFound(table, (name.empty() ? "" : name + ": ") + finding.damage.what, "restored");
  }
  counters_.found += report.repaired.size();
  counters_.repaired += report.repaired.size();
  if (report.hasRepairedIndex) {
    (void)table.keeper->review(report.collection, report.firstHash, report.lastHash, true);
  }
  if (!report.damaged.empty() && table.keeper->isWrittenLater(report.collection)) {
    std::vector<std::string> names;
    for (const Memtab::ScrubFinding& finding : report.damaged) {
      later_.push_back(finding.damage);
      names.push_back(finding.key.empty() ? "a record" : table.keeper->nameOf(report.collection, finding.key));
    }
    if (const std::size_t fresh = countNew(table.name, report); fresh != 0) {
      counters_.found += fresh;
      logFound(table, listed(names) + ": " + report.damaged.front().damage.text(), "being written again");
    }
  } else if (!report.damaged.empty()) {
    repairRecords(table, from, report);
    return;
  }
  triesUntil_ = 0;
  if (report.damaged.empty()) {
    counters_.repaired += takeKnown(table.name, report);
  }
  const std::vector<std::string> wrong = table.keeper->visited(report.collection, report.lastHash, true);
  if (!wrong.empty()) {
    const std::size_t counted = std::min(wrong.size(), later_.size());  // when their records were found damaged
    counters_.found += wrong.size() - counted;
    counters_.repaired += wrong.size() - counted;
    logFound(table, listed(wrong) + (counted != 0 ? "" : ": differs from the tunnel tables"), "written again");
  }
}

// The range is visited again until its keeper has written the records. One that no key's review writes belongs to no
// key, and is removed.
void TableScrubber::repairRecords(Table& table, const Memtab::ScrubPlace& from, const Memtab::ScrubReport& report) {
  const double now = scheduler_->now();
  const bool isFirst = triesUntil_ == 0;
  if (isFirst) {
    triesUntil_ = now + repairSeconds;
    std::vector<std::string> names = table.keeper->review(report.collection, report.firstHash, report.lastHash, false);
    for (const Memtab::ScrubFinding& finding : report.damaged) {
      const std::string name = finding.key.empty() ? "" : table.keeper->nameOf(report.collection, finding.key);
      if (!name.empty() && std::find(names.begin(), names.end(), name) == names.end()) {
        names.push_back(name);
      }
    }
    if (const std::size_t fresh = countNew(table.name, report); fresh != 0) {
      counters_.found += fresh;
      logFound(table, (names.empty() ? "" : listed(names) + ": ") + report.damaged.front().damage.text(),
               "being written again");
    }
  } else if (now >= triesUntil_ && table.keeper->isSettled()) {
    for (const Memtab::ScrubFinding& finding : report.damaged) {
      table.store->store().dropDamaged(finding.damage);
    }
    (void)table.keeper->review(report.collection, report.firstHash, report.lastHash, true);
    triesUntil_ = now + repairSeconds;
  } else if (now >= triesUntil_) {  // no space, or input tables that cannot be read: the next pass tries again
    triesUntil_ = 0;
    (void)table.keeper->visited(report.collection, report.lastHash, false);
    return;
  }
  table.keeper->visitedAgain();
  place_ = from;
}

// No record refers to those that are still damaged.
void TableScrubber::dropUnreferred(Table& table) {
  if (table.keeper->isSettled()) {
    for (const Memtab::Damage& damage : later_) {
      if (table.store->store().dropDamaged(damage)) {
        logFound(table, damage.text(), "no entry refers to it, removed");
      }
    }
  }
  later_.clear();
}

std::size_t TableScrubber::countNew(const std::string& table, const Memtab::ScrubReport& report) {
  return static_cast<std::size_t>(
      std::count_if(report.damaged.begin(), report.damaged.end(), [&](const Memtab::ScrubFinding& finding) {
        return known_.emplace(table, report.collection, report.firstHash, finding.damage.slot).second;
      }));
}

// Of the range, which is sound now.
std::size_t TableScrubber::takeKnown(const std::string& table, const Memtab::ScrubReport& report) {
  return std::erase_if(known_, [&](const Known& known) {
    const auto& [name, collection, hash, slot] = known;
    return name == table && collection == report.collection && hash >= report.firstHash && hash <= report.lastHash;
  });
}

}  // namespace Tunnel::TunnelTable
