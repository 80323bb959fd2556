// CountLog: how many entries FIB and RIBs have, in the log: once they are complete, and then at most once a minute
// while the numbers change.
#pragma once

#include <string>

#include "agent/AgentHost.h"
#include "runtime/Quor/OwnedTask.h"

namespace Agent {

class CountLog {
 public:
  // The host outlives it.
  explicit CountLog(const AgentHost& host);

  // "109 FIB entries, 40 RIB entries": of all RIBs but the per-protocol ones. O(RIBs).
  std::string text() const;
  // Logs that the first backlog is drained, with the numbers.
  void ready();
  // The numbers may have changed. Nothing before the first ready().
  void look();

  static constexpr double secondsBetween = 60;

 private:
  void logNumbers(const std::string& prefix);
  void handleTime();

  const AgentHost& host_;
  std::string logged_;  // empty: never
  double loggedAt_ = 0;
  Quor::OwnedTask<CountLog> task_;
};

}  // namespace Agent
