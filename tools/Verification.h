// Verification: whether RIBs and FIB of a state directory are what its tables say. All is computed anew in a shadow.
//
//     read tables ──▶ shadow ──▶ compare ──nothing differs──▶ same
//         ▲                         │
//         │                    give a running agent a second
//         └──some table moved───────┴──no table moved──▶ wrong: who should have written has had his time
//
// Results of unreadable input records are not compared: the agent keeps them, a shadow lacks them.
//
// A tunnel or endpoint that differs at every try, in the same way, is wrong however much else moves. Where what is
// published or what is due changed in between, it is in flight.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "tools/StateComparison.h"

namespace Tools {

struct Verdict {
  std::vector<std::string> incomplete;  // why the tables say nothing for certain; then nothing was compared
  std::vector<std::string> damaged;     // tables with unreadable records: file, reason, affected tunnels
  std::vector<Difference> unjudged;     // differences that follow from damaged input tables
  std::vector<Difference> wrong;        // left: published, right: recomputed
  std::vector<Difference> inFlight;
  bool isAgentRunning = false;
  std::size_t fibEntries = 0;  // published
};

constexpr unsigned verifyTries = 5;
constexpr std::chrono::milliseconds verifyPause{300};
// How long all tables must stand still before a running agent has missed something; without one, before they do.
constexpr std::chrono::milliseconds verifyAgentTime{1000};
constexpr std::chrono::milliseconds verifyStillTime{50};

// withJson: differences hold JSON beside their text. Raises runtime_error for a directory or a file that cannot be
// read.
Verdict verify(const std::string& stateDirectory, bool withJson = false);

}  // namespace Tools
