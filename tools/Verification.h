// Verification: whether RIBs and FIB of a state directory are what its tables say. All is computed anew in a shadow.
//
//     read tables ──▶ shadow ──▶ compare ──nothing differs──▶ same
//         ▲                         │
//         │                    wait a moment
//         └──some table moved───────┴──no table moved──▶ wrong: who should have written has had his time
//
// What differs at every try, in the same way, is wrong however much else moves; what differs only at the last is in
// flight.
#pragma once

#include <string>
#include <vector>

#include "tools/StateComparison.h"

namespace Tools {

struct Verdict {
  std::vector<std::string> incomplete;  // why the tables say nothing for certain; then nothing was compared
  std::vector<Difference> wrong;        // left: published, right: recomputed
  std::vector<Difference> inFlight;
  bool isAgentRunning = false;
  std::size_t fibEntries = 0;  // published
};

constexpr unsigned verifyTries = 5;
constexpr double verifyPauseSeconds = 0.3;

// Raises runtime_error for a directory or a file that cannot be read.
Verdict verify(const std::string& stateDirectory);

}  // namespace Tools
