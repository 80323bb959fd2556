// Publishers: which processes write the protocols' tables, for the log, and the tables that they left incomplete.
//
// A table's header names its writer; the kernel's lock says whether that process still has the table. No event comes
// at the moment when the lock goes: the directory watch reports the close just before it. So look() is repeated for a
// short time after each such report.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "agent/AgentState.h"
#include "agent/Reasons.h"
#include "runtime/Quor/OwnedTask.h"

namespace Agent {

class Publishers {
 public:
  // Publishers that are present already are not logged. The state outlives this.
  Publishers(const AgentState& state, const Zol::Ptr<Quor::TaskScheduler>& scheduler);

  // Logs the publishers that came or left since the last call. Asks for a lock only where a table's header has changed.
  void look() { look(false); }
  // As look(), for all tables, and repeated shortly: files below the directory have changed.
  void handleRescan();
  // The incomplete tables. As of the last look().
  const std::vector<Reason>& reasons() const { return reasons_; }

 private:
  struct Seen {
    const Memtab::MirrorStore* mirror = nullptr;
    bool isBound = false;
    std::uint64_t epoch = 0;
    std::uint64_t pid = 0;   // of the writer; 0: it closed the table in good order
    std::uint64_t last = 0;  // the writer that was seen last; 0: unknown
    bool isReady = false;
    bool isPresent = false;
    bool operator==(const Seen&) const = default;
  };

  void look(bool asksAll);
  void lookAgain();
  static Seen seenAfter(const Seen& before, bool asks);
  void updateReasons();
  std::size_t entriesOf(const std::vector<std::string>& tables) const;

  const AgentState& state_;
  std::map<TableId, Seen> seen_;
  std::vector<Reason> reasons_;
  Quor::OwnedTask<Publishers> again_;
  double againDelay_ = 0;  // seconds
};

}  // namespace Agent
