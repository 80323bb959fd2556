// TableScrubber: looks for damage in the tables that an agent writes, while it is at work, and has it repaired.
//
//     task ──▶ next segment of the table ──▶ header, ring, index words: restored from private memory
//                     ▲                 └──▶ records that cannot be read: their keeper writes them again
//                     │                              │
//                     └── visited again until it is sound, or until nothing more can be done
//
// One pass after the other visits all tables. A slice takes half a millisecond; the pause after it is a hundred times
// as long, and at least 50 microseconds a visited entry. So a pass takes five seconds for each 100,000 entries unless
// one percent of a core is too little for that. While tunnels wait for review the pauses are twice as long.
//
// Scheduler thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "runtime/Memtab/SharedStore.h"
#include "runtime/Quor/OwnedTask.h"

namespace Tunnel::TunnelTable {

// The owner of a table: it can write the records again. Each pass has a keeper of its own.
class TableKeeper {
 public:
  virtual ~TableKeeper() = default;
  // A record that can be read. Must not change the table.
  virtual void visit(unsigned /*collection*/, Memtab::Bytes /*key*/, Memtab::Bytes /*record*/) {}
  // The records with hashes up to last have been visited. isSound false: some cannot be read. Returns the names of
  // records that could be read but were wrong, and that have been corrected.
  virtual std::vector<std::string> visited(unsigned /*collection*/, std::uint64_t /*last*/, bool /*isSound*/) {
    return {};
  }
  // The range is going to be visited again.
  virtual void visitedAgain() {}
  virtual void passEnded() {}
  // Whether records of this collection are written again when those that refer to them are visited, later in the pass.
  virtual bool isWrittenLater(unsigned /*collection*/) const { return false; }

  // Reviews keys of the collection with hashes in [first, last]: all of them, or those whose records cannot be read, if
  // any. Writes the records that differ from the tables, at once or soon. Returns the names of those that cannot be
  // read.
  virtual std::vector<std::string> review(unsigned collection, std::uint64_t first, std::uint64_t last, bool isAll) = 0;
  // The name of an encoded key; empty: it is none.
  virtual std::string nameOf(unsigned collection, Memtab::Bytes key) const = 0;
  // Whether nothing that review() has asked for is still to be done.
  virtual bool isSettled() const = 0;
};

class TableScrubber {
 public:
  struct Table {
    std::string name;  // for people
    Zol::Ptr<Memtab::SharedStore> store;
    std::unique_ptr<TableKeeper> keeper;
  };
  // All tables, for the next pass.
  using Tables = std::function<std::vector<Table>()>;
  // Called with each finding: "table fib (/run/.../tunnelFib): entry ldpTunnel/5: checksum differs; written again".
  using Log = std::function<void(const std::string& line)>;

  struct Counters {
    std::uint64_t found = 0;
    std::uint64_t repaired = 0;
    std::uint64_t passes = 0;
    std::uint64_t visited = 0;  // entries
    double lastPassAt = 0;      // when the last pass ended, in the scheduler's time; 0: none has
    double lastPassSeconds = 0;
  };

  // Begins with the first pass. isBusy: whether tunnels wait for review.
  TableScrubber(const Zol::Ptr<Quor::TaskScheduler>& scheduler, Tables tables, std::function<bool()> isBusy, Log log);

  const Counters& counters() const { return counters_; }
  // Counting continues from there.
  void countersAre(const Counters& counters) { counters_ = counters; }
  // Damaged records that a whole pass, up to its end, has not seen repaired.
  std::size_t unrepaired() const { return unrepaired_; }

  static constexpr double secondsPerEntry = 50e-6;
  static constexpr double passSecondsMin = 5;

 private:
  // Passes the records to the keeper.
  struct Visitor final : Memtab::ScrubVisitor {
    explicit Visitor(TableKeeper& owner) : keeper(owner) {}
    void visit(unsigned collection, Memtab::Bytes key, Memtab::Bytes record) override {
      keeper.visit(collection, key, record);
    }
    TableKeeper& keeper;
  };

  void run();
  // Returns how many entries were visited.
  std::size_t step();
  void beginPass();
  void endPass();
  void handle(Table& table, const Memtab::ScrubPlace& from, Memtab::ScrubReport& report);
  void repairRecords(Table& table, const Memtab::ScrubPlace& from, const Memtab::ScrubReport& report);
  void dropUnreferred(Table& table);
  std::size_t countNew(const std::string& table, const Memtab::ScrubReport& report);
  std::size_t takeKnown(const std::string& table, const Memtab::ScrubReport& report);
  void logFound(const Table& table, const std::string& what, const std::string& done);

  const Zol::Ptr<Quor::TaskScheduler> scheduler_;
  const Tables source_;
  const std::function<bool()> isBusy_;
  const Log log_;
  std::vector<Table> tables_;
  std::size_t table_ = 0;
  Memtab::ScrubPlace place_;
  double passBeganAt_ = 0;
  std::vector<Memtab::Damage> later_;  // records of the table that are written again later in the pass
  double triesUntil_ = 0;              // until when the present range is visited again; 0: it was sound
  // Damaged records that were counted: table, collection, hash at which their segment begins, slot.
  using Known = std::tuple<std::string, unsigned, std::uint64_t, std::size_t>;
  std::set<Known> known_;
  std::set<Known> knownBefore_;  // at the beginning of the pass
  std::size_t unrepaired_ = 0;
  Counters counters_;
  Quor::OwnedTask<TableScrubber> task_;
};

}  // namespace Tunnel::TunnelTable
